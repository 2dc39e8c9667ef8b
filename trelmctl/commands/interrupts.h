// interrupts.h - waiting in commands that run until the user ends them.
#pragma once

namespace trelmctl {

// From here on an interrupt ends a wait, not the process, so that the library is left in order.
void catch_interrupts();

// From here on a change of the terminal's size ends a wait, too.
void wake_on_resize();

// Whether the user has ended the command.
bool interrupted();

// Ends early where a signal ends it.
void wait_for(double seconds);

}  // namespace trelmctl
