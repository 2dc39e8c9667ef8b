// monitor.cpp - `trelmctl monitor`: a line for each change of a state. The library reports no events, so the
// host is polled. New ports and FCFs show only after a load, so the library is loaded again from time to
// time.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "commands.h"
#include "interrupts.h"
#include "lookout.h"
#include "snapshot.h"
#include "terminal.h"

namespace trelmctl {
namespace {

constexpr std::size_t kContinuationIndent = 4;
constexpr std::chrono::milliseconds kInterruptDelay{50};  // until one is noticed while drivers are asked

std::string time_text() { return fmt::format("{:%Y-%m-%dT%H:%M:%S%z}", fmt::localtime(std::time(nullptr))); }

std::string place(const StateChange& change) {
    const StateName& name = change.name;
    if (!name.name.empty()) return fmt::format("{} {} at port {}", name.kind, name.name, change.label);
    if (name.kind != "port") return change.label.empty() ? name.kind : name.kind + " " + change.label;
    // A number may pass to another port when ports appear or disappear.
    const bool is_renamed = !change.before || !change.after || name.attribute == "number";
    return fmt::format("port {}{}", change.label, is_renamed ? " (" + name.scope + ")" : "");
}

std::string to_text(const StateChange& change) {
    const std::string& attribute = change.name.attribute;
    const std::string what = place(change);
    if (!change.before) return fmt::format("{}: appeared ({} {})", what, attribute, *change.after);
    if (!change.after) return fmt::format("{}: gone ({} was {})", what, attribute, *change.before);
    return fmt::format("{}: {} {} -> {}", what, attribute, *change.before, *change.after);
}

Json to_json(const StateChange& change) {
    const auto or_null = [](const std::optional<std::string>& value) {
        return value ? Json(*value) : Json();
    };
    const StateName& name = change.name;
    const Json port = change.label.empty() ? Json() : Json(change.label);
    return {{"format_version", 1},
            {"time", std::time(nullptr)},
            {"port", port},
            {"parent_wwpn", name.scope.empty() ? Json() : Json(name.scope.substr(0, name.scope.find('/')))},
            {"kind", name.kind},
            {"name", name.name.empty() ? port : Json(name.name)},
            {"attribute", name.attribute},
            {"before", or_null(change.before)},
            {"after", or_null(change.after)}};
}

void tell_begin(const Options& options, std::size_t states, Output& output) {
    if (output.json()) {
        output.stream({{"format_version", 1},
                       {"time", std::time(nullptr)},
                       {"watched_states", states},
                       {"every_seconds", options.every},
                       {"rescan_seconds", options.rescan}});
    } else {
        output.print_lines(fmt::format("{}  watching {} states, every {} s, for new ports every {} s\n",
                                       time_text(), states, options.every, options.rescan),
                           kContinuationIndent);
    }
    output.flush();
}

void tell_changes(const Snapshot& before, const Snapshot& after, Output& output) {
    for (const StateChange& change : changes_between(before, after)) {
        if (output.json()) {
            output.stream(to_json(change));
        } else {
            output.print_lines(fmt::format("{}  {}\n", time_text(), to_text(change)), kContinuationIndent);
        }
    }
    output.flush();
}

// Nothing if the user ends the command before the drivers have answered.
std::optional<HostLook> look(Lookout& lookout, const Options& options) {
    while (!interrupted()) {
        lookout.start({.filter = options.filter, .counters = false, .targets = true, .targets_of = {}});
        if (auto host = lookout.take(kInterruptDelay)) return host;
    }
    return std::nullopt;
}

bool is_awaited(const HostLook& host) {
    return host.answer != Answer::here ||
           std::any_of(host.adapters.begin(), host.adapters.end(),
                       [](const AdapterLook& adapter) { return adapter.answer == Answer::awaited; });
}

void watch(Lookout& lookout, const Options& options, Output& output) {
    std::optional<HostLook> host = look(lookout, options);
    for (bool told = false; host && is_awaited(*host);) {
        if (host->answer == Answer::late && !std::exchange(told, true))
            tell("trelmctl: the drivers do not list their ports; waiting for them\n");
        wait_for(std::chrono::duration<double>(kInterruptDelay).count());
        host = look(lookout, options);
    }
    if (!host) return;
    Snapshot before = take_snapshot(*host, {});
    tell_begin(options, before.states.size(), output);
    for (uint64_t taken = 0; !options.samples || taken < *options.samples; ++taken) {
        wait_for(options.every);
        host = look(lookout, options);
        if (!host) return;
        Snapshot after = take_snapshot(*host, before);
        tell_changes(before, after, output);
        before = std::move(after);
    }
}

}  // namespace

void run_monitor(const Options& options, Output& output) {
    catch_interrupts();
    output.begin_stream();
    Lookout lookout(options.rescan);
    watch(lookout, options, output);
    if (lookout.is_stuck()) _exit(static_cast<int>(output.finish()));
}

}  // namespace trelmctl
