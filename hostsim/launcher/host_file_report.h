// host_file_report.h - tells the person who edits the file of a running host that the host does not follow it
// any more, and when it does again.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <tuple>

namespace hostsim {

class HostFileReport {
  public:
    // To be made before the file is read for the first time.
    explicit HostFileReport(std::filesystem::path file);

    // To be called a few times a second. Says on standard error when the file breaks and when it is sound
    // again, each once.
    void look() noexcept;

  private:
    // What tells one version of a file from another without reading it; nothing where there is no file.
    using Stamp = std::optional<std::tuple<dev_t, ino_t, off_t, time_t, long>>;
    Stamp stamp() const noexcept;

    std::filesystem::path file_;
    Stamp seen_ = stamp();
    Stamp judged_ = seen_;
    bool is_sound_ = true;
};

}  // namespace hostsim
