// commands.h - the commands of the tool, as a table: what each is called, what it takes and what carries it
// out.
#pragma once

#include <span>

#include "options.h"
#include "output.h"

namespace trelmctl {

// What stands behind a command's name, in this order.
enum Arguments : unsigned { NO_ARGUMENTS = 0, PORT = 1, TARGET = 2, LUN = 4 };

struct Command {
    const char* name;
    const char* help;
    unsigned arguments;
    void (*run)(const Options& options, Output& output);
};

std::span<const Command> commands();

void run_list(const Options& options, Output& output);
void run_show(const Options& options, Output& output);
void run_metrics(const Options& options, Output& output);
void run_version(const Options& options, Output& output);
void run_stats(const Options& options, Output& output);
void run_targets(const Options& options, Output& output);
void run_luns(const Options& options, Output& output);
void run_tree(const Options& options, Output& output);
void run_scsi(const Options& options, Output& output);
void run_inquiry(const Options& options, Output& output);
void run_capacity(const Options& options, Output& output);

}  // namespace trelmctl
