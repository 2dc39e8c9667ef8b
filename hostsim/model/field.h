// field.h - tables of the fields of a host. Each record of the model has a table. For each field it has the
// key in host files, type, range, default and effect, and access to the value. The reader of host files,
// their schema and the checks of the model all use these tables.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "model.h"

namespace hostsim {

enum class FieldType : uint8_t {
    text,  // `high` bytes at most
    boolean,
    number,  // from `low` to `high`; where there are words, one of their numbers
    word,    // one of the words, or a number from `low` to `high`; `high` 0: words only
    words,   // a word, or a list of words whose numbers are bits
    rate,    // a number from 0, fractions allowed
    wwn,
    mac,
    size,          // bytes, or a number with a unit
    version,       // four bytes, each a decimal number
    pci_location,  // domain, bus and device
    error_number,  // by name or number
    text_list,
    counter,  // a number or an object
    object,
    object_list,
};

struct Word {
    std::string_view name;
    uint64_t number;
};

// The value of a field; monostate: not given.
using FieldValue = std::variant<std::monostate, uint64_t, double, std::string, std::vector<std::string>>;

struct FieldTable;

struct Field {
    std::string_view key;
    FieldType type;
    std::string_view effect;
    uint64_t low = 0;
    uint64_t high = 0;
    std::span<const Word> allowed_words{};
    bool is_required = false;
    bool is_only_reported = false;      // models of tests may have values out of range
    std::string_view default_text{};    // describes a default that is not the value in a new record
    const FieldTable* table = nullptr;  // of an object, and of the elements of a list

    FieldValue (*get)(const void* record) = nullptr;
    void (*set)(void* record, const FieldValue& value) = nullptr;
    size_t (*size)(const void* record) = nullptr;  // of a list of objects
    const void* (*element)(const void* record, size_t index) = nullptr;
    void* (*append)(void* record) = nullptr;
    void* (*object)(void* record) = nullptr;

    constexpr Field required() const {
        Field field = *this;
        field.is_required = true;
        return field;
    }
    constexpr Field only_reported() const {
        Field field = *this;
        field.is_only_reported = true;
        return field;
    }
    constexpr Field otherwise(std::string_view text) const {
        Field field = *this;
        field.default_text = text;
        return field;
    }
};

// A key that is allowed only if another key has one of some words.
struct Condition {
    std::string_view key;
    std::string_view other;
    std::span<const std::string_view> words;
    std::string_view reason;
};

struct FieldTable {
    std::string_view name;
    std::span<const Field> fields;
    const void* (*defaults)();
    const FieldTable* base = nullptr;  // the fields that come first, of the record's base class
    void* (*to_base)(void* record) = nullptr;
    std::array<std::string_view, 2> exactly_one{};
    std::array<std::string_view, 2> at_least_one{};
    std::span<const Condition> conditions{};
};

// ---- Access to a member

namespace field_access {

template <typename Member>
struct Parts;
template <typename R, typename T>
struct Parts<T R::*> {
    using Record = R;
    using Type = T;
};
template <auto Member>
using Record = typename Parts<decltype(Member)>::Record;

template <typename T>
struct Plain {
    using Type = T;
};
template <typename T>
struct Plain<std::optional<T>> {
    using Type = T;
};
template <auto Member>
using Value = typename Plain<typename Parts<decltype(Member)>::Type>::Type;

template <auto Member>
auto& member(void* record) {
    return static_cast<Record<Member>*>(record)->*Member;
}
template <auto Member>
const auto& member(const void* record) {
    return static_cast<const Record<Member>*>(record)->*Member;
}

template <typename T>
FieldValue to_value(const T& value) {
    if constexpr (std::is_same_v<T, MacAddress>) {
        uint64_t number = 0;
        for (const uint8_t byte : value) number = number << 8 | byte;
        return number;
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
        return static_cast<uint64_t>(value);
    } else {
        return value;
    }
}

template <typename T>
T from_value(const FieldValue& value) {
    if constexpr (std::is_same_v<T, MacAddress>) {
        const auto number = std::get<uint64_t>(value);
        MacAddress mac{};
        for (size_t i = 0; i < mac.size(); ++i) mac[i] = static_cast<uint8_t>(number >> (40 - 8 * i));
        return mac;
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
        return static_cast<T>(std::get<uint64_t>(value));
    } else {
        return std::get<T>(value);
    }
}

template <auto Member>
FieldValue get(const void* record) {
    const auto& value = member<Member>(record);
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, Value<Member>>) {
        return to_value(value);
    } else {
        return value ? to_value(*value) : FieldValue();
    }
}

template <auto Member>
void set(void* record, const FieldValue& value) {
    member<Member>(record) = from_value<Value<Member>>(value);
}

}  // namespace field_access

// ---- Fields by type

template <auto Member>
constexpr Field field(std::string_view key, FieldType type, std::string_view effect) {
    return {.key = key,
            .type = type,
            .effect = effect,
            .get = field_access::get<Member>,
            .set = field_access::set<Member>};
}

template <auto Member>
constexpr Field text_field(std::string_view key, uint64_t width, std::string_view effect) {
    Field result = field<Member>(key, FieldType::text, effect);
    result.high = width;
    return result;
}

template <auto Member>
constexpr Field boolean_field(std::string_view key, std::string_view effect) {
    return field<Member>(key, FieldType::boolean, effect);
}

template <auto Member>
constexpr Field number_field(std::string_view key, uint64_t low, uint64_t high, std::string_view effect) {
    Field result = field<Member>(key, FieldType::number, effect);
    result.low = low;
    result.high = high;
    return result;
}

template <auto Member>
constexpr Field number_field(std::string_view key, std::string_view effect) {
    return number_field<Member>(key, 0, std::numeric_limits<field_access::Value<Member>>::max(), effect);
}

template <auto Member>
constexpr Field word_field(std::string_view key, std::span<const Word> words, std::string_view effect,
                           uint64_t high = 0, uint64_t low = 0) {
    Field result = number_field<Member>(key, low, high, effect);
    result.type = FieldType::word;
    result.allowed_words = words;
    return result;
}

template <auto Member>
constexpr Field list_field(std::string_view key, const FieldTable& table, std::string_view effect) {
    Field result{.key = key, .type = FieldType::object_list, .effect = effect, .table = &table};
    result.size = [](const void* record) { return field_access::member<Member>(record).size(); };
    result.element = [](const void* record, size_t index) -> const void* {
        return &field_access::member<Member>(record)[index];
    };
    result.append = [](void* record) -> void* {
        return &field_access::member<Member>(record).emplace_back();
    };
    return result;
}

template <typename Record>
const void* default_record() {
    static const Record record{};
    return &record;
}

// ---- Walking a table

// Every field of a record, those of its base class first, with its table and the record that holds it.
template <typename Visit>
void for_each_field(const FieldTable& table, void* record, const Visit& visit) {
    if (table.base) for_each_field(*table.base, table.to_base(record), visit);
    for (const Field& field : table.fields) visit(table, field, record);
}

// The table of a host; all others hang from it.
HOSTSIM_API const FieldTable& host_table();

}  // namespace hostsim
