// exit_status.h - exit statuses of `trelm-hostsim run` that are not the command's own. They are those of env
// and timeout, which scripts know to tell from a command's.
#pragma once

namespace hostsim {

inline constexpr int kLauncherFailed = 125;
inline constexpr int kCannotExecute = 126;
inline constexpr int kNotFound = 127;
inline constexpr int kSignalled = 128;  // and the number of the signal that ended the command

}  // namespace hostsim
