// command_line.h - takes the command line apart, checks it, and says what each command takes.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace trelmctl {

class Output;

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
// What a command takes besides its arguments, the tool itself for an empty name; nothing for a name that is no command.
std::vector<OptionName> option_names(const std::string& command);

}  // namespace trelmctl
