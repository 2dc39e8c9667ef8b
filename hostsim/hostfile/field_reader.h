// field_reader.h - fills records from JSON by their tables of fields.
#pragma once

#include <string>
#include <string_view>

#include "field.h"
#include "json_document.h"
#include "mistakes.h"

namespace hostsim {

// Sets every field of `record` that the object gives. What cannot be taken is added to `mistakes` with the
// JSON pointer `at` of its object.
void read_record(const FieldTable& table, const JsonValue& object, const std::string& at, void* record,
                 std::string_view text, Mistakes& mistakes);

// Keys that every object may have and that nobody reads: a remark, and the schema's name.
inline constexpr std::string_view kRemarkKey = "//";
inline constexpr std::string_view kSchemaKey = "$schema";

}  // namespace hostsim
