// requests.h - with --verbose, prints every request to the library or to a device as a line on standard
// error.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace trelmctl {

void show_requests();

// `what` is the library function; for a SCSI command it also names the command and the LUN.
void note_request(std::string_view what, std::optional<uint32_t> instance = {},
                  std::optional<uint32_t> npiv_index = {});

}  // namespace trelmctl
