#include "ports.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

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

// The code of a failed load does not tell a host without FCoE ports from other causes, but the error lines of
// the library's log do. So this loads again with standard error going to a file.
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
    std::fflush(stderr);
    dup2(standard_error, STDERR_FILENO);
    close(standard_error);
    before ? setenv(variable, before->c_str(), 1) : unsetenv(variable);

    std::string lines(65536, '\0');
    std::rewind(log.get());
    lines.resize(std::fread(lines.data(), 1, lines.size(), log.get()));
    return failed && lines.find("trelm_load_lib: ERROR finding adapters.") != std::string::npos;
}

uint32_t physical_index(const trelm::Adapter& adapter) {
    const PortState port = ask_physical(adapter);
    // One that exists and does not answer may still carry out what is asked of it.
    if (port.failure && !adapter.has_port(port.npiv_index)) throw CommandFailed(*port.failure);
    return port.npiv_index;
}

SelectedPort select_by_wwpn(const LoadedHost& host, const PortSelector& selector) {
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        std::optional<trelm::Adapter> adapter;
        try {
            adapter.emplace(host.library(), instance);
        } catch (const trelm::Error&) {
            continue;  // a port that cannot be opened may still not be the one looked for
        }
        if (same(adapter->info().WWPN, *selector.wwpn)) {
            const uint32_t index = selector.npiv_index ? *selector.npiv_index : physical_index(*adapter);
            return {std::move(*adapter), index};
        }
        if (selector.npiv_index || adapter->info().NpivCount == 0) continue;
        for (const uint32_t index : adapter->port_indexes()) {
            const PortState port = ask_port(*adapter, index);
            if (port.info && same(port.info->WWPN, *selector.wwpn)) return {std::move(*adapter), index};
        }
    }
    throw CommandFailed(not_found(hex_bytes(selector.wwpn->data(), selector.wwpn->size(), ":"),
                                  TRELM_STATUS_INVALID_INSTANCE,
                                  "no port of this host that can be opened has this WWPN"));
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
    const auto instance = parse_number(port, UINT32_MAX);
    if (!instance) return std::nullopt;
    selector.instance = static_cast<uint32_t>(*instance);
    return selector;
}

LoadedHost::LoadedHost() {
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

SelectedPort select_port(const LoadedHost& host, const PortSelector& selector) {
    if (selector.wwpn) return select_by_wwpn(host, selector);
    trelm::Adapter adapter(host.library(), *selector.instance);
    const uint32_t index = selector.npiv_index ? *selector.npiv_index : physical_index(adapter);
    if (!adapter.has_port(index)) {
        throw CommandFailed(not_found(port_label(adapter.instance(), index), TRELM_STATUS_FAILED,
                                      "the adapter has no port with this NPIV index"));
    }
    return {std::move(adapter), index};
}

}  // namespace trelmctl
