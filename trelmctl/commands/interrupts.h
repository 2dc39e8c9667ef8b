// interrupts.h - waiting in commands that run until the user ends them.
#pragma once

namespace trelmctl {

// From here on an interrupt ends a wait, not the process, so that the library is left in order.
void catch_interrupts();

// Whether the user has ended the command.
bool interrupted();

// Ends early when the user interrupts it or the size of the terminal changes.
void wait_for(double seconds);

}  // namespace trelmctl
