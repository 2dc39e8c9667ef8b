// log_capture.h - what the library writes to standard error, by lines. While a capture lives, standard error
// of this process and of its children goes into a file of memory; what a failed test captured is shown when
// the capture goes.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "trelm_core.h"
#include "trelm_dbg.h"

namespace trelm::test {

inline constexpr uint32_t kSilent = 0;
inline constexpr uint32_t kErrorLines = 4;
inline constexpr uint32_t kAllLines = 6;

// Sets the debug flags as a user does, in the environment, where every load and open reads them again.
inline void set_debug_flags(uint32_t flags) {
    char text[16];
    snprintf(text, sizeof text, "%x", flags);
    setenv("TRELM_API_DEBUG", text, 1);
    trelm_set_debug_level();
}

inline std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

class LogCapture {
  public:
    // Needs a host: its semaphores guard the log.
    explicit LogCapture(uint32_t flags = kAllLines)
        : file_(memfd_create("log", MFD_CLOEXEC)), stderr_(dup(2)) {
        dup2(file_, 2);
        set_debug_flags(flags);
    }
    ~LogCapture() {
        set_debug_flags(kSilent);
        dup2(stderr_, 2);
        close(stderr_);
        if (::testing::Test::HasFailure()) fputs(all().c_str(), stderr);
        close(file_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // All that was written so far, as it is.
    std::string all() const {
        std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_CUR)), '\0');
        text.resize(static_cast<size_t>(pread(file_, text.data(), text.size(), 0)));
        return text;
    }
    // What was written since the last take.
    std::string take_text() {
        std::string text = all().substr(taken_);
        taken_ += text.size();
        return text;
    }
    std::vector<std::string> take() { return split_lines(take_text()); }
    // Of those, the lines of one function: what stands before the first ':' or '('.
    std::vector<std::string> take_of(std::string_view function) { return take_of({function}); }
    std::vector<std::string> take_of(std::initializer_list<std::string_view> functions) {
        std::vector<std::string> kept;
        for (std::string& line : take()) {
            const std::string name = line.substr(0, line.find_first_of(":("));
            for (std::string_view function : functions) {
                if (name == function) kept.push_back(std::move(line));
            }
        }
        return kept;
    }

  private:
    int file_;
    int stderr_;
    size_t taken_ = 0;
};

}  // namespace trelm::test
