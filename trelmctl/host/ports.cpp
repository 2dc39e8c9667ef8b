#include "ports.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "requests.h"
#include "text.h"

namespace trelmctl {
namespace {

using Wwpn = std::array<uint8_t, 8>;

bool same(const uint8_t (&field)[8], const Wwpn& wwpn) {
    return std::memcmp(field, wwpn.data(), wwpn.size()) == 0;
}

Failure not_found(std::string port, uint32_t code, std::string meaning) {
    return {.code = code,
            .name = trelm::status_name(code),
            .meaning = std::move(meaning),
            .advice = "'trelmctl list' and 'trelmctl show PORT' name the ports that exist",
            .operation = "finding the port",
            .port = std::move(port)};
}

// The code of a failed load does not distinguish a host without FCoE ports from other causes. The error lines
// in the log of the library do. So this loads again with standard error redirected to a file.
bool load_finds_no_port() {
    const char* variable = "TRELM_API_DEBUG";
    const char* given = std::getenv(variable);
    const std::optional<std::string> before = given ? std::optional<std::string>(given) : std::nullopt;
    const std::unique_ptr<FILE, int (*)(FILE*)> log(std::tmpfile(), std::fclose);
    const int standard_error = log ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1;
    if (standard_error == -1) return false;

    setenv(variable, "4", 1);
    dup2(fileno(log.get()), STDERR_FILENO);
    const bool failed = TRELM_LoadLibrary() != TRELM_STATUS_OK;
    TRELM_FreeLibrary();
    // The library keeps the flags that it has read until it reads others, which an attempt to open a port does.
    setenv(variable, before ? before->c_str() : "0", 1);
    uint32_t none = 0;
    TRELM_OpenAdapter(UINT32_MAX, &none);
    if (!before) unsetenv(variable);
    std::fflush(stderr);
    dup2(standard_error, STDERR_FILENO);
    close(standard_error);

    std::string lines(65536, '\0');
    std::rewind(log.get());
    lines.resize(std::fread(lines.data(), 1, lines.size(), log.get()));
    return failed && lines.find("trelm_load_lib: ERROR finding adapters.") != std::string::npos;
}

uint32_t physical_index(const trelm::Adapter& adapter) {
    const PortState port = ask_physical(adapter);
    // An existing port that does not answer may still carry out commands.
    if (port.failure && !adapter.has_port(port.npiv_index)) throw CommandFailed(*port.failure);
    return port.npiv_index;
}

bool is_named(const TRELM_VNPORT_INFO& port, const PortSelector& selector) {
    return selector.wwpn ? same(port.WWPN, *selector.wwpn) : field_text(port.HbaName) == selector.hba_name;
}

// The NPIV index of the port of this adapter that the selector means, from what the drivers report for each
// port.
std::optional<uint32_t> find_on(const trelm::Adapter& adapter, const PortSelector& selector) {
    const TRELM_FCOE_INFO info = ask_adapter_info(adapter);
    if (selector.wwpn && same(info.WWPN, *selector.wwpn))
        return selector.npiv_index ? *selector.npiv_index : physical_index(adapter);
    // If an NPIV index is given, the WWPN is that of the physical port.
    if (selector.wwpn && (selector.npiv_index || info.NpivCount == 0)) return std::nullopt;
    for (const uint32_t index : adapter.port_indexes()) {
        const PortState port = ask_port(adapter, index);
        if (port.info && is_named(*port.info, selector)) return selector.npiv_index.value_or(index);
    }
    return std::nullopt;
}

SelectedPort select_by_name(const LoadedHost& host, const PortSelector& selector) {
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        try {
            trelm::Adapter adapter = open_adapter(host, instance);
            if (const auto index = find_on(adapter, selector)) return {std::move(adapter), *index};
        } catch (const trelm::Error&) {
            continue;  // another port may be the one that is searched for
        }
    }
    const bool by_wwpn = selector.wwpn.has_value();
    throw CommandFailed(not_found(
        by_wwpn ? hex_bytes(selector.wwpn->data(), selector.wwpn->size(), ":") : escaped(selector.hba_name),
        TRELM_STATUS_INVALID_INSTANCE,
        fmt::format("no port of this host that answers has this {}", by_wwpn ? "WWPN" : "name")));
}

}  // namespace

