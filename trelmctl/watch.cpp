// watch.cpp - `trelmctl stats --watch`: rates per second between one sample and the next. A terminal shows
// all counters in place; a pipe gets a line for each sample, with the counters that people look at first.
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <ctime>
#include <utility>

#include "stats.h"
#include "table.h"

namespace trelmctl {
namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t ended_by_user = 0;

void end_watch(int) { ended_by_user = 1; }

// From here on an interrupt ends the wait, not the process, so that the library is left in order.
void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = end_watch;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void wait(double seconds) {
    timespec left{};
    left.tv_sec = static_cast<time_t>(seconds);
    left.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    nanosleep(&left, nullptr);  // cut short only by an interrupt
}

struct Sample {
    Clock::time_point when;
    TRELM_PORT_STATS stats;
};

Sample take(const SelectedPort& port) {
    const TRELM_PORT_STATS stats = port.adapter.stats(port.npiv_index);
    return {Clock::now(), stats};
}

// Two samples in a row. A counter that went back was reset in between and has no rate.
struct Interval {
    const Sample& before;
    const Sample& after;

    double seconds() const { return std::chrono::duration<double>(after.when - before.when).count(); }
    std::optional<double> rate(const Counter& counter) const {
        const uint64_t from = counter.of(before.stats);
        const uint64_t to = counter.of(after.stats);
        if (to < from || seconds() <= 0) return std::nullopt;
        return static_cast<double>(to - from) / seconds();
    }
};

std::string rate_text(std::optional<double> rate) { return rate ? fmt::format("{:.1f}", *rate) : "reset"; }

class Screen {
  public:
    void show(const Interval& interval, Output& output) {
        Table table({{"COUNTER"}, {"TOTAL", Column::Align::right}, {"PER SECOND", Column::Align::right}});
        for (const Counter& counter : kCounters) {
            table.add({counter.label, fmt::format("{:>20}", counter.of(interval.after.stats)),
                       fmt::format("{:>14}", rate_text(interval.rate(counter)))});
        }
        std::string text = table.text();
        // Back to the first line, and every line cleared to its end before it is written anew.
        for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 4))
            text.insert(at, "\033[K");
        if (std::exchange(shown_, true)) output.print(fmt::format("\033[{}A", kLines));
        output.print(text);
    }

    static constexpr std::size_t kLines = kCounters.size() + 1;

  private:
    bool shown_ = false;
};

class Lines {
  public:
    void show(const Interval& interval, Output& output) {
        if (shown_++ % 20 == 0)
            output.print(line([](const Shown& shown) { return std::string(shown.title); }));
        output.print(
            line([&](const Shown& shown) { return rate_text(interval.rate(kCounters[shown.counter()])); }));
    }

  private:
    struct Shown {
        const char* title;
        std::string_view key;

        constexpr std::size_t counter() const {
            std::size_t i = 0;
            while (kCounters[i].key != key) ++i;
            return i;
        }
    };
    static constexpr std::array kShown{
        Shown{"RX-FRAMES/S", "rx_fcoe_frames"},    Shown{"TX-FRAMES/S", "tx_fcoe_frames"},
        Shown{"RX-BYTES/S", "rx_fcoe_bytes"},      Shown{"TX-BYTES/S", "tx_fcoe_bytes"},
        Shown{"READS/S", "read_requests"},         Shown{"WRITES/S", "write_requests"},
        Shown{"DROPPED/S", "fcoe_dropped_frames"}, Shown{"CRC-ERRORS/S", "fc_crc_error_frames"},
    };

    template <typename Cell>
    static std::string line(Cell cell) {
        std::string out;
        for (const Shown& shown : kShown) fmt::format_to(std::back_inserter(out), "{:>14}", cell(shown));
        return out + "\n";
    }

    std::size_t shown_ = 0;
};

Json to_json(const Interval& interval) {
    Json totals;
    Json rates;
    for (const Counter& counter : kCounters) {
        totals[counter.key] = counter.of(interval.after.stats);
        const auto rate = interval.rate(counter);
        rates[counter.key] = rate ? Json(*rate) : Json();
    }
    return {{"seconds", interval.seconds()}, {"totals", totals}, {"rates_per_second", rates}};
}

}  // namespace

void watch_stats(const Options& options, const SelectedPort& port, Output& output) {
    catch_interrupts();
    const bool in_place = Output::terminal_lines() > Screen::kLines;
    Screen screen;
    Lines lines;
    Json& samples = output.document()["samples"] = Json::array();
    Sample before = take(port);
    for (uint64_t shown = 0; !options.samples || shown < *options.samples; ++shown) {
        wait(*options.watch);
        if (ended_by_user != 0) return;
        const Sample after = take(port);
        const Interval interval{before, after};
        if (output.json()) {
            samples.push_back(to_json(interval));
        } else {
            in_place ? screen.show(interval, output) : lines.show(interval, output);
            output.flush();
        }
        before = after;
    }
}

}  // namespace trelmctl
