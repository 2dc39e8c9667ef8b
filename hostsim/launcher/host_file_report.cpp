#include "host_file_report.h"

#include <sys/stat.h>

#include <string>

#include "complain.h"
#include "host_file.h"

namespace hostsim {

HostFileReport::HostFileReport(std::filesystem::path file) : file_(std::move(file)) {}

// Checks a version of the file only after seeing it twice, because an editor may still be writing.
void HostFileReport::look() noexcept {
    const Stamp now = stamp();
    const bool settled = now == seen_;
    seen_ = now;
    if (!settled || now == judged_) return;
    judged_ = now;
    const bool was_sound = is_sound_;
    try {
        read_host_file(file_);
        is_sound_ = true;
        if (!was_sound) complain(file_.string() + ": sound again; the host follows it");
    } catch (const std::exception& mistake) {
        is_sound_ = false;
        if (was_sound)
            complain(mistake.what() +
                     std::string("\nthe host stays as it was until the file is sound again"));
    }
}

HostFileReport::Stamp HostFileReport::stamp() const noexcept {
    struct stat status {};
    if (stat(file_.c_str(), &status) != 0) return std::nullopt;
    return std::tuple(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec);
}

}  // namespace hostsim
