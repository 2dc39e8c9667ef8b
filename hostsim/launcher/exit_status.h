// exit_status.h - what `trelm-hostsim run` ends with where it is not the command's own status. A script can tell
// these from most commands' statuses; env and timeout use the same.
#pragma once

namespace hostsim {

inline constexpr int kLauncherFailed = 125;
inline constexpr int kCannotExecute = 126;
inline constexpr int kNotFound = 127;
inline constexpr int kSignalled = 128;  // and the number of the signal that ended the command

}  // namespace hostsim
