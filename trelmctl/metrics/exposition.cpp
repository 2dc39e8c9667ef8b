#include "exposition.h"

#include <fmt/format.h>

#include <utility>

namespace trelmctl::metrics {
namespace {

std::string_view suffix(MetricType type) {
    if (type == MetricType::counter) return "_total";
    return type == MetricType::info ? "_info" : "";
}

void append_escaped(std::string& text, std::string_view value) {
    for (const char c : value) {
        if (c == '\n') {
            text += "\\n";
            continue;
        }
        if (c == '\\' || c == '"') text += '\\';
        text += c;
    }
}

}  // namespace

std::string_view content_type(Format format) {
    return format == Format::openmetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                         : "text/plain; version=0.0.4; charset=utf-8";
}

std::string_view type_name(MetricType type) {
    switch (type) {
        case MetricType::counter:
            return "counter";
        case MetricType::info:
            return "info";
        case MetricType::state_set:
            return "stateset";
        case MetricType::gauge:
            break;
    }
    return "gauge";
}

std::string Family::sample_name() const { return fmt::format("{}{}", name, suffix(type)); }

Labels& Labels::add(std::string_view name, std::string_view value) {
    if (value.empty()) return *this;
    if (!text_.empty()) text_ += ',';
    text_.append(name).append("=\"");
    append_escaped(text_, value);
    text_ += '"';
    return *this;
}

void Exposition::begin(const Family& family) {
    family_ = family;
    sample_name_ = family.sample_name();
    announced_ = false;
}

void Exposition::announce() {
    if (std::exchange(announced_, true)) return;
    if (format_ == Format::openmetrics) {
        text_ += fmt::format("# TYPE {} {}\n", family_.name, type_name(family_.type));
        if (!family_.unit.empty()) text_ += fmt::format("# UNIT {} {}\n", family_.name, family_.unit);
        text_ += fmt::format("# HELP {} {}\n", family_.name, family_.help);
        return;
    }
    const bool counts = family_.type == MetricType::counter;
    text_ += fmt::format("# HELP {} {}\n", sample_name_, family_.help);
    text_ += fmt::format("# TYPE {} {}\n", sample_name_, counts ? "counter" : "gauge");
}

void Exposition::begin_line(std::string_view name, std::string_view labels) {
    text_ += name;
    if (!labels.empty()) text_.append("{").append(labels).append("}");
    text_ += ' ';
}

void Exposition::add(std::string_view labels, uint64_t value) {
    announce();
    begin_line(sample_name_, labels);
    text_.append(fmt::format_int(value).c_str()).append("\n");
}

void Exposition::add(std::string_view labels, double value) {
    announce();
    begin_line(sample_name_, labels);
    text_ += fmt::format("{}\n", value);
}

void Exposition::add_counter(std::string_view labels, uint64_t value, std::optional<double> since) {
    add(labels, value);
    if (!since || format_ != Format::openmetrics) return;
    begin_line(std::string(family_.name) + "_created", labels);
    text_ += fmt::format("{:.3f}\n", *since);
}

void Exposition::add_state(std::string_view labels, std::string_view state, bool holds) {
    add(Labels(labels).add(family_.name, state).text(), holds);
}

std::string Exposition::finish() {
    if (format_ == Format::openmetrics) text_ += "# EOF\n";
    return std::move(text_);
}

}  // namespace trelmctl::metrics
