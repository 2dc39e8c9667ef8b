// text.h - text forms of values in the records: names, addresses, sizes, and texts of devices. Texts of
// devices and drivers are always escaped.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "trelm_mgmt.hpp"

namespace trelmctl {

// A field of a packed record by value, because no reference to it may exist.
template <typename Number>
constexpr Number number(Number field) {
    return field;
}

// Control characters and bytes beyond ASCII as \xNN.
std::string escaped(std::string_view bytes);

// A fixed-width text field, trimmed and escaped.
template <std::size_t Width>
std::string field_text(const uint8_t (&field)[Width]) {
    return escaped(trelm::text(field));
}

// Bytes in hexadecimal with a separator between them.
std::string hex_bytes(const uint8_t* bytes, std::size_t count, std::string_view separator);

// World-wide names and MAC addresses: colon-separated hexadecimal.
template <std::size_t Width>
std::string address(const uint8_t (&field)[Width]) {
    return hex_bytes(field, Width, ":");
}

std::string hex32(uint32_t value);

constexpr std::string_view yes_or_no(bool value) { return value ? "yes" : "no"; }

// A size in the largest binary unit that keeps it at 1 or more: "512 B", "1.5 GiB".
std::string human_size(uint64_t bytes);

// A LUN in text form: small numbers in decimal, others, which have an addressing method or several levels, in
// hexadecimal.
std::string lun_text(uint64_t lun);

std::optional<uint64_t> parse_number(std::string_view text, uint64_t most);
std::optional<std::array<uint8_t, 8>> parse_wwn(std::string_view text);

// A line of at most `columns` columns. A mark replaces the part that was cut.
std::string fitted(std::string_view line, std::size_t columns);

// A line broken at blanks if it is longer than `columns`. Continuation lines are indented.
std::string wrapped(std::string_view line, std::size_t columns, std::size_t indent);

}  // namespace trelmctl
