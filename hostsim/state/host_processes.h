// host_processes.h - the processes of a host: those that map its shared file.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

// Throws std::runtime_error if /proc is missing.
void require_proc();

// Paths of the files that a process maps, one for each mapping. Empty for a process of another user.
std::vector<std::string> mapped_paths(pid_t process);

// In ascending order.
std::vector<pid_t> processes_of_host(const std::filesystem::path& root);

}  // namespace hostsim
