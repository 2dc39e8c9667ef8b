// field_reader.h - fills records from JSON by their tables of fields.
#pragma once

#include <string>
#include <string_view>

#include "field.h"
#include "json_document.h"
#include "mistakes.h"

namespace hostsim {

// Sets every field of `record` that the object contains. Values that are not allowed are added to `mistakes`
// with the JSON pointer `at` of the object.
void read_record(const FieldTable& table, const JsonValue& object, const std::string& at, void* record,
                 std::string_view text, Mistakes& mistakes);

// Keys that every object may have and that are ignored: a remark, and the name of the schema.
inline constexpr std::string_view kRemarkKey = "//";
inline constexpr std::string_view kSchemaKey = "$schema";

}  // namespace hostsim
