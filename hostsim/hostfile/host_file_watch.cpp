// host_file_watch.cpp - checks the file's status before each driver call and reads the file only if it has
// changed.
#include "host_file_watch.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

#include "file_text.h"
#include "host_error.h"
#include "host_file.h"

namespace hostsim {
namespace {

// Replaces the copy as a whole, because other processes may read it at any time. If that fails, the older
// copy remains.
void replace_copy(const std::string& text, const std::filesystem::path& copy) {
    const std::filesystem::path fresh = fmt::format("{}.{}", copy.string(), getpid());
    std::ofstream stream(fresh, std::ios::binary);
    stream << text;
    stream.close();
    std::error_code ignored;
    if (stream) std::filesystem::rename(fresh, copy, ignored);
}

}  // namespace

Model HostFileWatch::read() {
    seen_ = stamp();
    try {
        return read_and_keep();
    } catch (const HostError&) {
        if (!std::filesystem::exists(last_sound_)) throw;
    }
    return parse_host(file_text(last_sound_), last_sound_.string(), file_.parent_path());
}

std::optional<Model> HostFileWatch::poll() noexcept {
    try {
        const auto now = stamp();
        if (!now || now == seen_) return std::nullopt;
        seen_ = now;
        return read_and_keep();
    } catch (const std::exception&) {
        return std::nullopt;  // the host stays as it is while the file has mistakes
    }
}

Model HostFileWatch::read_and_keep() {
    const std::string text = file_text(file_);
    Model model = parse_host(text, file_.string(), file_.parent_path());
    replace_copy(text, last_sound_);
    return model;
}

std::optional<HostFileWatch::Stamp> HostFileWatch::stamp() const {
    struct stat status {};
    if (stat(file_.c_str(), &status) != 0) return std::nullopt;
    return Stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

}  // namespace hostsim
