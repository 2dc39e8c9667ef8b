// options.h - the command line, taken apart and checked: what is here is sound, and every command reads only
// what is its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "metrics.h"
#include "port_filter.h"

namespace trelmctl {

struct Command;
class Output;

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
    std::string out_file;  // that takes the bytes read; empty: none
    std::string data_out;  // file to send; empty: none
    bool raw = false;
    std::optional<uint8_t> page;      // vital product data page
    std::optional<double> watch;      // seconds
    std::optional<uint64_t> samples;  // of a watch
    bool sixteen = false;             // READ CAPACITY(16) in any case
    DrawingFormat drawing = DrawingFormat::dot;
    metrics::Settings metrics;
    std::string topic;               // command to explain
    std::string shell;               // to complete in
    std::vector<std::string> words;  // of a command line to complete
};

// Throws CommandFailed where the command line is wrong. Without a command, what was asked for (help or the
// version) has been printed.
Options parse_options(int argc, char** argv, Output& output);

// Asked for before the command line is understood, so that a mistake in it is told in JSON, too.
bool asks_for_json(int argc, char** argv);

// Of the tool, or of a command; throws CommandFailed where there is no such command.
std::string help_text(const std::string& command);

struct OptionName {
    std::string name;  // with its dashes
    bool takes_value;
};
// What a command takes besides its arguments; nothing for a name that is no command.
std::vector<OptionName> option_names(const std::string& command);

}  // namespace trelmctl
