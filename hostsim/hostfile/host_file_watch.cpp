// host_file_watch.cpp - looks at the file's status before each driver call and reads it only when that has
// changed.
#include "host_file_watch.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <system_error>

#include "host_error.h"
#include "host_file.h"

namespace hostsim {
namespace {

std::string read_text(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw HostError(path.string() + ": the last sound version of the host file is not there");
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Puts the copy in place as a whole, because other processes read it at any time. Failing leaves the older
// copy.
void replace_copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::error_code ignored;
    const std::filesystem::path fresh = fmt::format("{}.{}", to.string(), getpid());
    std::filesystem::copy_file(from, fresh, std::filesystem::copy_options::overwrite_existing, ignored);
    if (!ignored) std::filesystem::rename(fresh, to, ignored);
}

}  // namespace

Model HostFileWatch::read() {
    seen_ = stamp();
    try {
        return read_and_keep();
    } catch (const HostError&) {
        if (!std::filesystem::exists(last_sound_)) throw;
    }
    return parse_host(read_text(last_sound_), last_sound_.string(), file_.parent_path());
}

std::optional<Model> HostFileWatch::poll() noexcept {
    try {
        const auto now = stamp();
        if (!now || now == seen_) return std::nullopt;
        seen_ = now;
        return read_and_keep();
    } catch (const std::exception&) {
        return std::nullopt;  // a file that is broken for the moment leaves the host as it is
    }
}

Model HostFileWatch::read_and_keep() {
    Model model = read_host_file(file_);
    replace_copy(file_, last_sound_);
    return model;
}

std::optional<HostFileWatch::Stamp> HostFileWatch::stamp() const {
    struct stat status {};
    if (stat(file_.c_str(), &status) != 0) return std::nullopt;
    return Stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

}  // namespace hostsim
