// monitor.cpp - `trelmctl monitor`: a line for each change of a state. The library reports no events, so the
// host is polled. New ports and FCFs show only after a load, so the library is loaded again from time to
// time.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "fresh_host.h"
#include "interrupts.h"
#include "snapshot.h"

namespace trelmctl {
namespace {

constexpr std::size_t kIndent = 4;  // of a line that continues another

std::string time_text() { return fmt::format("{:%Y-%m-%dT%H:%M:%S%z}", fmt::localtime(std::time(nullptr))); }

std::string to_text(const StateChange& change) {
    const StateName& name = change.name;
    const bool is_port = name.scope == name.name;
    const std::string what =
        fmt::format("{} {}{}", name.kind, name.name, is_port ? "" : " at port " + name.scope);
    if (!change.before) return fmt::format("{}: appeared ({} {})", what, name.attribute, *change.after);
    if (!change.after) return fmt::format("{}: gone ({} was {})", what, name.attribute, *change.before);
    return fmt::format("{}: {} {} -> {}", what, name.attribute, *change.before, *change.after);
}

Json to_json(const StateChange& change) {
    const auto or_null = [](const std::optional<std::string>& value) {
        return value ? Json(*value) : Json();
    };
    return {{"format_version", 1},
            {"time", std::time(nullptr)},
            {"port", change.name.scope},
            {"kind", change.name.kind},
            {"name", change.name.name},
            {"attribute", change.name.attribute},
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
                           kIndent);
    }
    output.flush();
}

void tell_changes(const Snapshot& before, const Snapshot& after, Output& output) {
    for (const StateChange& change : changes_between(before, after)) {
        if (output.json()) {
            output.stream(to_json(change));
        } else {
            output.print_lines(fmt::format("{}  {}\n", time_text(), to_text(change)), kIndent);
        }
    }
    output.flush();
}

// The host has nothing while the library cannot be loaded.
Snapshot look(FreshHost& fresh, const PortFilter& filter, const Snapshot& before) {
    const LoadedHost* host = fresh.get();
    return host != nullptr ? take_snapshot(*host, filter, before) : Snapshot();
}

}  // namespace

void run_monitor(const Options& options, Output& output) {
    catch_interrupts();
    FreshHost host(options.rescan);
    Snapshot before = look(host, options.filter, {});
    output.begin_stream();
    tell_begin(options, before.size(), output);
    for (uint64_t taken = 0; !options.samples || taken < *options.samples; ++taken) {
        wait_for(options.every);
        if (interrupted()) return;
        Snapshot after = look(host, options.filter, before);
        tell_changes(before, after, output);
        before = std::move(after);
    }
}

}  // namespace trelmctl
