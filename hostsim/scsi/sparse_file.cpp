// sparse_file.cpp - the file system calls for contents of LUNs.
#include "sparse_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "descriptor.h"

namespace hostsim {

namespace {

Descriptor open_file(const std::string& path, int flags) {
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC, 0666));
}

// Repeats a call until everything is moved, nothing is moved, or it fails.
template <typename Call>
size_t move_all(size_t size, bool& failed, const Call& call) {
    size_t done = 0;
    while (done < size) {
        const ssize_t moved = call(done);
        if (moved < 0 && errno == EINTR) continue;
        failed = moved < 0;
        if (moved <= 0) break;
        done += static_cast<size_t>(moved);
    }
    return done;
}

}  // namespace

size_t read_sparse(const std::string& path, uint64_t offset, std::span<uint8_t> data) {
    bool failed = false;
    size_t done = 0;
    if (const Descriptor file = open_file(path, O_RDONLY); file) {
        done = move_all(data.size(), failed, [&](size_t at) {
            return ::pread(file.get(), data.data() + at, data.size() - at, static_cast<off_t>(offset + at));
        });
    } else {
        failed = errno != ENOENT;
    }
    if (failed) return done;
    std::fill(data.begin() + static_cast<std::ptrdiff_t>(done), data.end(), uint8_t{0});
    return data.size();
}

size_t write_sparse(const std::string& path, uint64_t offset, std::span<const uint8_t> data) {
    bool failed = false;
    const Descriptor file = open_file(path, O_WRONLY | O_CREAT);
    if (!file) return 0;
    return move_all(data.size(), failed, [&](size_t at) {
        return ::pwrite(file.get(), data.data() + at, data.size() - at, static_cast<off_t>(offset + at));
    });
}

}  // namespace hostsim
