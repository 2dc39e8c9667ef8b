// exposition.h - writes metrics in one of the two text formats that Prometheus reads: OpenMetrics, and the
// older text format that text-file collectors and `promtool check metrics` read. The older format has neither
// units nor created times, declares state sets and infos as gauges, and includes the suffix in the names of
// counters.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace trelmctl::metrics {

enum class Format { openmetrics, prometheus };
std::string_view content_type(Format format);

enum class MetricType { counter, gauge, info, state_set };
std::string_view type_name(MetricType type);

// What the samples of one metric have in common.
struct Family {
    std::string_view name;  // without the suffix of the type
    MetricType type;
    std::string_view unit;  // empty: none
    std::string_view help;

    // The name in its samples.
    std::string sample_name() const;
};

// `name="value"` pairs, separated by commas. A pair with an empty value is left out: it means the same as an
// absent label.
class Labels {
  public:
    explicit Labels(std::string_view first = {}) : text_(first) {}
    Labels& add(std::string_view name, std::string_view value);
    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

class Exposition {
  public:
    explicit Exposition(Format format) : format_(format) {}

    // The samples that follow belong to this family. Its header lines are written before the first of them.
    void begin(const Family& family);

    void add(std::string_view labels, uint64_t value);
    void add(std::string_view labels, double value);
    void add(std::string_view labels, bool value) { add(labels, uint64_t{value}); }
    void add_info(const Labels& labels) { add(labels.text(), uint64_t{1}); }
    // A counter, and the time at which it started to count, if that is known.
    void add_counter(std::string_view labels, uint64_t value, std::optional<double> since);
    // One state of a state set. The label has the name of the metric.
    void add_state(std::string_view labels, std::string_view state, bool holds);

    std::string finish();

  private:
    void announce();
    void begin_line(std::string_view name, std::string_view labels);

    Format format_;
    Family family_{};
    std::string sample_name_;
    bool announced_ = false;
    std::string text_;
};

}  // namespace trelmctl::metrics
