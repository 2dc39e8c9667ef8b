// options.h - the command line, taken apart and checked: what is here is sound, and every command reads only
// what is its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "metrics.h"
#include "ports.h"

namespace trelmctl {

struct Command;
class Output;

// Bytes that one command may move, so that a slip of the keyboard does not ask for gigabytes. Drivers may
// allow fewer.
inline constexpr uint32_t kMostData = 64u << 20;

struct Options {
    const Command* command = nullptr;
    bool json = false;
    PortSelector port;
    uint32_t target = 0;
    uint64_t lun = 0;
    std::vector<uint8_t> cdb;
    uint32_t data_in = 0;  // bytes to read
    std::string data_out;  // file to send; empty: none
    bool raw = false;
    std::optional<uint8_t> page;      // vital product data page
    std::optional<double> watch;      // seconds
    std::optional<uint64_t> samples;  // of a watch
    bool sixteen = false;             // READ CAPACITY(16) in any case
    metrics::Settings metrics;
};

// Throws CommandFailed where the command line is wrong. Without a command, what was asked for (help or the
// version) has been printed.
Options parse_options(int argc, char** argv, Output& output);

// Asked for before the command line is understood, so that a mistake in it is told in JSON, too.
bool asks_for_json(int argc, char** argv);

}  // namespace trelmctl
