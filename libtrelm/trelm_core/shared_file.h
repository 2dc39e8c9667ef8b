// shared_file.h - opening the file of the shared database.
#pragma once

namespace trelm::detail {

// Opens the shared file, creates it where it is missing, grows it where it is too small, and replaces another user's. The
// descriptor, or -1. `func_name` is what its messages carry.
int open_shared_file(const char* func_name, const char* path);

}  // namespace trelm::detail
