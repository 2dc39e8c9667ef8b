// options.h - the parsed and checked command line. Each command reads only its own options.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "metrics.h"
#include "port_filter.h"

namespace trelmctl {

struct Command;

enum class DrawingFormat { dot, svg, mermaid };

struct Options {
    const Command* command = nullptr;
    bool json = false;
    bool verbose = false;
    std::optional<double> timeout;  // seconds
    PortSelector port;
    uint32_t target = 0;
    uint64_t lun = 0;
    PortFilter filter;
    bool wide = false;
    std::vector<uint8_t> cdb;
    uint32_t data_in = 0;  // bytes to read
    std::string out_file;  // receives the bytes that are read; empty: none
    std::string data_out;  // file to send; empty: none
    bool raw = false;
    std::optional<uint8_t> page;      // vital product data page
    std::optional<double> watch;      // seconds
    std::optional<uint64_t> samples;  // of a watch
    double every = 1;                 // seconds between two polls of monitor or top
    double rescan = 60;               // seconds between two loads of the library
    bool sixteen = false;             // always use READ CAPACITY(16)
    DrawingFormat drawing = DrawingFormat::dot;
    metrics::Settings metrics;
    std::string topic;               // command to explain
    std::string shell;               // to complete in
    std::vector<std::string> words;  // of a command line to complete
};

}  // namespace trelmctl
