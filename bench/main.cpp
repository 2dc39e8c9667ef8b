// The table of the benchmarks. `trelm_bench --benchmark_filter=REGEX` measures the rows whose names match.

#include <sys/utsname.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "drivers.h"
#include "measure.h"
#include "rows.h"

namespace {

std::string line_of(const char* path, const char* key) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, strlen(key), key) != 0) continue;
        const size_t colon = line.find(':');
        return colon == std::string::npos ? line : line.substr(line.find_first_not_of(" \t", colon + 1));
    }
    return "unknown";
}

std::string with_unit(double nanoseconds) {
    constexpr const char* kUnits[] = {"ns", "µs", "ms", "s"};
    size_t unit = 0;
    for (; nanoseconds >= 1000 && unit < 3; ++unit) nanoseconds /= 1000;
    char text[32];
    snprintf(text, sizeof text,
             nanoseconds < 10    ? "%.2f %s"
             : nanoseconds < 100 ? "%.1f %s"
                                 : "%.0f %s",
             nanoseconds, kUnits[unit]);
    return text;
}

class Table : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override {
        utsname system;
        uname(&system);
        double load = 0;
        getloadavg(&load, 1);
        printf("%s, %u cores, Linux %s, g++ %s, load average %.2f when it began.\n\n",
               line_of("/proc/cpuinfo", "model name").c_str(), std::thread::hardware_concurrency(),
               system.release, __VERSION__, load);
        printf(
            "| row | operation | floor | ratio | middle half of the ratios |\n|---|---:|---:|---:|---:|\n");
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) print(run);
        fflush(stdout);
    }

  private:
    static void print(const Run& run) {
        const auto& counters = run.counters;
        const std::string name = run.run_name.function_name;
        if (run.error_occurred) {
            printf("| %s | %s | | | |\n", name.c_str(), run.error_message.c_str());
        } else if (counters.count("value")) {
            printf("| %s | %.6g %s | | | |\n", name.c_str(), counters.at("value").value,
                   run.report_label.c_str());
        } else if (counters.count("ratio")) {
            printf("| %s | %s | %s | %.3f | %.3f to %.3f |\n", name.c_str(),
                   with_unit(counters.at("operation").value).c_str(),
                   with_unit(counters.at("floor").value).c_str(), counters.at("ratio").value,
                   counters.at("low").value, counters.at("high").value);
        } else {
            printf("| %s | %s | | | |\n", name.c_str(), with_unit(counters.at("operation").value).c_str());
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], bench::kMemoryProbe) == 0) return bench::probe_memory();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    bench::touch_kernel_memory();
    bench::add_call_rows();
    bench::add_scsi_rows();
    bench::add_memory_rows();
    bench::add_load_rows();
    bench::add_list_rows();
    bench::add_log_rows();
    bench::add_thread_rows();
    Table table;
    benchmark::RunSpecifiedBenchmarks(&table);
}
