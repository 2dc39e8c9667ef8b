// host_schema.cpp - JSON Schema for everything that the reader of host files and the checks of single fields
// refuse. A schema cannot express rules between fields of different objects.
#include "host_schema.h"

#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>

#include "errno_names.h"
#include "field.h"
#include "field_reader.h"

namespace hostsim {
namespace {

using Json = nlohmann::ordered_json;

// A character class of the digits of a base, from `low` to `high`.
std::string digits(unsigned base, unsigned low, unsigned high) {
    if (base == 10) return fmt::format("[{}-{}]", low, high);
    std::string set;
    for (unsigned digit = low; digit <= high; ++digit)
        set += digit < 10 ? fmt::format("{}", digit) : fmt::format("{:X}{:x}", digit, digit);
    return "[" + set + "]";
}

// A pattern for the numbers from 0 to `high` with any number of zeros before them.
std::string numbers_up_to(uint64_t high, unsigned base) {
    const std::string largest = base == 10 ? fmt::format("{}", high) : fmt::format("{:x}", high);
    const auto value = [](char c) { return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10); };
    const std::string any = digits(base, 0, base - 1);
    std::string pattern = "0*(";
    if (largest.size() > 1) pattern += fmt::format("{}{{1,{}}}|", any, largest.size() - 1);
    std::string prefix;
    for (size_t i = 0; i < largest.size(); ++i) {
        const size_t rest = largest.size() - i - 1;
        const unsigned digit = value(largest[i]);
        if (digit > 0)
            pattern += prefix + digits(base, 0, digit - 1) +
                       (rest == 0 ? "" : fmt::format("{}{{{}}}", any, rest)) + "|";
        prefix += digits(base, digit, digit);
    }
    return pattern + prefix + ")";
}

// Numbers are also allowed as text.
Json number(uint64_t low, uint64_t high) {
    const std::string no_zero = low == 0 ? "" : "(?!(0[xX])?0*$)";
    return {{"oneOf",
             {{{"type", "integer"}, {"minimum", low}, {"maximum", high}},
              {{"type", "string"},
               {"pattern", fmt::format("^{}({}|0[xX]{})$", no_zero, numbers_up_to(high, 10),
                                       numbers_up_to(high, 16))}}}}};
}

class Schema {
  public:
    Json make() {
        const Json reference = object(host_table());
        return {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
                {"title", "A simulated host"},
                {"description", "The host that trelm-hostsim runs programs on. Comments are allowed."},
                {"$ref", reference.at("$ref")},
                {"$defs", definitions_}};
    }

  private:
    static Json reference(const std::string& name) { return {{"$ref", "#/$defs/" + name}}; }

    Json define(const std::string& name, const Json& schema) {
        if (!definitions_.contains(name)) definitions_[name] = schema;
        return reference(name);
    }

    Json number_of(const Field& field) {
        return define(fmt::format("number_{}_to_{}", field.low, field.high), number(field.low, field.high));
    }

    Json object(const FieldTable& table) {
        const std::string name(table.name);
        if (definitions_.contains(name)) return reference(name);
        definitions_[name] = Json::object();
        Json properties = {{kRemarkKey, {{"description", "A remark; not read."}}},
                           {kSchemaKey, {{"description", "For editors; not read."}}}};
        Json required = Json::array();
        for_each_field(table, nullptr, [&](const FieldTable& owner, const Field& field, void*) {
            properties[std::string(field.key)] = described(owner, field);
            if (field.is_required) required.push_back(field.key);
        });
        Json schema = {{"type", "object"}, {"additionalProperties", false}, {"properties", properties}};
        if (!required.empty()) schema["required"] = required;
        const auto choice = [](const std::array<std::string_view, 2>& keys) {
            return Json{{{"required", {keys[0]}}}, {{"required", {keys[1]}}}};
        };
        if (!table.exactly_one[0].empty()) schema["oneOf"] = choice(table.exactly_one);
        if (!table.at_least_one[0].empty()) schema["anyOf"] = choice(table.at_least_one);
        for (const Condition& condition : table.conditions) {
            schema["dependentSchemas"][std::string(condition.key)] = {
                {"properties", {{condition.other, {{"enum", condition.words}}}}},
                {"required", {condition.other}}};
        }
        definitions_[name] = schema;
        return reference(name);
    }

