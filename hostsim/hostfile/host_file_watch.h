// host_file_watch.h - follows a host file while the host runs. A copy of the last valid version is kept with
// the state of the host, so that a process that starts while the file is being edited still gets a host.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

#include "model.h"

namespace hostsim {

class HostFileWatch {
  public:
    // `last_sound` is the path of the copy.
    HostFileWatch(std::filesystem::path file, std::filesystem::path last_sound)
        : file_(std::move(file)), last_sound_(std::move(last_sound)) {}

    // The host from the file, or from its last valid version. Throws HostError if there is neither.
    Model read();

    // The changed host if the file has changed and is valid.
    std::optional<Model> poll() noexcept;

  private:
    // Identifies a version of a file without reading it.
    using Stamp = std::tuple<dev_t, ino_t, off_t, int64_t, int64_t>;

    std::optional<Stamp> stamp() const;
    Model read_and_keep();

    std::filesystem::path file_;
    std::filesystem::path last_sound_;
    std::optional<Stamp> seen_;
};

}  // namespace hostsim
