// option_values.h - values of options and arguments: parsed from text and checked. A wrong value ends the
// command with the exit status of a usage error and a message that says what is allowed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"

namespace trelmctl {

[[noreturn]] void wrong_usage(std::string what);
[[noreturn]] void refuse(std::string_view what, std::string_view given, std::string_view right);

uint64_t number_value(std::string_view what, std::string_view given, uint64_t least, uint64_t most);
double seconds_value(std::string_view what, const std::string& given);
PortSelector port_value(const std::string& given);
PortSelector physical_port_value(const std::string& given);
std::string state_value(const std::string& given);
uint8_t page_value(const std::string& given);
DrawingFormat drawing_value(const std::string& given);
metrics::Format metrics_format_value(const std::string& given);

// Bytes in hexadecimal, with or without separators; at most as many as a CDB has.
void append_cdb(std::vector<uint8_t>& cdb, const std::string& word);
// The same from a file, in which a comment begins with a '#'.
void append_cdb_file(std::vector<uint8_t>& cdb, const std::string& path);

}  // namespace trelmctl
