// abuse.h - what others may have put where the library's shared file and semaphores belong.
#pragma once

namespace trelm::soak {

// Puts each of these things there, has one process load the library, and says what went wrong. How many there
// were.
unsigned run_abuses();

}  // namespace trelm::soak
