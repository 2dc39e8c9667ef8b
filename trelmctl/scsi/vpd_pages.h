// vpd_pages.h - the vital product data pages of a LUN: their names and contents.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json.h"
#include "scsi_command.h"

namespace trelmctl {

// The title of a page by its number, and the number of a page by its abbreviation ("di").
std::string page_title(uint8_t number);
std::optional<uint8_t> page_by_abbreviation(std::string_view abbreviation);
// All of them: "sv, sn, di".
std::string page_abbreviations();

// Reads a whole page with its header. Throws CommandFailed.
std::vector<uint8_t> read_page(const LunAddress& address, uint8_t number);

// The fields of a page as lines of text; they are also put into `json`. No lines for an unknown page.
std::string decode_page(std::span<const uint8_t> page, Json& json);

// The name of the logical unit from the device identification page, which is given or read: "naa.…", else
// "eui.…", else "t10.…"; empty if it has none.
std::string lun_name(std::span<const uint8_t> identification);
std::string lun_name(const LunAddress& address);

}  // namespace trelmctl
