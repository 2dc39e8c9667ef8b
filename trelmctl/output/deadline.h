// deadline.h - an end for a command whose driver or device does not answer.
#pragma once

namespace trelmctl {

// Ends the process with the status of a failure after so many seconds, and says so: in JSON, or on standard error.
// The library cannot give up a request, so it is left as it is; what it shares with other processes stands that.
void set_deadline(double seconds, bool json);

}  // namespace trelmctl
