// host_file_report.h - reports a mistake that an edit puts into the file of a running host, and its
// correction.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <tuple>

namespace hostsim {

class HostFileReport {
  public:
    // Construct it before the file is read for the first time.
    explicit HostFileReport(std::filesystem::path file);

    // Call it a few times per second. Writes to standard error once when the file becomes faulty, and once
    // when it is sound again.
    void look() noexcept;

  private:
    // Identifies a version of the file without reading it; empty if there is no file.
    using Stamp = std::optional<std::tuple<dev_t, ino_t, off_t, time_t, long>>;
    Stamp stamp() const noexcept;

    std::filesystem::path file_;
    Stamp seen_ = stamp();
    Stamp judged_ = seen_;
    bool is_sound_ = true;
};

}  // namespace hostsim
