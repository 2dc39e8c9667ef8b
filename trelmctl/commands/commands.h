// commands.h - the commands of the tool as a table: name, arguments, and the function that carries it out.
#pragma once

#include <span>

#include "options.h"
#include "output.h"

namespace trelmctl {

// How many of the arguments PORT, TARGET and LUN a command takes, in this order.
enum class Addressee { none, port, target, lun };

struct Command {
    const char* name;
    const char* help;
    Addressee addressee;
    void (*run)(const Options& options, Output& output);
};

std::span<const Command> commands();

void run_list(const Options& options, Output& output);
void run_show(const Options& options, Output& output);
void run_stats(const Options& options, Output& output);
void run_top(const Options& options, Output& output);
void run_monitor(const Options& options, Output& output);
void run_metrics(const Options& options, Output& output);
void run_targets(const Options& options, Output& output);
void run_luns(const Options& options, Output& output);
void run_tree(const Options& options, Output& output);
void run_topology(const Options& options, Output& output);
void run_scsi(const Options& options, Output& output);
void run_inquiry(const Options& options, Output& output);
void run_capacity(const Options& options, Output& output);
void run_version(const Options& options, Output& output);
void run_help(const Options& options, Output& output);
void run_completion(const Options& options, Output& output);
// Called by completion scripts; not listed among the commands.
void run_complete(const Options& options, Output& output);

}  // namespace trelmctl