std::optional<PortSelector> parse_port(const std::string& text) {
    PortSelector selector;
    const std::size_t slash = text.find('/');
    const std::string port = text.substr(0, slash);
    if (slash != std::string::npos) {
        const auto npiv = parse_number(text.substr(slash + 1), UINT32_MAX);
        if (!npiv) return std::nullopt;
        selector.npiv_index = static_cast<uint32_t>(*npiv);
    }
    selector.wwpn = parse_wwn(port);
    if (selector.wwpn) return selector;
    if (const auto instance = parse_number(port, UINT32_MAX)) {
        selector.instance = static_cast<uint32_t>(*instance);
        return selector;
    }
    if (port.empty() || std::isalpha(static_cast<unsigned char>(port.front())) == 0) return std::nullopt;
    selector.hba_name = port;
    return selector;
}

LoadedHost::LoadedHost() {
    note_request("TRELM_LoadLibrary");
    try {
        library_.emplace();
    } catch (const trelm::Error& error) {
        throw CommandFailed(explain_load(error, load_finds_no_port()));
    }
    port_count_ = library_->port_count();
    if (port_count_ == 0) throw CommandFailed(no_ports());
}

PortState ask_port(const trelm::Adapter& adapter, uint32_t npiv_index) {
    PortState port;
    port.npiv_index = npiv_index;
    note_request("TRELM_GetVNPortInfo", adapter.instance(), npiv_index);
    try {
        port.info = adapter.port_info(npiv_index);
    } catch (const trelm::Error& error) {
        port.failure = explain(error);
    }
    return port;
}

PortState ask_physical(const trelm::Adapter& adapter) {
    std::optional<PortState> silent;
    for (const uint32_t index : adapter.port_indexes()) {
        PortState port = ask_port(adapter, index);
        if (port.info && !port.is_virtual()) return port;
        if (!port.info && !silent) silent = std::move(port);
    }
    if (silent) return *silent;
    PortState missing;
    missing.failure =
        not_found(port_label(adapter.instance()), TRELM_STATUS_FAILED,
                  "the driver gave the physical port an NPIV index far from 0; name it as PORT/NPIV");
    missing.npiv_index = UINT32_MAX;
    return missing;
}

std::vector<PortState> ask_ports(const trelm::Adapter& adapter) {
    std::vector<PortState> ports{ask_physical(adapter)};
    for (const uint32_t index : adapter.port_indexes()) {
        if (index != ports.front().npiv_index) ports.push_back(ask_port(adapter, index));
    }
    return ports;
}

trelm::Adapter open_adapter(const LoadedHost& host, uint32_t instance) {
    note_request("TRELM_OpenAdapter", instance);
    return {host.library(), instance};
}

TRELM_FCOE_INFO ask_adapter_info(const trelm::Adapter& adapter) {
    note_request("TRELM_GetFcoeInfo", adapter.instance());
    return adapter.info();
}

SelectedPort select_port(const LoadedHost& host, const PortSelector& selector) {
    if (!selector.instance) return select_by_name(host, selector);
    trelm::Adapter adapter = open_adapter(host, *selector.instance);
    const uint32_t index = selector.npiv_index ? *selector.npiv_index : physical_index(adapter);
    if (!adapter.has_port(index)) {
        throw CommandFailed(not_found(port_label(adapter.instance(), index), TRELM_STATUS_FAILED,
                                      "the adapter has no port with this NPIV index"));
    }
    return {std::move(adapter), index};
}

}  // namespace trelmctl
