// block_store.h - the contents of a simulated LUN, of any size. Only what was written takes memory or disk
// space; other blocks read as zeros. Blocks are addressed by number, because byte offsets of the largest
// devices need more than 64 bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "hostsim_api.h"

namespace hostsim {

class HOSTSIM_API BlockStore {
  public:
    virtual ~BlockStore() = default;

    // Move bytes from or to the blocks that begin with `first`; the last block may be moved in part. They
    // return the number of bytes moved. A smaller number than requested means that the medium failed there.
    // They do not throw.
    size_t read(uint64_t first, std::span<uint8_t> data) const noexcept;
    size_t write(uint64_t first, std::span<const uint8_t> data) noexcept;

  protected:
    explicit BlockStore(uint32_t block_size) : block_size_(block_size) {}
    uint32_t block_size() const { return block_size_; }

  private:
    virtual size_t do_read(uint64_t first, std::span<uint8_t> data) const = 0;
    virtual size_t do_write(uint64_t first, std::span<const uint8_t> data) = 0;

    uint32_t block_size_;
};

// Contents in sparse files below `directory`, which the first write creates. Nothing is cached and no
// descriptor stays open: every store on one directory, in any process, sees what the others wrote.
HOSTSIM_API std::shared_ptr<BlockStore> directory_store(std::string directory, uint32_t block_size);

// Contents in the memory of this process.
HOSTSIM_API std::shared_ptr<BlockStore> memory_store(uint32_t block_size);

}  // namespace hostsim
