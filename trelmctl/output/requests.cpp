#include "requests.h"

#include <fmt/format.h>

#include "failure.h"
#include "terminal.h"

namespace trelmctl {
namespace {

bool shown = false;

}  // namespace

void show_requests() { shown = true; }

void note_request(std::string_view what, std::optional<uint32_t> instance,
                  std::optional<uint32_t> npiv_index) {
    if (!shown) return;
    const std::string port = port_label(instance, npiv_index);
    tell_line(port.empty() ? fmt::format("trelmctl: > {}", what)
                           : fmt::format("trelmctl: > port {}: {}", port, what));
}

}  // namespace trelmctl
