#include "ports.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "text.h"

namespace trelmctl {
namespace {

using Wwpn = std::array<uint8_t, 8>;

bool same(const uint8_t (&field)[8], const Wwpn& wwpn) { return std::memcmp(field, wwpn.data(), wwpn.size()) == 0; }

[[noreturn]] void refuse(std::string port, uint32_t code, std::string name, std::string meaning) {
    throw CommandFailed(Failure{.code = code,
                                .name = std::move(name),
                                .meaning = std::move(meaning),
                                .advice = "'trelmctl list' and 'trelmctl show PORT' name the ports that exist",
                                .operation = "finding the port",
                                .port = std::move(port)});
}

// The physical port's own index; of ports that do not answer any may be it, the lowest most likely.
uint32_t physical_index(const trelm::Adapter& adapter) {
    std::optional<uint32_t> silent;
    for (const uint32_t index : adapter.port_indexes()) {
        const PortState port = ask_port(adapter, index);
        if (port.info && !port.is_virtual()) return index;
        if (!port.info && !silent) silent = index;
    }
    if (silent) return *silent;
    refuse(port_label(adapter.instance()), TRELM_STATUS_FAILED, "TRELM_STATUS_FAILED",
           "the driver's NPIV index of the physical port was not found; give it as PORT/NPIV");
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
    refuse(hex_bytes(selector.wwpn->data(), selector.wwpn->size(), ":"), TRELM_STATUS_INVALID_INSTANCE,
           trelm::status_name(TRELM_STATUS_INVALID_INSTANCE), "no port of this host that can be opened has this WWPN");
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
        throw CommandFailed(explain_load(error));
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

std::vector<PortState> ask_ports(const trelm::Adapter& adapter) {
    std::vector<PortState> ports;
    for (const uint32_t index : adapter.port_indexes()) ports.push_back(ask_port(adapter, index));
    const auto move_to_front = [&](auto is_wanted) {
        const auto wanted = std::find_if(ports.begin(), ports.end(), is_wanted);
        const bool found = wanted != ports.end();
        if (found) std::rotate(ports.begin(), wanted, wanted + 1);
        return found;
    };
    if (!move_to_front([](const PortState& port) { return port.info && !port.is_virtual(); })) {
        move_to_front([](const PortState& port) { return !port.info; });
    }
    return ports;
}

SelectedPort select_port(const LoadedHost& host, const PortSelector& selector) {
    if (selector.wwpn) return select_by_wwpn(host, selector);
    trelm::Adapter adapter(host.library(), *selector.instance);
    const uint32_t index = selector.npiv_index ? *selector.npiv_index : physical_index(adapter);
    if (!adapter.has_port(index)) {
        refuse(port_label(adapter.instance(), index), TRELM_STATUS_FAILED, "TRELM_STATUS_FAILED",
               "the port has no virtual port with this NPIV index");
    }
    return {std::move(adapter), index};
}

}  // namespace trelmctl
