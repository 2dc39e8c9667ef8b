// block_store.cpp - contents are split into pieces of a fixed size: files of at most 1 TiB, or pages of
// memory. A piece is created by the first write into it.
#include "block_store.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "keep_errno.h"
#include "own_calls.h"
#include "sparse_file.h"

namespace hostsim {

namespace {

// A range of bytes that lies within one piece of the contents, and where its bytes begin in the request's
// data.
struct Range {
    uint64_t piece;
    uint64_t offset;
    size_t data_at;
    size_t size;
};

// Calls `move` for each range of a request in turn and returns the bytes moved, up to the first range that
// fails.
template <typename Move>
size_t for_ranges(uint64_t first, size_t size, uint32_t block_size, uint64_t piece_bytes, const Move& move) {
    const uint64_t blocks_per_piece = piece_bytes / block_size;
    Range range{first / blocks_per_piece, first % blocks_per_piece * block_size, 0, 0};
    while (range.data_at < size) {
        range.size =
            static_cast<size_t>(std::min<uint64_t>(size - range.data_at, piece_bytes - range.offset));
        const size_t moved = move(range);
        if (moved < range.size) return range.data_at + moved;
        range = {range.piece + 1, 0, range.data_at + range.size, 0};
    }
    return size;
}

// The contents are files of the machine, not of the simulated host, and a device does not change errno.
struct DeviceAccess {
    OwnCalls own_calls;
    KeepErrno keep_errno;
};

class DirectoryStore final : public BlockStore {
  public:
    DirectoryStore(std::string directory, uint32_t block_size)
        : BlockStore(block_size), directory_(std::move(directory)) {}

  private:
    // Below the limit of all common file systems, and large enough that most LUNs are one file.
    static constexpr uint64_t kFileBytes = uint64_t{1} << 40;

    size_t do_read(uint64_t first, std::span<uint8_t> data) const override {
        const DeviceAccess access;
        return for_ranges(first, data.size(), block_size(), kFileBytes, [&](const Range& range) {
            return read_sparse(path(range.piece), range.offset, data.subspan(range.data_at, range.size));
        });
    }

    size_t do_write(uint64_t first, std::span<const uint8_t> data) override {
        const DeviceAccess access;
        std::error_code ignored;  // the write fails if there is no directory
        std::filesystem::create_directories(directory_, ignored);
        return for_ranges(first, data.size(), block_size(), kFileBytes, [&](const Range& range) {
            return write_sparse(path(range.piece), range.offset, data.subspan(range.data_at, range.size));
        });
    }

    std::string path(uint64_t piece) const { return directory_ + "/blocks-" + std::to_string(piece); }

    std::string directory_;
};

class MemoryStore final : public BlockStore {
  public:
    explicit MemoryStore(uint32_t block_size) : BlockStore(block_size) {}

  private:
    static constexpr uint64_t kPageBytes = 64 << 10;

    size_t do_read(uint64_t first, std::span<uint8_t> data) const override {
        const std::scoped_lock lock(mutex_);
        return for_ranges(first, data.size(), block_size(), kPageBytes, [&](const Range& range) {
            const auto page = pages_.find(range.piece);
            uint8_t* const to = data.data() + range.data_at;
            if (page == pages_.end()) {
                std::fill_n(to, range.size, uint8_t{0});
            } else {
                std::copy_n(page->second.data() + range.offset, range.size, to);
            }
            return range.size;
        });
    }

    size_t do_write(uint64_t first, std::span<const uint8_t> data) override {
        const std::scoped_lock lock(mutex_);
        return for_ranges(first, data.size(), block_size(), kPageBytes, [&](const Range& range) {
            const auto page = pages_.try_emplace(range.piece, kPageBytes).first;
            std::copy_n(data.data() + range.data_at, range.size, page->second.data() + range.offset);
            return range.size;
        });
    }

    mutable std::mutex mutex_;
    std::unordered_map<uint64_t, std::vector<uint8_t>> pages_;
};

}  // namespace

// A failed allocation counts as a medium error before the first byte.
size_t BlockStore::read(uint64_t first, std::span<uint8_t> data) const noexcept try {
    return do_read(first, data);
} catch (const std::exception&) {
    return 0;
}

size_t BlockStore::write(uint64_t first, std::span<const uint8_t> data) noexcept try {
    return do_write(first, data);
} catch (const std::exception&) {
    return 0;
}

std::shared_ptr<BlockStore> directory_store(std::string directory, uint32_t block_size) {
    return std::make_shared<DirectoryStore>(std::move(directory), block_size);
}

std::shared_ptr<BlockStore> memory_store(uint32_t block_size) {
    return std::make_shared<MemoryStore>(block_size);
}

}  // namespace hostsim
