// top.cpp - `trelmctl top`: all ports on a full screen, with rates and graphs of the last minutes, and a page
// for each port with its counters and targets.
#include <curses.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>

#include "commands.h"
#include "fresh_host.h"
#include "interrupts.h"
#include "targets.h"
#include "terminal.h"
#include "text.h"
#include "top_model.h"
#include "words.h"

namespace trelmctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr short kTroubleColour = 1;
constexpr int kEscape = 27;
constexpr double kGraphSeconds = 300;

// Puts the terminal into the state for drawing, and restores it at the end of the scope.
class CursesTerminal {
  public:
    CursesTerminal()
        : screen_(is_terminal(0) && is_terminal(1) ? newterm(nullptr, stdout, stdin) : nullptr, delscreen) {
        if (!screen_) {
            throw CommandFailed(
                tool_failure("NO_TERMINAL", "standard input or output is no terminal that can be drawn on",
                             "'trelmctl stats --watch' and 'trelmctl metrics' write to pipes"));
        }
        set_term(screen_.get());
        cbreak();
        noecho();
        curs_set(0);
        keypad(stdscr, TRUE);
        set_escdelay(50);
        if (has_colors()) {
            start_color();
            use_default_colors();
            init_pair(kTroubleColour, COLOR_RED, -1);
        }
    }
    ~CursesTerminal() { endwin(); }
    CursesTerminal(const CursesTerminal&) = delete;
    CursesTerminal& operator=(const CursesTerminal&) = delete;

    static void put(int line, const std::string& text, attr_t look = A_NORMAL) {
        if (line < 0 || line >= LINES) return;
        attron(look);
        move(line, 0);
        clrtoeol();
        addstr(fitted(text, static_cast<std::size_t>(COLS)).c_str());
        attroff(look);
    }

  private:
    std::unique_ptr<SCREEN, void (*)(SCREEN*)> screen_;
};

attr_t trouble_look() {
    return A_BOLD | (has_colors() ? static_cast<attr_t>(COLOR_PAIR(kTroubleColour)) : 0);
}

std::string rate_of(const PortTraffic& port, const char* key) {
    const auto rate = port.rates.find(key);
    return rate == port.rates.end() ? "-" : short_rate(rate->second);
}

class Top {
  public:
    explicit Top(const Options& options)
        : options_(options), fresh_(options.rescan), model_(options.filter) {}

