// interrupts.h - signals and waits in commands that run until the user ends them.
#pragma once

namespace trelmctl {

// From now on an interrupt ends a wait instead of the process, so that the library can be freed.
void catch_interrupts();

// From now on a change of the terminal's size also ends a wait.
void wake_on_resize();

// Whether the user has ended the command.
bool interrupted();

// Returns early if a signal arrives.
void wait_for(double seconds);

}  // namespace trelmctl
