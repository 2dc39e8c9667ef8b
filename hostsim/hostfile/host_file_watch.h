// host_file_watch.h - follows a host file while the host runs. The last sound version is kept beside the
// host's state, so that a process that starts while the file is being edited finds a host all the same.
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
    // `last_sound` is where the copy of the last sound version lies.
    HostFileWatch(std::filesystem::path file, std::filesystem::path last_sound)
        : file_(std::move(file)), last_sound_(std::move(last_sound)) {}

    // The host as the file says, or as its last sound version did. HostError when there is neither.
    Model read();

    // The changed host if the file has changed and is sound.
    std::optional<Model> poll() noexcept;

  private:
    // What tells one version of a file from another without reading it.
    using Stamp = std::tuple<dev_t, ino_t, off_t, int64_t, int64_t>;

    std::optional<Stamp> stamp() const;
    Model read_and_keep();

    std::filesystem::path file_;
    std::filesystem::path last_sound_;
    std::optional<Stamp> seen_;
};

}  // namespace hostsim
