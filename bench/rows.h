// rows.h - the rows of the table, a function for each subject.
#pragma once

namespace bench {

void add_call_rows();    // information, statistics, open and close
void add_scsi_rows();    // SCSI commands, target and LUN discovery
void add_memory_rows();  // page faults and memory
void add_load_rows();    // load and free, the shared database
void add_list_rows();    // the list container
void add_log_rows();     // the debug log
void add_thread_rows();  // several threads at once

// Measures memory in a process of its own, which is started with the one argument kMemoryProbe.
inline constexpr char kMemoryProbe[] = "--memory-probe";
int probe_memory();

}  // namespace bench
