#include "text_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "text.h"

namespace trelmctl::metrics {
namespace {

[[noreturn]] void fail(const std::string& path, const char* why) {
    Failure failure = tool_failure("OUTPUT", fmt::format("{} cannot be replaced: {}", escaped(path), why),
                                   "name a file in a directory that exists and that you may write to");
    failure.operation = "writing the metrics";
    throw CommandFailed(std::move(failure));
}
[[noreturn]] void fail(const std::string& path, int error) { fail(path, std::strerror(error)); }

// A new file in the same directory as the one that it will replace. The destructor removes it unless
// take_place() succeeded. Its name has another suffix, and collectors, which select by suffix, ignore it.
class NewFile {
  public:
    explicit NewFile(const std::string& path) : path_(path), name_(path + ".XXXXXX") {
        fd_ = mkostemp(name_.data(), O_CLOEXEC);
        if (fd_ == -1) fail(path_, errno);
    }
    ~NewFile() {
        if (fd_ == -1) return;
        close(fd_);
        unlink(name_.c_str());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(std::string_view text) const {
        while (!text.empty()) {
            const ssize_t written = ::write(fd_, text.data(), text.size());
            if (written == -1 && errno == EINTR) continue;
            if (written == -1) fail(path_, errno);
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }
    void take_place() {
        constexpr mode_t kReadableByAll = 0644;
        if (fchmod(fd_, kReadableByAll) != 0 || fsync(fd_) != 0) fail(path_, errno);
        if (rename(name_.c_str(), path_.c_str()) != 0) fail(path_, errno);
        close(fd_);
        fd_ = -1;
    }

  private:
    const std::string& path_;
    std::string name_;
    int fd_;
};

}  // namespace

void replace_file(const std::string& path, std::string_view text) {
    struct stat there {};
    if (lstat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) fail(path, "it is not a regular file");
    NewFile file(path);
    file.write(text);
    file.take_place();
}

}  // namespace trelmctl::metrics
