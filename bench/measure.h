// measure.h - compares an operation with its floor. Both run in one process in alternating batches, so that
// other load of the machine affects both alike. The ratio of a row is the median of the ratios of
// neighbouring batches. Processor time is measured, which excludes the time of other processes.
#pragma once

#include <benchmark/benchmark.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// The time of a clock in nanoseconds.
inline double now(clockid_t clock = CLOCK_THREAD_CPUTIME_ID) {
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

template <class Work>
double time_batch(const Work& work, size_t count) {
    const double start = now();
    for (size_t i = 0; i < count; ++i) {
        work();
        benchmark::ClobberMemory();
    }
    return (now() - start) / static_cast<double>(count);
}

// The times of the batches of a row, and its line in the table.
class Samples {
  public:
    void add(double operation, double floor) {
        operations_.push_back(operation);
        floors_.push_back(floor);
        ratios_.push_back(operation / floor);
    }
    // Both times are divided by `per`: a cost per port, per element.
    void report(benchmark::State& state, double per = 1) const;

  private:
    std::vector<double> operations_;
    std::vector<double> floors_;
    std::vector<double> ratios_;
};

// A batch is long enough for the clock, and short enough that most batches are not interrupted.
template <class Work>
size_t batch_size(const Work& work) {
    constexpr double kWanted = 100e3;  // nanoseconds
    work();
    size_t count = 1;
    for (double took = time_batch(work, 1); took * static_cast<double>(count) < kWanted;) {
        count = static_cast<size_t>(kWanted / took) + 1;
        took = time_batch(work, count);
    }
    return count;
}

template <class Operation, class Floor>
void compare(benchmark::State& state, Operation operation, Floor floor, double per = 1) {
    operation();
    const size_t batch = batch_size(floor);
    Samples samples;
    bool floor_first = false;
    for ([[maybe_unused]] auto _ : state) {
        const double before = floor_first ? time_batch(floor, batch) : 0;
        const double took = time_batch(operation, batch);
        samples.add(took, floor_first ? before : time_batch(floor, batch));
        state.SetIterationTime(took * 1e-9);
        floor_first = !floor_first;
    }
    samples.report(state, per);
}

// Measures an operation without a floor.
template <class Operation>
void measure(benchmark::State& state, Operation operation) {
    const size_t batch = batch_size(operation);
    Samples samples;
    for ([[maybe_unused]] auto _ : state) {
        const double took = time_batch(operation, batch);
        samples.add(took, 0);
        state.SetIterationTime(took * 1e-9);
    }
    samples.report(state);
}

// Runs `work` in a forked process and returns its result.
double in_fresh_process(const std::function<double()>& work);

// Measures the first call of a process: each measurement runs in a process forked for it. `prepare` runs
// there first and is not timed.
void compare_cold(benchmark::State& state, const std::function<void()>& prepare,
                  const std::function<void()>& operation, const std::function<void()>& floor);

// A row whose number is no time.
void report_value(benchmark::State& state, double value, const char* unit);

inline constexpr int kPairs = 301;
inline constexpr int kColdPairs = 31;

// Registers a row and the number of pairs of batches that it takes.
template <class Row>
void add_row(const std::string& name, int pairs, Row row) {
    benchmark::RegisterBenchmark(name.c_str(), row)->UseManualTime()->Iterations(pairs);
}

}  // namespace bench
