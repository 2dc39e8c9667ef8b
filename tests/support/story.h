// story.h - a story of calls for a golden file: each call, its result and its log lines. A test tells its
// story once with trace lines only and once with error lines only, so the files also hold the category of
// each line. Numbers should be large enough to show their base.
#pragma once

#include <fmt/format.h>

#include <functional>

#include "descriptors.h"
#include "golden.h"
#include "log_capture.h"
#include "places.h"

namespace trelm::test {

inline std::string category(uint32_t flags) { return flags == kTraceLines ? "_trace" : "_error"; }

class Story {
  public:
    explicit Story(uint32_t flags) : flags_(flags), log_(flags) {}

    void tell(const std::string& text, const std::function<uint32_t()>& call) {
        const uint32_t result = call();
        text_ += fmt::format("# {} = {:#x}\n", text, result);
        static const Pattern set("sem_id=[0-9]+$");  // the number differs between runs
        for (const std::string& line : log_.take()) {
            if (!hides || !hides(line)) text_ += set.replaced_in(line, "sem_id=<id>") + "\n";
        }
    }
    // Forgets the lines since the last call that was told.
    void skip() { log_.take(); }
    // Compares the story with golden/NAME_trace.txt or golden/NAME_error.txt.
    void expect_golden(const std::string& name) const {
        test::expect_golden(source_dir() + "/tests/libtrelm/golden/" + name + category(flags_) + ".txt",
                            text_);
    }

    std::function<bool(const std::string&)> hides;  // lines that are left out

  private:
    const uint32_t flags_;
    LogCapture log_;
    const HighDescriptors high_;
    std::string text_;
};

// Tells a call of a fixture with a `story`. The call is its own text.
#define TELL(...) story.tell(#__VA_ARGS__, [&] { return static_cast<uint32_t>(__VA_ARGS__); })

// A test that tells a story in each category of lines.
class GoldenStory : public testing::TestWithParam<uint32_t> {
  protected:
    // Needs a host, because semaphores of the host guard the log.
    hostsim::Host host{hostsim::hosts::empty()};
    Story story{GetParam()};
};

#define TRELM_IN_EACH_CATEGORY(fixture)                                              \
    INSTANTIATE_TEST_SUITE_P(, fixture, ::testing::Values(kTraceLines, kErrorLines), \
                             [](const auto& flags) { return "in" + category(flags.param); })

}  // namespace trelm::test
