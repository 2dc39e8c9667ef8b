// interrupts.h - waiting in commands that run until the user ends them.
#pragma once

namespace trelmctl {

// From now on an interrupt ends a wait and not the process, so that the library can be freed.
void catch_interrupts();

// From now on a change of the size of the terminal ends a wait too.
void wake_on_resize();

// Whether the user has ended the command.
bool interrupted();

// Returns early if a signal arrives.
void wait_for(double seconds);

}  // namespace trelmctl
