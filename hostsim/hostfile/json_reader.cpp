// json_reader.cpp - typed reads with their messages.
#include "json_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "values.h"

namespace hostsim {
namespace {

using nlohmann::json;

// Line and column of a byte, both from 1. The parser counts the byte that it stumbled over as read.
std::string place_of(std::string_view text, size_t bytes_read) {
    const std::string_view before =
        text.substr(0, std::min(bytes_read == 0 ? 0 : bytes_read - 1, text.size()));
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const size_t start = before.rfind('\n') == std::string_view::npos ? 0 : before.rfind('\n') + 1;
    return fmt::format("{}:{}", line, before.size() - start + 1);
}

// The reason without the parser's own name, number and place.
std::string reason_of(const json::exception& error) {
    const std::string_view what = error.what();
    const size_t start = what.find(": ");
    return std::string(start == std::string_view::npos ? what : what.substr(start + 2));
}

// Notices keys that stand twice in one object, of which the parser would silently keep the last.
class DuplicateKeys {
  public:
    bool operator()(int, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::object_start) open_.emplace_back();
        if (event == json::parse_event_t::object_end) open_.pop_back();
        if (event == json::parse_event_t::key && !open_.back().insert(parsed.get<std::string>()).second) {
            throw JsonMistake(fmt::format("the key \"{}\" stands twice in one object; it may stand once",
                                          parsed.get<std::string>()));
        }
        return true;
    }

  private:
    std::vector<std::set<std::string>> open_;
};

std::string escape(const std::string& key) {
    std::string escaped;
    for (const char c : key) escaped += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    return escaped;
}

}  // namespace

nlohmann::json parse_document(std::string_view text) {
    DuplicateKeys duplicates;
    const auto watch = [&](int depth, json::parse_event_t event, json& parsed) {
        return duplicates(depth, event, parsed);
    };
    try {
        return json::parse(text, watch, true, true);
    } catch (const json::parse_error& error) {
        throw JsonMistake(fmt::format("{}: {}", place_of(text, error.byte), reason_of(error)));
    } catch (const json::out_of_range& error) {
        // Of a number that no double holds the parser tells no place, but it quotes it.
        throw JsonMistake(fmt::format("{}; write a number below 1.8e308", reason_of(error)));
    }
}

std::string list_names(const std::vector<std::string>& names) {
    std::string list;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) list += i + 1 == names.size() ? " and " : ", ";
        list += names[i];
    }
    return list;
}

void require_object(const JsonValue& value) {
    if (!value.json().is_object()) value.fail("an object {…} is expected here");
}

void JsonValue::fail(const std::string& reason) const {
    throw JsonMistake(fmt::format("{}: {}", pointer_.empty() ? "/" : pointer_, reason));
}

JsonValue JsonValue::member(const std::string& key) const {
    return {value_.at(key), pointer_ + "/" + escape(key)};
}

std::vector<JsonValue> JsonValue::elements() const {
    if (!value_.is_array()) fail("a list […] is expected here");
    std::vector<JsonValue> values;
    for (size_t i = 0; i < value_.size(); ++i)
        values.emplace_back(value_[i], fmt::format("{}/{}", pointer_, i));
    return values;
}

bool JsonValue::boolean() const {
    if (!value_.is_boolean()) fail("true or false is expected here");
    return value_.get<bool>();
}

std::string JsonValue::text() const {
    if (!value_.is_string()) fail("a text \"…\" is expected here");
    return value_.get<std::string>();
}

double JsonValue::not_negative() const {
    constexpr double kLargest = 1e15;
    const double number = value_.is_number() ? value_.get<double>() : -1;
    if (!(number >= 0 && number <= kLargest)) fail("a number from 0 to 1e15 is expected here");
    return number;
}

std::optional<uint64_t> JsonValue::whole() const {
    if (value_.is_number_unsigned()) return value_.get<uint64_t>();
    return value_.is_string() ? parse_number(value_.get<std::string>()) : std::nullopt;
}

uint64_t JsonValue::integer(uint64_t low, uint64_t high) const {
    const auto number = whole();
    if (!number || *number < low || *number > high) {
        fail(fmt::format("{} is not allowed here; a whole number from {} to {} is (\"0x…\" for hexadecimal)",
                         value_.dump(), low, high));
    }
    return *number;
}

uint64_t JsonValue::named(std::span<const NamedNumber> names, uint64_t high) const {
    if (value_.is_string()) {
        for (const NamedNumber& known : names) {
            if (value_.get<std::string>() == known.name) return known.number;
        }
    }
    const auto number = high ? whole() : std::nullopt;
    if (number && *number <= high) return *number;
    std::vector<std::string> allowed;
    for (const NamedNumber& known : names) allowed.push_back(fmt::format("\"{}\"", known.name));
    if (high) allowed.push_back(fmt::format("numbers up to {}", high));
    fail(fmt::format("{} is not allowed here; allowed are {}", value_.dump(), list_names(allowed)));
}

}  // namespace hostsim
