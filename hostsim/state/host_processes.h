// host_processes.h - the processes of a host, which are those that map its shared file.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

// std::runtime_error where the machine shows no processes.
void require_proc();

// The paths of what a process of the caller's maps, as often as they are mapped; none for another's process.
std::vector<std::string> mapped_paths(pid_t process);

// In ascending order.
std::vector<pid_t> processes_of_host(const std::filesystem::path& root);

}  // namespace hostsim
