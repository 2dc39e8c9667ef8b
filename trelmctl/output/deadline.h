// deadline.h - a time limit for commands whose driver or device does not answer.
#pragma once

namespace trelmctl {

// After this many seconds, ends the process with the exit status of a failure and a message: as JSON on
// standard output, or as text on standard error. The library cannot abort a request, so it is not freed. The
// data that it shares with other processes tolerates that.
void set_deadline(double seconds, bool json);

}  // namespace trelmctl