    void run() {
        Clock::time_point next = Clock::now();
        while (!interrupted() && !quit_) {
            if (Clock::now() >= next) {
                host_ = fresh_.get();
                model_.sample(host_);
                next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(options_.every));
            }
            draw();
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
            timeout(static_cast<int>(std::max<int64_t>(left.count(), 1)));
            const int key = getch();
            if (key == ERR && hung_up(STDIN_FILENO)) return;
            take_key(key);
        }
    }

  private:
    // ---- Drawing ----

    // The samples that a graph shows.
    std::size_t span() const { return static_cast<std::size_t>(std::ceil(kGraphSeconds / options_.every)); }

    void draw() {
        ports_ = model_.ports(order_);
        selected_ = std::min(selected_, ports_.empty() ? 0 : ports_.size() - 1);
        erase();
        const std::string time = fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr)));
        detail_ && !ports_.empty() ? draw_port(*ports_[selected_]) : draw_list();
        CursesTerminal::put(
            0, fmt::format("trelmctl top  {}  every {} s  {} ports", time, options_.every, ports_.size()),
            A_BOLD);
        static constexpr std::array kOrders{"port", "traffic", "errors"};
        CursesTerminal::put(LINES - 1,
                            detail_ ? std::string("q quit  Esc back  Up/Down other port  PgUp/PgDn scroll")
                                    : fmt::format("q quit  s sort by: {}  Up/Down select  Enter port",
                                                  kOrders[static_cast<std::size_t>(order_)]),
                            A_REVERSE);
        refresh();
    }

    static std::string row(const PortTraffic& port) {
        return fmt::format("{:<6} {:<9} {:<9} {:>8} {:>8} {:>8} {:>8} {:>8} ", port.label, port.hba_name,
                           port.state, rate_of(port, "rx_fcoe_bytes"), rate_of(port, "tx_fcoe_bytes"),
                           rate_of(port, "read_requests"), rate_of(port, "write_requests"),
                           port.rates.empty() ? "-" : short_rate(port.errors()));
    }

    void draw_list() const {
        CursesTerminal::put(
            1,
            fmt::format("{:<6} {:<9} {:<9} {:>8} {:>8} {:>8} {:>8} {:>8} {}", "PORT", "HBA", "STATE",
                        "RX B/S", "TX B/S", "READ/S", "WRITE/S", "ERROR/S", "TRAFFIC"),
            A_UNDERLINE);
        const int room = std::max(LINES - 3, 1);
        const int first = std::max(static_cast<int>(selected_) - room + 1, 0);
        for (int line = 0; line < room && first + line < static_cast<int>(ports_.size()); ++line) {
            const auto index = static_cast<std::size_t>(first + line);
            const PortTraffic& port = *ports_[index];
            std::string text = row(port);
            const auto columns = static_cast<std::size_t>(COLS);
            if (columns > text.size()) text += graph(port.history, span(), columns - text.size());
            const attr_t look = port.in_trouble() ? trouble_look() : static_cast<attr_t>(A_NORMAL);
            CursesTerminal::put(line + 2, text, look | (index == selected_ ? A_REVERSE : A_NORMAL));
        }
    }

    void draw_port(const PortTraffic& port) {
        int line = 1 - scrolled_;
        CursesTerminal::put(line++, fmt::format("Port {}  {}  {}", port.label, port.hba_name, port.state),
                            port.in_trouble() ? trouble_look() : static_cast<attr_t>(A_BOLD));
        if (!port.trouble.empty()) CursesTerminal::put(line++, port.trouble, trouble_look());
        CursesTerminal::put(
            line++, "Traffic  " + short_rate(port.bytes()) + "B/s  " +
                        graph(port.history, span(), static_cast<std::size_t>(std::max(COLS - 30, 1))));
        line = draw_targets(port, line);
        for (const Counter& counter : kCounters) {
            const bool is_error = std::string_view(counter.group) == "errors";
            const auto rate = port.rates.find(counter.key);
            const bool rises = is_error && rate != port.rates.end() && rate->second > 0;
            CursesTerminal::put(line++,
                                fmt::format("{:<32}{:>20}{:>12}/s", counter.label,
                                            port.last ? fmt::to_string(counter.of(port.last->stats)) : "-",
                                            rate_of(port, counter.key)),
                                rises ? trouble_look() : static_cast<attr_t>(A_NORMAL));
        }
        is_cut_ = line > LINES - 1;
    }

    int draw_targets(const PortTraffic& port, int line) const {
        if (host_ == nullptr) return line;
        try {
            const trelm::Adapter adapter = open_adapter(*host_, port.instance);
            for (const TRELM_TGT_INFO& target : list_targets(adapter, port.npiv_index).targets) {
                const std::string state = target_state_words(target.PortState);
                CursesTerminal::put(line++,
                                    fmt::format("target {:>3}  {}  {}  {} LUNs", number(target.ScsiTgtNum),
                                                address(target.WWPN), state, number(target.LunCount)),
                                    state == "online" ? static_cast<attr_t>(A_NORMAL) : trouble_look());
            }
        } catch (const trelm::Error& error) {
            CursesTerminal::put(line++, explain(error).meaning, trouble_look());
        }
        return line;
    }

    // ---- Keys ----

    void take_key(int key) {
        switch (key) {
            case 'q':
                quit_ = true;
                break;
            case 's':
                order_ = order_ == TopOrder::errors ? TopOrder::port
                                                    : static_cast<TopOrder>(static_cast<int>(order_) + 1);
                break;
            case KEY_DOWN:
            case 'j':
                ++selected_;
                break;
            case KEY_UP:
            case 'k':
                selected_ -= selected_ > 0 ? 1 : 0;
                break;
            case KEY_NPAGE:
                scrolled_ += detail_ && is_cut_ ? std::max(LINES - 3, 1) : 0;
                break;
            case KEY_PPAGE:
                scrolled_ = std::max(scrolled_ - std::max(LINES - 3, 1), 0);
                break;
            case '\n':
            case KEY_ENTER:
                detail_ = true;
                scrolled_ = 0;
                break;
            case kEscape:
            case KEY_BACKSPACE:
                detail_ = false;
                break;
            default:
                break;
        }
    }

    const Options& options_;
    FreshHost fresh_;
    const LoadedHost* host_ = nullptr;
    TopModel model_;
    std::vector<const PortTraffic*> ports_;
    std::size_t selected_ = 0;
    TopOrder order_ = TopOrder::port;
    bool detail_ = false;
    bool quit_ = false;
    int scrolled_ = 0;     // by which the page of a port is scrolled
    bool is_cut_ = false;  // the page continues below
    CursesTerminal terminal_;
};

}  // namespace

void run_top(const Options& options, Output& output) {
    if (output.json()) throw CommandFailed(usage_failure("top draws on a terminal and has no JSON"));
    catch_interrupts();
    Top(options).run();
}

}  // namespace trelmctl
