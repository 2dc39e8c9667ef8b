#include "measure.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace bench {
namespace {

double quantile(std::vector<double> values, double at) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(at * static_cast<double>(values.size() - 1))];
}

double median(const std::vector<double>& values) { return quantile(values, 0.5); }

}  // namespace

void Samples::report(benchmark::State& state, double per) const {
    if (ratios_.empty()) return;
    state.counters["operation"] = median(operations_) / per;
    if (floors_.front() <= 0) return;
    state.counters["floor"] = median(floors_) / per;
    state.counters["ratio"] = median(ratios_);
    state.counters["low"] = quantile(ratios_, 0.25);
    state.counters["high"] = quantile(ratios_, 0.75);
}

double in_fresh_process(const std::function<double()>& work) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("cannot make a pipe");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot fork");
    if (child == 0) {
        const double result = work();
        const bool told = write(ends[1], &result, sizeof result) == sizeof result;
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    double result = 0;
    const bool heard = read(ends[0], &result, sizeof result) == sizeof result;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!heard) throw std::runtime_error("a forked measurement ended without a result");
    return result;
}

void compare_cold(benchmark::State& state, const std::function<void()>& prepare,
                  const std::function<void()>& operation, const std::function<void()>& floor) {
    const auto time_first = [&prepare](const std::function<void()>& work) {
        return in_fresh_process([&] {
            prepare();
            const double start = now();
            work();
            return now() - start;
        });
    };
    Samples samples;
    for ([[maybe_unused]] auto _ : state) {
        const double took = time_first(operation);
        samples.add(took, time_first(floor));
        state.SetIterationTime(took * 1e-9);
    }
    samples.report(state);
}

void report_value(benchmark::State& state, double value, const char* unit) {
    state.counters["value"] = value;
    state.SetLabel(unit);
}

}  // namespace bench