    Json described(const FieldTable& owner, const Field& field) {
        Json schema = typed(field);
        std::string description(field.effect);
        if (!field.default_text.empty())
            description += fmt::format("{}Default: {}.", description.empty() ? "" : " ", field.default_text);
        if (!description.empty()) schema["description"] = description;
        if (!field.is_required && field.default_text.empty() && field.get) add_default(owner, field, schema);
        return schema;
    }

    static void add_default(const FieldTable& owner, const Field& field, Json& schema) {
        const FieldValue value = field.get(owner.defaults());
        if (const auto* text = std::get_if<std::string>(&value)) {
            if (!text->empty()) schema["default"] = *text;
        } else if (const auto* real = std::get_if<double>(&value)) {
            schema["default"] = *real;
        } else if (const auto* whole = std::get_if<uint64_t>(&value)) {
            if (field.type == FieldType::number || field.type == FieldType::word ||
                field.type == FieldType::words)
                schema["default"] = *whole;
            if (field.type == FieldType::boolean) schema["default"] = *whole != 0;
            for (const Word& word : field.allowed_words) {
                if (word.number == *whole && field.type != FieldType::number) schema["default"] = word.name;
            }
        }
    }

    Json word(const Field& field) {
        Json names = Json::array();
        for (const Word& allowed : field.allowed_words) names.push_back(allowed.name);
        if (field.high == 0) return {{"enum", names}};
        return {{"oneOf", {{{"enum", names}}, number_of(field)}}};
    }

    Json error_number() {
        Json names = Json::array();
        for (const std::string_view name : errno_names()) names.push_back(name);
        return {{"oneOf", {define("error_name", {{"enum", names}}), number(1, 4095)}}};
    }

    Json typed(const Field& field) {
        const Json text_type = {{"type", "string"}};
        const auto pattern = [](const char* form) { return Json{{"type", "string"}, {"pattern", form}}; };
        switch (field.type) {
            case FieldType::text:
                return {{"type", "string"}, {"maxLength", field.high}, {"pattern", "^[^\\u0000]*$"}};
            case FieldType::boolean:
                return {{"type", "boolean"}};
            case FieldType::number: {
                if (field.allowed_words.empty()) return number_of(field);
                Json allowed = Json::array();
                for (const Word& each : field.allowed_words)
                    allowed.insert(allowed.end(), {each.number, each.name});
                return {{"enum", allowed}};
            }
            case FieldType::word:
                return word(field);
            case FieldType::words: {
                const Json one = define("speed", word(field));
                return {{"oneOf", {one, {{"type", "array"}, {"items", one}}}}};
            }
            case FieldType::rate:
                return {{"type", "number"}, {"minimum", 0}, {"maximum", 1e15}};
            case FieldType::wwn:
                return define("wwn", pattern("^(?!(00:){7}00$)([0-9A-Fa-f]{2}:){7}[0-9A-Fa-f]{2}$"));
            case FieldType::mac:
                return define("mac", pattern("^([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}$"));
            case FieldType::size:
                return {{"oneOf",
                         {{{"type", "integer"}, {"minimum", 1}, {"maximum", UINT64_MAX}},
                          pattern("^0*[1-9][0-9]* *([kMGTPE]B|[KMGTPE]iB|B)?$")}}};
            case FieldType::version: {
                const std::string byte = "(0?[0-9]{1,2}|1[0-9]{2}|2[0-4][0-9]|25[0-5])";
                return pattern(fmt::format("^{0}(\\.{0}){{3}}$", byte).c_str());
            }
            case FieldType::pci_location:
                return pattern("^[0-9A-Fa-f]{4}:[0-9A-Fa-f]{2}:[01][0-9A-Fa-f]$");
            case FieldType::error_number:
                return error_number();
            case FieldType::text_list:
                return {{"type", "array"}, {"items", text_type}};
            case FieldType::counter:
                return define("counter_or_value",
                              {{"oneOf", {typed(field.table->fields.front()), object(*field.table)}}});
            case FieldType::object:
                return object(*field.table);
            case FieldType::object_list:
                return {{"type", "array"}, {"items", object(*field.table)}};
        }
        return {};
    }

    Json definitions_ = Json::object();
};

}  // namespace

std::string host_schema() { return Schema().make().dump(2) + "\n"; }

}  // namespace hostsim
