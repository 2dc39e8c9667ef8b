// vpd_pages.h - the vital product data pages of a LUN: their names, and what is understood of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json.h"
#include "scsi_command.h"

namespace trelmctl {

// The title of a page by its number, and a page's number by its abbreviation ("di").
std::string page_title(uint8_t number);
std::optional<uint8_t> page_by_abbreviation(std::string_view abbreviation);

// Reads a page whole, header included. Throws CommandFailed.
std::vector<uint8_t> read_page(const LunAddress& address, uint8_t number);

// The fields of a page as lines of text, which are also put into `json`. No lines for a page that is not understood.
std::string decode_page(std::span<const uint8_t> page, Json& json);

// The name by which hosts know the logical unit, as the device identification gives it: "naa.…", "eui.…" or
// "t10.…"; empty where it has none.
std::string lun_name(const LunAddress& address);

}  // namespace trelmctl
