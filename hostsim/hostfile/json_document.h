// json_document.h - a JSON text as a tree of values with their places, so that every mistake is reported with
// line and column.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

class Mistakes;

struct JsonValue {
    enum class Kind : uint8_t { null, boolean, whole, other_number, text, object, array };

    Kind kind = Kind::null;
    std::string key{};          // of a member
    size_t key_place = 0;       // offset of the key in the text, 0 for an element
    size_t begin = 0, end = 0;  // the value in the text; of an object or array only its first character
    uint64_t whole = 0;         // of a boolean 0 or 1
    double number = 0;          // of any number
    std::string text{};
    std::vector<JsonValue> children{};

    const JsonValue* find(std::string_view member) const;
};

// Parses the text. Comments are allowed. Syntax errors, duplicate keys, deep nesting and numbers beyond the
// range of double are added to `mistakes`; the result is then meaningless.
JsonValue parse_json(std::string_view text, Mistakes& mistakes);

}  // namespace hostsim
