// field_reader.cpp - one reader per type of field, and what is allowed there for its message.
#include "field_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <sstream>

#include "errno_names.h"
#include "printable.h"
#include "values.h"

namespace hostsim {
namespace {

using Kind = JsonValue::Kind;

// The value of a field from a JSON value; none if the field does not allow it.
using Reading = std::optional<FieldValue>;

std::string quoted_list(const std::vector<std::string>& parts) {
    std::string list;
    for (size_t i = 0; i < parts.size(); ++i)
        list += (i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ") + parts[i];
    return list;
}

Reading whole_number(const JsonValue& value) {
    if (value.kind == Kind::whole) return value.whole;
    if (value.kind != Kind::text) return std::nullopt;
    const auto number = parse_number(value.text);
    return number ? Reading(*number) : std::nullopt;
}

bool in_range(const Field& field, const FieldValue& number) {
    return std::get<uint64_t>(number) >= field.low && std::get<uint64_t>(number) <= field.high;
}

Reading read_number(const Field& field, const JsonValue& value) {
    Reading number = whole_number(value);
    if (!number || !in_range(field, *number)) return std::nullopt;
    const auto is_it = [&](const Word& word) { return FieldValue(word.number) == *number; };
    const auto& words = field.allowed_words;
    return words.empty() || std::any_of(words.begin(), words.end(), is_it) ? number : std::nullopt;
}

Reading read_word(const Field& field, const JsonValue& value) {
    if (value.kind == Kind::text) {
        for (const Word& word : field.allowed_words) {
            if (word.name == value.text) return word.number;
        }
    }
    const Reading number = field.high > 0 ? whole_number(value) : std::nullopt;
    return number && in_range(field, *number) ? number : std::nullopt;
}

Reading read_words(const Field& field, const JsonValue& value) {
    if (value.kind != Kind::array) return read_word(field, value);
    uint64_t bits = 0;
    for (const JsonValue& child : value.children) {
        const Reading word = read_word(field, child);
        if (!word) return std::nullopt;
        bits |= std::get<uint64_t>(*word);
    }
    return bits;
}

Reading read_rate(const JsonValue& value) {
    constexpr double kLargest = 1e15;
    const bool is_number = value.kind == Kind::whole || value.kind == Kind::other_number;
    if (!is_number || !(value.number >= 0 && value.number <= kLargest)) return std::nullopt;
    return value.number;
}

Reading read_wwn(const JsonValue& value) {
    const auto wwn = value.kind == Kind::text ? parse_wwn(value.text) : std::nullopt;
    return wwn.value_or(0) != 0 ? Reading(*wwn) : std::nullopt;
}

Reading read_mac(const JsonValue& value) {
    const auto mac = value.kind == Kind::text ? parse_mac(value.text) : std::nullopt;
    return mac ? Reading(field_access::to_value(*mac)) : std::nullopt;
}

Reading read_size(const JsonValue& value) {
    const auto size = value.kind == Kind::text    ? parse_size(value.text)
                      : value.kind == Kind::whole ? std::optional(value.whole)
                                                  : std::nullopt;
    return size.value_or(0) != 0 ? Reading(*size) : std::nullopt;
}

// "08.37.30.00", one decimal number a byte, most significant first.
Reading read_version(const JsonValue& value) {
    std::istringstream text(value.text);
    uint64_t version = 0;
    int parts = 0;
    for (std::string part; std::getline(text, part, '.'); ++parts) {
        const bool is_decimal =
            !part.empty() && part.size() <= 3 && part.find_first_not_of("0123456789") == std::string::npos;
        const uint64_t number = is_decimal ? *parse_number(part) : 256;
        if (number > 255) return std::nullopt;
        version = version << 8 | number;
    }
    return parts == 4 && !value.text.ends_with('.') ? Reading(version) : std::nullopt;
}

Reading read_pci_location(const JsonValue& value) {
    const auto location = parse_pci_location(value.text);
    return location ? Reading(uint64_t{*location}) : std::nullopt;
}

Reading read_error_number(const JsonValue& value) {
    constexpr uint64_t kLargest = 4095;
    if (value.kind == Kind::text) {
        if (const int error = errno_by_name(value.text)) return static_cast<uint64_t>(error);
    }
    Reading number = whole_number(value);
    if (!number || std::get<uint64_t>(*number) < 1 || std::get<uint64_t>(*number) > kLargest)
        return std::nullopt;
    return number;
}

Reading read_text_list(const JsonValue& value) {
    if (value.kind != Kind::array) return std::nullopt;
    std::vector<std::string> texts;
    for (const JsonValue& child : value.children) {
        if (child.kind != Kind::text) return std::nullopt;
        texts.push_back(child.text);
    }
    return texts;
}

Reading read_value(const Field& field, const JsonValue& value) {
    switch (field.type) {
        case FieldType::text:
            return value.kind == Kind::text ? Reading(value.text) : std::nullopt;
        case FieldType::boolean:
            return value.kind == Kind::boolean ? Reading(value.whole) : std::nullopt;
        case FieldType::number:
            return read_number(field, value);
        case FieldType::word:
            return read_word(field, value);
        case FieldType::words:
            return read_words(field, value);
        case FieldType::rate:
            return read_rate(value);
        case FieldType::wwn:
            return read_wwn(value);
        case FieldType::mac:
            return read_mac(value);
        case FieldType::size:
            return read_size(value);
        case FieldType::version:
            return read_version(value);
        case FieldType::pci_location:
            return read_pci_location(value);
        case FieldType::error_number:
            return read_error_number(value);
        case FieldType::text_list:
            return read_text_list(value);
        case FieldType::counter:
        case FieldType::object:
        case FieldType::object_list:
            break;
    }
    return std::nullopt;
}

std::string allowed_numbers(const Field& field) {
    return fmt::format("whole numbers from {} to {} (\"0x…\" for hexadecimal)", field.low, field.high);
}

std::string allowed_words(const Field& field) {
    std::vector<std::string> parts;
    for (const Word& word : field.allowed_words) parts.push_back(fmt::format("\"{}\"", word.name));
    if (field.high > 0) parts.push_back(allowed_numbers(field));
    return quoted_list(parts);
}

// What a field allows, for a message.
std::string allowed(const Field& field) {
    switch (field.type) {
        case FieldType::text:
            return "a text \"…\" is";
        case FieldType::boolean:
            return "true and false are";
        case FieldType::number: {
            std::vector<std::string> names;
            for (const Word& word : field.allowed_words) names.emplace_back(word.name);
            return (names.empty() ? allowed_numbers(field) : quoted_list(names)) + " are";
        }
        case FieldType::word:
            return allowed_words(field) + " are";
        case FieldType::words:
            return allowed_words(field) + ", and a list […] of them, are";
        case FieldType::rate:
            return "a number from 0 to 1e15 is";
        case FieldType::wwn:
            return "eight bytes such as \"20:00:00:c0:5a:01:0a:01\", not all zero, are";
        case FieldType::mac:
            return "six bytes such as \"00:c0:5a:01:0a:01\" are";
        case FieldType::size:
            return "a number of bytes above 0, or one with a unit such as \"2 TiB\", is";
        case FieldType::version:
            return "four numbers up to 255 such as \"08.37.30.00\" are";
        case FieldType::pci_location:
            return "domain, bus and device such as \"0000:3b:00\" are";
        case FieldType::error_number:
            return "names such as \"EIO\" and numbers from 1 to 4095 are";
        case FieldType::text_list:
            return "a list […] of texts is";
        case FieldType::object_list:
            return "a list […] is";
        case FieldType::counter:
        case FieldType::object:
            break;
    }
    return "an object {…} is";
}

class Reader {
  public:
    Reader(std::string_view text, Mistakes& mistakes) : text_(text), mistakes_(mistakes) {}

    void read(const FieldTable& table, const JsonValue& object, const std::string& at, void* record) {
        std::vector<std::string> keys;
        for_each_field(table, record, [&](const FieldTable&, const Field& field, void* holder) {
            keys.emplace_back(field.key);
            if (const JsonValue* const value = object.find(field.key))
                read_field(field, *value, fmt::format("{}/{}", at, field.key), holder);
            else if (field.is_required)
                mistakes_.add(object.begin, at.empty() ? "/" : at,
                              fmt::format("the key \"{}\" is missing and must be given", field.key));
        });
        refuse_unknown(object, at, keys);
        check_exactly_one(table, object, at);
    }

  private:
    void refuse_unknown(const JsonValue& object, const std::string& at,
                        const std::vector<std::string>& keys) {
        for (const JsonValue& child : object.children) {
            if (child.key == kRemarkKey || child.key == kSchemaKey) continue;
            if (std::find(keys.begin(), keys.end(), child.key) == keys.end())
                mistakes_.add(child.key_place, fmt::format("{}/{}", at, shortened(child.key)),
                              "this key is not known here; allowed are " + quoted_list(keys));
        }
    }

    void check_exactly_one(const FieldTable& table, const JsonValue& object, const std::string& at) {
        const auto [one, other] = table.exactly_one;
        if (!one.empty() && (object.find(one) != nullptr) == (object.find(other) != nullptr))
            mistakes_.add(object.begin, at, fmt::format("either \"{}\" or \"{}\" must be given", one, other));
    }

    void read_field(const Field& field, const JsonValue& value, const std::string& at, void* holder) {
        if (field.type == FieldType::object_list) {
            if (value.kind == Kind::array) return read_list(field, value, at, holder);
        } else if (field.table && value.kind == Kind::object) {
            return read(*field.table, value, at, field.object(holder));
        } else if (field.type == FieldType::counter) {
            return read_field(field.table->fields.front(), value, at, field.object(holder));
        } else if (const Reading reading = read_value(field, value)) {
            return field.set(holder, *reading);
        }
        refuse(field, value, at);
    }

    void read_list(const Field& field, const JsonValue& list, const std::string& at, void* holder) {
        for (size_t i = 0; i < list.children.size(); ++i) {
            const JsonValue& child = list.children[i];
            const std::string place = fmt::format("{}/{}", at, i);
            if (child.kind == Kind::object)
                read(*field.table, child, place, field.append(holder));
            else
                mistakes_.add(child.begin, place, "an object {…} is expected here");
        }
    }

    // The value is shown as it is written.
    void refuse(const Field& field, const JsonValue& value, const std::string& at) {
        const bool is_short = value.kind != Kind::object && value.kind != Kind::array;
        const std::string shown =
            is_short ? shortened(text_.substr(value.begin, value.end - value.begin)) : "this value";
        mistakes_.add(value.begin, at,
                      fmt::format("{} is not allowed here; {} allowed", shown, allowed(field)));
    }

    std::string_view text_;
    Mistakes& mistakes_;
};

}  // namespace

void read_record(const FieldTable& table, const JsonValue& object, const std::string& at, void* record,
                 std::string_view text, Mistakes& mistakes) {
    Reader(text, mistakes).read(table, object, at, record);
}

}  // namespace hostsim
