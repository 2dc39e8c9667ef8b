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
#include "interrupts.h"
#include "lookout.h"
#include "terminal.h"
#include "text.h"
#include "top_model.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr short kTroubleColour = 1;
constexpr int kEscape = 27;
constexpr int kRedraw = 'L' & 0x1F;  // Ctrl+L, as in other programs
constexpr double kGraphSeconds = 300;
constexpr std::chrono::milliseconds kKeyDelay{20};  // until a key is noticed while drivers are asked
constexpr int kWideLine = 66;                       // columns of a counter's line with its total in full

// Puts the terminal into the state for drawing, and restores it at the end of the scope.
class CursesTerminal {
  public:
    CursesTerminal()
        : screen_(is_terminal(0) && is_terminal(1) ? newterm(nullptr, stdout, stdin) : nullptr, delscreen) {
        if (!screen_) {
            throw CommandFailed(
                tool_failure("NO_TERMINAL", "standard input or output is not a terminal that top can draw on",
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

struct Line {
    std::string text;
    attr_t look = A_NORMAL;
};

// ---- The page of a port ----

Line target_line(const TargetLook& target) {
    const std::string state = target_state_words(target.info.PortState);
    const std::string luns = target.luns ? fmt::format("{} LUNs", target.luns->size()) : "no answer";
    return {fmt::format("target {:>3}  {}  {}  {}", number(target.info.ScsiTgtNum), state, luns,
                        address(target.info.WWPN)),
            state == "online" && target.luns ? static_cast<attr_t>(A_NORMAL) : trouble_look()};
}

Line counter_line(const PortTraffic& port, const Counter& counter) {
    const auto rate = port.rates.find(counter.key);
    const bool is_wide = COLS >= kWideLine;
    std::string total = "-";
    if (port.last) {
        const uint64_t value = counter.of(port.last->stats);
        total = is_wide || value < 1000000 ? fmt::to_string(value) : short_rate(static_cast<double>(value));
    }
    const bool rises = counts_errors(counter) && rate != port.rates.end() && rate->second > 0;
    const std::string values =
        fmt::format("{:>{}}{:>{}}/s", total, is_wide ? 20 : 8, rate_of(port, counter.key), is_wide ? 12 : 8);
    const auto room = static_cast<std::size_t>(std::max(std::min(COLS, kWideLine), 0));
    const std::size_t width = room - std::min(room, values.size());
    return {fmt::format("{:<{}}{}", fitted(counter.label, width), width, values),
            rises ? trouble_look() : static_cast<attr_t>(A_NORMAL)};
}

std::vector<Line> page_of(const PortTraffic& port, std::size_t span) {
    std::vector<Line> lines{{fmt::format("Port {}  {}  {}", port.label, port.hba_name, port.state),
                             port.in_trouble() ? trouble_look() : static_cast<attr_t>(A_BOLD)}};
    if (!port.trouble.empty()) lines.push_back({port.trouble, trouble_look()});
    const auto room = static_cast<std::size_t>(std::max(COLS - 30, 1));
    lines.push_back(
        {"Traffic  " + short_rate(port.bytes()) + "B/s  " + graph(port.history, span, room), A_NORMAL});
    if (port.targets) {
        for (const TargetLook& target : port.targets->targets) lines.push_back(target_line(target));
        if (port.targets->failure) lines.push_back({port.targets->failure->meaning, trouble_look()});
    }
    for (const Counter& counter : kCounters) lines.push_back(counter_line(port, counter));
    return lines;
}

class Top {
  public:
    Top(const Options& options, Lookout& lookout) : options_(options), lookout_(lookout) {}

    void run() {
        while (!interrupted() && !quit_) {
            if (Clock::now() >= next_) start_look();
            if (lookout_.is_under_way()) take_look();
            draw();
            const int key = next_key();
            if (key == ERR && hung_up(STDIN_FILENO)) return;
            take_key(key);
        }
    }

  private:
    // ---- Looks at the host ----

    void start_look() {
        Wishes wishes{.filter = options_.filter, .counters = true, .targets = false, .targets_of = {}};
        if (detail_) wishes.targets_of = selected_key_;
        lookout_.start(wishes);
        next_ = Clock::now() +
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.every));
    }

    void take_look() {
        const auto host = lookout_.take(kKeyDelay);
        if (!host) return;
        model_.take(*host);
        find_selected();
    }

    // The selected port may be gone or have moved to another line.
    void find_selected() {
        ports_ = model_.ports(order_);
        const auto found = std::find_if(ports_.begin(), ports_.end(),
                                        [&](const PortTraffic* port) { return port->key == selected_key_; });
        if (found != ports_.end()) {
            selected_ = static_cast<std::size_t>(found - ports_.begin());
        } else {
            detail_ = false;
            select(selected_);
        }
    }

    void select(std::size_t index) {
        selected_ = std::min(index, ports_.empty() ? 0 : ports_.size() - 1);
        selected_key_ = ports_.empty() ? "" : ports_[selected_]->key;
    }

    // A key sends no requests itself. What the page needs beyond the last look comes with the next look,
    // which starts now.
    void open_page(std::size_t index) {
        select(index);
        scrolled_ = 0;
        next_ = Clock::now();
    }

    int next_key() const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next_ - Clock::now());
        const auto wait = lookout_.is_under_way() ? std::min(left, kKeyDelay) : left;
        timeout(static_cast<int>(std::max<int64_t>(wait.count(), 1)));
        return getch();
    }

    // ---- Drawing ----

    // The number of samples that a graph shows.
    std::size_t span() const { return static_cast<std::size_t>(std::ceil(kGraphSeconds / options_.every)); }

    static int room() { return std::max(LINES - 3, 1); }

    void draw() {
        erase();
        detail_ ? draw_page() : draw_list();
        const std::string time = fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr)));
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
        if (model_.trouble().empty()) {
            CursesTerminal::put(
                1,
                fmt::format("{:<6} {:<9} {:<9} {:>8} {:>8} {:>8} {:>8} {:>8} {}", "PORT", "HBA", "STATE",
                            "RX B/S", "TX B/S", "READ/S", "WRITE/S", "ERROR/S", "TRAFFIC"),
                A_UNDERLINE);
        } else {
            CursesTerminal::put(1, model_.trouble(), trouble_look());
        }
        const int first = std::max(static_cast<int>(selected_) - room() + 1, 0);
        for (int line = 0; line < room() && first + line < static_cast<int>(ports_.size()); ++line) {
            const auto index = static_cast<std::size_t>(first) + static_cast<std::size_t>(line);
            const PortTraffic& port = *ports_[index];
            std::string text = row(port);
            const auto columns = static_cast<std::size_t>(COLS);
            if (columns > text.size()) text += graph(port.history, span(), columns - text.size());
            const attr_t look = port.in_trouble() ? trouble_look() : static_cast<attr_t>(A_NORMAL);
            CursesTerminal::put(line + 2, text, look | (index == selected_ ? A_REVERSE : A_NORMAL));
        }
    }

    void draw_page() {
        const std::vector<Line> lines = page_of(*ports_[selected_], span());
        const int most = std::max(static_cast<int>(lines.size()) - (LINES - 2), 0);
        scrolled_ = std::min(scrolled_, most);
        for (int line = 1; line < LINES - 1; ++line) {
            const auto index = static_cast<std::size_t>(scrolled_ + line - 1);
            if (index < lines.size()) CursesTerminal::put(line, lines[index].text, lines[index].look);
        }
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
                find_selected();
                break;
            case KEY_DOWN:
            case 'j':
                detail_ ? open_page(selected_ + 1) : select(selected_ + 1);
                break;
            case KEY_UP:
            case 'k':
                if (selected_ == 0) break;
                detail_ ? open_page(selected_ - 1) : select(selected_ - 1);
                break;
            case KEY_NPAGE:
                scrolled_ += detail_ ? room() : 0;
                break;
            case KEY_PPAGE:
                scrolled_ = std::max(scrolled_ - room(), 0);
                break;
            case '\n':
            case KEY_ENTER:
                if (detail_ || ports_.empty()) break;
                detail_ = true;
                open_page(selected_);
                break;
            case kEscape:
            case KEY_BACKSPACE:
                detail_ = false;
                break;
            case kRedraw:
                clearok(curscr, TRUE);
                break;
            default:
                break;
        }
    }

    const Options& options_;
    Lookout& lookout_;
    Clock::time_point next_ = Clock::now();
    TopModel model_;
    std::vector<const PortTraffic*> ports_;
    std::size_t selected_ = 0;  // line of the selected port
    std::string selected_key_;  // key of the selected port
    TopOrder order_ = TopOrder::port;
    bool detail_ = false;
    bool quit_ = false;
    int scrolled_ = 0;  // lines by which the page of a port is scrolled
    CursesTerminal terminal_;
};

}  // namespace

void run_top(const Options& options, Output& output) {
    if (output.json()) throw CommandFailed(usage_failure("top draws on a terminal and has no JSON"));
    if (options.verbose && is_terminal(STDERR_FILENO))
        throw CommandFailed(
            usage_failure("top draws on the terminal: redirect standard error for --verbose"));
    catch_interrupts();
    Lookout lookout(options.rescan);
    Top(options, lookout).run();
    if (lookout.is_stuck()) _exit(static_cast<int>(output.finish()));
}

}  // namespace trelmctl
