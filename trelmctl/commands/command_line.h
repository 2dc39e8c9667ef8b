// command_line.h - parses and checks the command line, and lists the options of each command.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace trelmctl {

class Output;

// Throws CommandFailed if the command line is wrong. The result has no command if help or the version was
// requested and has been printed.
Options parse_options(int argc, char** argv, Output& output);

// Whether JSON is wanted. Needed before the command line is parsed, so that a usage error is reported in JSON
// too.
bool asks_for_json(int argc, char** argv);

// Help for the tool or for a command. Throws CommandFailed if there is no such command.
std::string help_text(const std::string& command);

struct OptionName {
    std::string name;  // with its dashes
    bool takes_value;
};
// The options of a command, those of the tool itself for an empty name; empty for an unknown name.
std::vector<OptionName> option_names(const std::string& command);

}  // namespace trelmctl
