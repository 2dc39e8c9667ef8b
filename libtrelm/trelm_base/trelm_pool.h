// trelm_pool.h - memory for requests. A SCSI command to a native driver takes two blocks of a quarter of a
// megabyte. If they were returned to the C allocator each time, page faults would cost more than the command
// itself. A request for counters takes two blocks of half a kilobyte, and allocating these costs as much as
// the rest of the library's part. So each thread keeps the blocks that its calls return, at most two of
// either size, until the library is freed.
#pragma once

#include <cstddef>

#include "trelm_driver_records.h"

namespace trelm::detail {

inline constexpr size_t kSmallBlock = sizeof(native_cb_header) + sizeof(kronfc_port_stats);
inline constexpr size_t kLargeBlock = sizeof(kronfc_scsi_cmd_cb);

// At least `bytes` bytes, at most kLargeBlock, or null if memory is exhausted. The block holds what its last
// user left there; `cleared` tells whether it is known to be zero, as large fresh memory is.
void* pool_take(size_t bytes, bool* cleared = nullptr);
// `bytes` is the number that was asked for.
void pool_give_back(void* block, size_t bytes);
// Frees the kept blocks. No other thread may be in the library.
void pool_empty();

// Pool memory for one request.
template <class T>
class Pooled {
    static_assert(sizeof(T) <= kLargeBlock);

  public:
    Pooled() : memory_(static_cast<T*>(pool_take(sizeof(T), &cleared_))) {}
    ~Pooled() {
        if (memory_) pool_give_back(memory_, sizeof(T));
    }
    Pooled(const Pooled&) = delete;
    Pooled& operator=(const Pooled&) = delete;

    explicit operator bool() const { return memory_; }
    T* get() const { return memory_; }
    T* operator->() const { return memory_; }
    bool cleared() const { return cleared_; }

  private:
    bool cleared_ = false;
    T* memory_;
};

}  // namespace trelm::detail
