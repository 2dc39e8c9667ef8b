// exit_status.h - exit statuses of `trelm-hostsim run` itself. env and timeout use the same ones, so scripts
// can distinguish them from those of a command.
#pragma once

namespace hostsim {

inline constexpr int kLauncherFailed = 125;
inline constexpr int kCannotExecute = 126;
inline constexpr int kNotFound = 127;
inline constexpr int kSignalled = 128;  // plus the number of the signal that ended the command

}  // namespace hostsim
