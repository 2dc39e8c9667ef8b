// json_reader.h - reads JSON into structs by tables of fields. Every value knows its place in the document,
// so that each mistake is told with a JSON pointer and with what is allowed there.
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

// A mistake in a document: "pointer: reason", or "line:column: reason" for one of syntax.
class JsonMistake : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A document, comments allowed. Throws JsonMistake, also for a key that stands twice in one object.
nlohmann::json parse_document(std::string_view text);

// A name for a number, as a document may write it.
struct NamedNumber {
    std::string_view name;
    uint64_t number;
};

class JsonValue {
  public:
    JsonValue(const nlohmann::json& value, std::string pointer)
        : value_(value), pointer_(std::move(pointer)) {}

    [[noreturn]] void fail(const std::string& reason) const;

    const nlohmann::json& json() const { return value_; }
    JsonValue member(const std::string& key) const;
    std::vector<JsonValue> elements() const;  // of an array

    bool boolean() const;
    std::string text() const;
    double not_negative() const;
    // A whole number, also as text: "0x8080", "12".
    uint64_t integer(uint64_t low, uint64_t high) const;
    // One of the names, or a number of any value up to `high`; 0 for `high`: names only.
    uint64_t named(std::span<const NamedNumber> names, uint64_t high = 0) const;

    template <typename Number>
    Number number(uint64_t high = std::numeric_limits<Number>::max()) const {
        return static_cast<Number>(integer(0, high));
    }

  private:
    std::optional<uint64_t> whole() const;

    const nlohmann::json& value_;
    std::string pointer_;
};

enum class Presence : uint8_t { optional, required };

// One key of an object and how it is taken.
template <typename Record>
struct JsonField {
    const char* key;
    void (*read)(const JsonValue& value, Record& record);
    Presence presence = Presence::optional;
};

// Names joined for a message: "a, b and c".
std::string list_names(const std::vector<std::string>& names);

void require_object(const JsonValue& value);

template <typename Record>
void read_object(const JsonValue& value, std::span<const JsonField<Record>> fields, Record& record) {
    require_object(value);
    const auto has = [&](const char* key) { return value.json().contains(key); };
    for (const auto& item : value.json().items()) {
        bool known = item.key() == "$schema" || item.key() == "//";
        std::vector<std::string> allowed;
        for (const auto& field : fields) {
            known = known || item.key() == field.key;
            allowed.emplace_back(field.key);
        }
        if (!known)
            value.member(item.key()).fail("this key is not known here; allowed are " + list_names(allowed));
    }
    for (const auto& field : fields) {
        if (has(field.key)) {
            field.read(value.member(field.key), record);
        } else if (field.presence == Presence::required) {
            value.fail(std::string("the key \"") + field.key + "\" is missing and must be given");
        }
    }
}

template <typename Record>
std::vector<Record> read_array(const JsonValue& value, std::span<const JsonField<Record>> fields) {
    std::vector<Record> records;
    for (const JsonValue& element : value.elements())
        read_object<Record>(element, fields, records.emplace_back());
    return records;
}

}  // namespace hostsim
