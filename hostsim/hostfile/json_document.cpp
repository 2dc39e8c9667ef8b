// json_document.cpp - builds the tree from the events of the parser. The parser reports places only for
// syntax errors, so it reads through an iterator that counts. It does not recurse. A limit on nesting keeps
// the recursion over the tree shallow.
#include "json_document.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "mistakes.h"
#include "printable.h"

namespace hostsim {
namespace {

using nlohmann::json;

constexpr size_t kDeepest = 32;
constexpr size_t kMostValues = 1'000'000;

// Reads a text and records how far it has been read.
class CountingIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, const char** furthest) : at_(at), furthest_(furthest) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++() {
        *furthest_ = ++at_;
        return *this;
    }
    CountingIterator operator++(int) {
        CountingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
    bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

  private:
    const char* at_;
    const char** furthest_;
};

bool is_number_character(char c) { return c != '\0' && std::strchr("0123456789+-.eE", c) != nullptr; }

// The parser's events, with the names that it asks for.
class TreeBuilder {
  public:
    TreeBuilder(std::string_view text, Mistakes& mistakes)
        : text_(text), read_(text.data()), mistakes_(mistakes) {}

    bool parse() {
        return json::sax_parse(CountingIterator(text_.data(), &read_),
                               CountingIterator(text_.data() + text_.size(), &read_), this,
                               json::input_format_t::json, true, true);
    }
    JsonValue take() { return std::move(root_); }

    bool null() { return add(JsonValue::Kind::null, offset() - 4); }
    bool boolean(bool value) {
        return add(JsonValue::Kind::boolean, offset() - (value ? 4 : 5), value, value);
    }
    bool number_integer(int64_t value) {
        return add_number(JsonValue::Kind::other_number, 0, static_cast<double>(value));
    }
    bool number_unsigned(uint64_t value) {
        return add_number(JsonValue::Kind::whole, value, static_cast<double>(value));
    }
    bool number_float(double value, const std::string&) {
        return add_number(JsonValue::Kind::other_number, 0, value);
    }
    bool string(const std::string& value) {
        if (!add(JsonValue::Kind::text, quoted_begin())) return false;
        last_->text = value;
        return true;
    }
    bool binary(const json::binary_t&) { return false; }

    bool start_object(size_t) { return open(JsonValue::Kind::object); }
    bool start_array(size_t) { return open(JsonValue::Kind::array); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }

    bool key(const std::string& name) {
        key_ = name;
        key_place_ = quoted_begin();
        has_key_ = true;
        if (!keys_.back().insert(name).second)
            mistakes_.add(key_place_, "", fmt::format("duplicate key \"{}\"", shortened(name)));
        return true;
    }

    bool parse_error(size_t position, const std::string&, const json::exception& error) {
        constexpr int kOutOfRange = 406;
        if (error.id == kOutOfRange) {
            const size_t end = number_end();
            const size_t begin = number_begin(end);
            mistakes_.add(begin, "",
                          fmt::format("{} is out of range, a number below 1.8e308 is allowed",
                                      shortened(text_.substr(begin, end - begin))));
        } else {
            const size_t place = position == 0 ? 0 : position - 1;
            mistakes_.add(place, "", describe(place, error.what()));
        }
        return false;
    }

  private:
    size_t offset() const { return static_cast<size_t>(read_ - text_.data()); }

    // The start of the quoted text that has just been read. A quote inside it has a backslash before it; the
    // first quote has none.
    size_t quoted_begin() const {
        size_t begin = offset() - 1;
        do {
            begin = text_.rfind('"', begin - 1);
        } while (begin > 0 && text_[begin - 1] == '\\');
        return begin;
    }

    size_t number_begin(size_t end) const {
        while (end > 0 && is_number_character(text_[end - 1])) --end;
        return end;
    }

    // After a number the parser has read one more character, unless the text ends there.
    size_t number_end() const { return is_number_character(text_[offset() - 1]) ? offset() : offset() - 1; }

    bool add_number(JsonValue::Kind kind, uint64_t whole, double number) {
        const size_t end = number_end();
        if (!add(kind, number_begin(end), whole, number)) return false;
        last_->end = end;
        return true;
    }

    bool add(JsonValue::Kind kind, size_t begin, uint64_t whole = 0, double number = 0) {
        if (++values_ > kMostValues) {
            mistakes_.add(begin, "", fmt::format("the file has more than {} values", kMostValues));
            return false;
        }
        last_ = open_.empty() ? &root_ : &open_.back()->children.emplace_back();
        last_->kind = kind;
        last_->begin = begin;
        last_->end = offset();
        last_->whole = whole;
        last_->number = number;
        if (has_key_) {
            last_->key = std::move(key_);
            last_->key_place = key_place_;
        }
        has_key_ = false;
        return true;
    }

    bool open(JsonValue::Kind kind) {
        if (open_.size() == kDeepest) {
            mistakes_.add(offset() - 1, "",
                          fmt::format("the nesting is too deep, {} levels are allowed", kDeepest));
            return false;
        }
        if (!add(kind, offset() - 1)) return false;
        open_.push_back(last_);
        keys_.emplace_back();
        return true;
    }

    bool close() {
        open_.pop_back();
        keys_.pop_back();
        return true;
    }

    // A message for a syntax error. The text of the parser only distinguishes the cases and is never shown.
    std::string describe(size_t place, std::string_view told) const {
        const auto is = [&](std::string_view words) { return told.find(words) != std::string_view::npos; };
        if (place >= text_.size()) return "the file ends here; " + wanted(place);
        if (is("invalid string"))
            return "control characters, bytes that are not UTF-8 and unknown escapes are not allowed in a "
                   "text; "
                   "\\n, \\t, \\\", \\\\ and \\u0000 to \\uffff are";
        if (is("invalid comment")) return "this is no comment; \"// …\" and \"/* … */\" are allowed";
        return "this is not expected here; " + wanted(place);
    }

    std::string wanted(size_t place) const {
        if (open_.empty())
            return values_ > 0 ? "nothing may follow the host" : "a host file is an object {…}";
        const bool is_object = open_.back()->kind == JsonValue::Kind::object;
        if (has_key_) return fmt::format("\"{}\" needs a \":\" and a value", shortened(key_));
        const std::string_view item = is_object ? "key in quotes" : "value";
        const std::string_view before = text_.substr(0, std::min(place, text_.size()));
        const size_t last = before.find_last_not_of(" \t\r\n");
        if (last != std::string_view::npos && before[last] == ',')
            return fmt::format("a {} must follow the \",\"", item);
        return fmt::format("\"{}\" or {}a {} is allowed", is_object ? "}" : "]",
                           open_.back()->children.empty() ? "" : "\",\" and ", item);
    }

    std::string_view text_;
    const char* read_;
    Mistakes& mistakes_;
    JsonValue root_;
    JsonValue* last_ = nullptr;
    std::vector<JsonValue*> open_;
    std::vector<std::set<std::string>> keys_;
    std::string key_;
    size_t key_place_ = 0;
    bool has_key_ = false;
    size_t values_ = 0;
};

}  // namespace

const JsonValue* JsonValue::find(std::string_view member) const {
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const JsonValue& child) { return child.key == member; });
    return found == children.end() ? nullptr : &*found;
}

JsonValue parse_json(std::string_view text, Mistakes& mistakes) {
    TreeBuilder builder(text, mistakes);
    builder.parse();
    return builder.take();
}

}  // namespace hostsim
