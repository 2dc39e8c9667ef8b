// watch.cpp - rates per second between two samples. A terminal shows all counters in place. A pipe gets a
// line for each sample, with the most important counters, or a JSON document. A failed sample is reported in
// its place, and sampling continues.
#include "watch.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <nlohmann/json.hpp>

#include "counter_rates.h"
#include "interrupts.h"
#include "table.h"
#include "terminal.h"
#include "text.h"

namespace trelmctl {
namespace {

std::string time_of_day() { return fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr))); }

// How the samples are shown.
class View {
  public:
    View() = default;
    virtual ~View() = default;
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    virtual void show(const CounterInterval& interval) = 0;
    virtual void show(const Failure& failure) = 0;
};

// Draws a full screen, from its first line for each sample, so that it follows the size of the terminal.
class Screen : public View {
  public:
    Screen(std::string heading, Output& output) : heading_(std::move(heading)), output_(output) {}

    void show(const CounterInterval& interval) override {
        Table table({{"COUNTER"}, {"TOTAL", kRight}, {"PER SECOND", kRight}});
        for (const Counter& counter : kCounters) {
            const auto rate = interval.rate(counter);
            table.add({counter.label, fmt::format("{:>20}", counter.of(interval.after.stats)),
                       fmt::format("{:>14}", rate ? fmt::format("{:.1f}", *rate) : "reset")});
        }
        body_ = table.text();
        draw("");
    }
    void show(const Failure& failure) override { draw(sentence(failure)); }

  private:
    void draw(const std::string& trouble) {
        const TerminalSize size = terminal_size(STDOUT_FILENO);
        std::string text = fmt::format("{}  {}\n{}{}", heading_, time_of_day(),
                                       trouble.empty() ? "" : trouble + "\n", body_);
        std::string screen = "\033[H";
        std::size_t lines = 0;
        for (std::size_t at = 0; at < text.size() && lines < size.lines; ++lines) {
            const std::size_t end = text.find('\n', at);
            // The last line has no line break, which would scroll the screen.
            screen += fmt::format("{}{}\033[K", lines > 0 ? "\r\n" : "",
                                  fitted(std::string_view(text).substr(at, end - at), size.columns));
            at = end + 1;
        }
        output_.print(screen + "\033[J");
        output_.flush();
    }

    std::string heading_;
    std::string body_;
    Output& output_;
};

// A line for each sample, of at most 80 columns.
class Lines : public View {
  public:
    Lines(std::string heading, Output& output) : heading_(std::move(heading)), output_(output) {}

    void show(const CounterInterval& interval) override {
        if (shown_++ % 20 == 0) {
            output_.print(heading_ + "\n");
            print_line("TIME", [](const Shown& shown) { return std::string(shown.title); });
        }
        print_line(time_of_day(),
                   [&](const Shown& shown) { return short_rate(interval.rate(counter_named(shown.key))); });
        output_.flush();
    }
    void show(const Failure& failure) override { tell(sentence(failure) + "\n"); }

  private:
    struct Shown {
        const char* title;
        std::string_view key;
    };
    static constexpr std::array kShown{
        Shown{"RXFRM/S", "rx_fcoe_frames"},      Shown{"TXFRM/S", "tx_fcoe_frames"},
        Shown{"RXBYT/S", "rx_fcoe_bytes"},       Shown{"TXBYT/S", "tx_fcoe_bytes"},
        Shown{"READS/S", "read_requests"},       Shown{"WRITE/S", "write_requests"},
        Shown{"DROPS/S", "fcoe_dropped_frames"}, Shown{"CRCER/S", "fc_crc_error_frames"},
    };

    template <typename Cell>
    void print_line(std::string_view first, Cell cell) {
        std::string line = fmt::format("{:<8}", first);
        for (const Shown& shown : kShown) line += fmt::format(" {:>8}", cell(shown));
        output_.print(line + "\n");
    }

    std::string heading_;
    Output& output_;
    std::size_t shown_ = 0;
};

// A JSON document on a line of its own for each sample.
class Documents : public View {
  public:
    Documents(const SelectedPort& port, Output& output) : port_(port), output_(output) {}

    void show(const CounterInterval& interval) override {
        Json totals;
        Json rates;
        for (const Counter& counter : kCounters) {
            totals[counter.key] = counter.of(interval.after.stats);
            const auto rate = interval.rate(counter);
            rates[counter.key] = rate ? Json(*rate) : Json();
        }
        Json document = head();
        document.update({{"seconds", interval.seconds()},
                         {"totals", totals},
                         {"rates_per_second", rates},
                         {"error", nullptr}});
        output_.stream(document);
    }
    void show(const Failure& failure) override {
        Json document = head();
        document["error"] = to_json(failure);
        output_.stream(document);
    }

  private:
    Json head() const {
        return {{"format_version", 1},
                {"time", std::time(nullptr)},
                {"instance", port_.adapter.instance()},
                {"npiv_index", port_.npiv_index}};
    }

    const SelectedPort& port_;
    Output& output_;
};

std::unique_ptr<View> view_for(const Options& options, const SelectedPort& port, Output& output) {
    const std::string heading = fmt::format(
        "Port {}, every {} s", port_label(port.adapter.instance(), port.npiv_index), *options.watch);
    if (output.json()) return std::make_unique<Documents>(port, output);
    if (is_terminal(STDOUT_FILENO)) return std::make_unique<Screen>(heading, output);
    return std::make_unique<Lines>(heading, output);
}

std::optional<CounterSample> take(const SelectedPort& port, View& view, bool& failed) {
    try {
        return sample_counters(port.adapter, port.npiv_index);
    } catch (const trelm::Error& error) {
        view.show(explain(error));
        failed = true;
        return std::nullopt;
    }
}

}  // namespace

void watch_stats(const Options& options, const SelectedPort& port, Output& output) {
    catch_interrupts();
    wake_on_resize();
    output.begin_stream();
    const std::unique_ptr<View> view = view_for(options, port, output);
    bool failed = false;
    std::optional<CounterSample> before = take(port, *view, failed);
    for (uint64_t taken = 0; !options.samples || taken < *options.samples; ++taken) {
        wait_for(*options.watch);
        if (interrupted()) break;
        const std::optional<CounterSample> after = take(port, *view, failed);
        if (before && after) view->show(CounterInterval{*before, *after});
        if (after) before = after;
    }
    if (failed) output.end_failed();
}

}  // namespace trelmctl
