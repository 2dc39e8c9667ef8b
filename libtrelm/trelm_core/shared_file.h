// shared_file.h - opening the file of the shared database.
#pragma once

namespace trelm::detail {

// Opens the shared file. Creates it if it is missing, extends it if it is too small, and replaces that of
// another user. Returns the descriptor or -1. `func_name` begins its log messages.
int open_shared_file(const char* func_name, const char* path);

}  // namespace trelm::detail
