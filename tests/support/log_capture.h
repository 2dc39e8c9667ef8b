// log_capture.h - the lines that the library writes to standard error. While a capture lives, standard error
// of this process and its children goes to a file in memory. If the test fails, the captured lines are shown.
#pragma once

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sstream>

#include "host.h"
#include "host_builders.h"
#include "trelm_core.h"
#include "trelm_dbg.h"

namespace trelm::test {

using Lines = std::vector<std::string>;
using testing::ElementsAre;

inline constexpr uint32_t kSilent = 0, kTraceLines = 2, kErrorLines = 4, kAllLines = 6;

// Sets the debug flags in the environment, as a user does. Every load and open reads them again.
inline void set_debug_flags(uint32_t flags) {
    setenv("TRELM_API_DEBUG", std::to_string(flags).c_str(), 1);
    trelm_set_debug_level();
}

class LogCapture {
  public:
    // Needs a host, because semaphores of the host guard the log.
    explicit LogCapture(uint32_t flags = kAllLines)
        : file_(memfd_create("log", MFD_CLOEXEC)), stderr_(dup(2)) {
        dup2(file_, 2);
        set_debug_flags(flags);
    }
    ~LogCapture() {
        set_debug_flags(kSilent);
        dup2(stderr_, 2);
        close(stderr_);
        taken_ = 0;
        if (::testing::Test::HasFailure()) fputs(take_text().c_str(), stderr);
        close(file_);
    }
    LogCapture(LogCapture&&) = delete;

    // The lines since the last take.
    std::string take_text() {
        std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_CUR) - taken_), '\0');
        taken_ += pread(file_, text.data(), text.size(), taken_);
        return text;
    }
    Lines take() {
        Lines lines;
        std::istringstream stream(take_text());
        for (std::string line; std::getline(stream, line);) lines.push_back(line);
        return lines;
    }

  private:
    int file_;
    int stderr_;
    off_t taken_ = 0;
};

}  // namespace trelm::test
