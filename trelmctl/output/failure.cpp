#include "failure.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "text.h"

namespace trelmctl {
namespace {

constexpr uint32_t kHighestDriverStatus = 13;
constexpr std::string_view kSimulate =
    "to try it out, use a simulated host: trelm-hostsim run HOST.json -- trelmctl list";
constexpr std::string_view kTrace = "run again with TRELM_API_DEBUG=4 to see what failed inside the library";

// The meaning of a code that an operation returned. The first matching row counts. An empty operation matches
// any.
struct Meaning {
    uint32_t code;
    std::string_view operation;
    std::string_view meaning;
    std::string_view advice;
};
constexpr std::array kMeanings{
    Meaning{TRELM_STATUS_DRIVER_ERROR, "TRELM_SendScsiCommand",
            "the driver failed the command and gave no status of its own",
            "a LUN that another initiator has reserved, or that is busy, may answer like this; otherwise "
            "check the "
            "driver and the link"},
    Meaning{TRELM_STATUS_FAILED, "TRELM_OpenAdapter", "the port cannot be opened",
            "the driver reported it without a PCI identity; check the adapter and its driver"},
    Meaning{TRELM_STATUS_FAILED, "TRELM_CloseAdapter", "the port is not open", ""},
    Meaning{TRELM_STATUS_FAILED, "", "no such port or virtual port, or the driver failed with its status 1",
            "'trelmctl list' and 'trelmctl show PORT' name the ports and NPIV indexes that exist"},
    Meaning{TRELM_STATUS_INVALID_PARAMETER, "TRELM_SendScsiCommand",
            "an argument is out of range, or the driver failed with its status 4",
            "a native driver moves at most 262144 bytes with one command"},
    Meaning{TRELM_STATUS_INVALID_PARAMETER, "TRELM_GetLunInfo",
            "an argument is out of range, or the driver failed with its status 4",
            "target numbers run from 0 to 127"},
    Meaning{TRELM_STATUS_INVALID_PARAMETER, "",
            "an argument is out of range, or the driver failed with its status 4", ""},
    Meaning{TRELM_STATUS_INVALID_INSTANCE, "TRELM_OpenAdapter", "the host has no such port",
            "'trelmctl list' shows the ports of this host"},
    Meaning{TRELM_STATUS_INVALID_INSTANCE, "", "the driver failed with its status 7", ""},
    Meaning{TRELM_STATUS_INSUFFICIENT_BUFFER, "",
            "the list outgrew the room made for it, or the driver failed with its status 9", "try again"},
    Meaning{TRELM_STATUS_NO_MEMORY, "", "there is not enough memory, or the driver failed with its status 10",
            "free memory on this host and try again"},
    Meaning{TRELM_STATUS_DRIVER_ERROR, "", "the driver failed the request without a known status",
            "check the state of the driver and the adapter's link"},
    Meaning{TRELM_STATUS_BASE + kHighestDriverStatus, "", "the device is offline",
            "check the target, its zoning and the link of the port"},
};

std::string system_name() {
    utsname names{};
    return uname(&names) == 0 ? names.sysname : "unknown";
}

// Codes below those of the library are system error numbers.
void explain_system_error(Failure& failure) {
    const int number = static_cast<int>(*failure.code);
    const char* name = strerrorname_np(number);
    const char* words = strerrordesc_np(number);
    failure.name = name != nullptr ? name : fmt::format("ERRNO_{}", number);
    failure.meaning = words != nullptr ? words : fmt::format("system error {}", number);
    failure.advice = "the legacy driver's character node is concerned; check that the driver is loaded";
}

void explain_status(Failure& failure) {
    const uint32_t code = *failure.code;
    const char* name = trelm::status_name(code);
    const uint32_t driver_status = code - TRELM_STATUS_BASE;
    failure.name = name != nullptr ? name : fmt::format("DRIVER_STATUS_{}", driver_status);
    for (const Meaning& row : kMeanings) {
        if (row.code != code || (!row.operation.empty() && row.operation != failure.operation)) continue;
        failure.meaning = row.meaning;
        failure.advice = row.advice;
        return;
    }
    failure.meaning = driver_status <= kHighestDriverStatus
                          ? fmt::format("the driver failed with its status {}", driver_status)
                          : "a code that this tool does not know";
    failure.advice = kTrace;
}

}  // namespace

std::string port_label(std::optional<uint32_t> instance, std::optional<uint32_t> npiv_index) {
    if (!instance) return {};
    return npiv_index ? fmt::format("{}/{}", *instance, *npiv_index) : fmt::to_string(*instance);
}

Failure explain(const trelm::Error& error) {
    Failure failure;
    failure.code = error.code();
    failure.operation = error.operation();
    failure.port = port_label(error.instance(), error.npiv_index());
    error.code() < TRELM_STATUS_BASE ? explain_system_error(failure) : explain_status(failure);
    return failure;
}

Failure explain_load(const trelm::Error& error, bool no_port) {
    if (no_port) return no_ports();
    Failure failure = explain(error);
    if (const std::string system = system_name(); system.find("VMkernel") == std::string::npos) {
        failure.meaning =
            fmt::format("this machine is not an ESXi host (its system name is \"{}\")", escaped(system));
        failure.advice = kSimulate;
    } else if (geteuid() != 0) {
        failure.meaning = "FCoE ports can only be managed as root";
        failure.advice = "run trelmctl as root";
    } else {
        failure.meaning = "the database shared between processes cannot be set up";
        failure.advice = "check that /tmp can be written and has room; " + std::string(kTrace);
    }
    return failure;
}

Failure no_ports() {
    Failure failure;
    failure.code = TRELM_STATUS_FAILED;
    failure.name = trelm::status_name(TRELM_STATUS_FAILED);
    failure.meaning = "no FCoE port was found on this host";
    failure.advice = "check that the adapter is fitted, its driver loaded and FCoE enabled on it";
    failure.operation = "TRELM_GetPortCount";
    failure.exit_status = ExitStatus::no_ports;
    return failure;
}

Failure tool_failure(std::string name, std::string meaning, std::string advice) {
    Failure failure;
    failure.name = std::move(name);
    failure.meaning = std::move(meaning);
    failure.advice = std::move(advice);
    return failure;
}

Failure usage_failure(std::string meaning) {
    Failure failure =
        tool_failure("USAGE", std::move(meaning), "see 'trelmctl --help' and 'trelmctl COMMAND --help'");
    failure.operation = "command line";
    failure.exit_status = ExitStatus::usage;
    return failure;
}

std::string sentence(const Failure& failure) {
    std::string out = "trelmctl: ";
    if (!failure.port.empty()) out += fmt::format("port {}: ", failure.port);
    out += failure.operation;
    if (failure.code) out += fmt::format(" failed with {} ({})", hex32(*failure.code), failure.name);
    out += (failure.operation.empty() ? "" : ": ") + failure.meaning;
    if (!failure.advice.empty()) out += "; " + failure.advice;
    return out;
}

Json to_json(const Failure& failure) {
    const auto or_null = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
    return {{"code", failure.code ? Json(hex32(*failure.code)) : Json()},
            {"name", failure.name},
            {"meaning", failure.meaning},
            {"advice", or_null(failure.advice)},
            {"operation", or_null(failure.operation)},
            {"port", or_null(failure.port)},
            {"exit_status", static_cast<int>(failure.exit_status)}};
}

}  // namespace trelmctl
