// errno_names.h - error numbers by the names that host files give them.
#pragma once

#include <string_view>
#include <vector>

namespace hostsim {

// 0 if no error has this name.
int errno_by_name(std::string_view name);

// Every name that has a number.
std::vector<std::string_view> errno_names();

}  // namespace hostsim
