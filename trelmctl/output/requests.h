// requests.h - with --verbose, every request to the library and to a device as a line on standard error.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace trelmctl {

void show_requests();

// `what` is the library's function, and for a SCSI command what it asks of which LUN.
void note_request(std::string_view what, std::optional<uint32_t> instance = {},
                  std::optional<uint32_t> npiv_index = {});

}  // namespace trelmctl
