// trelm_pool.h - memory for requests. A SCSI command to a native driver takes two blocks of a quarter of a
// megabyte; given back to the C allocator each time, they cost more in page faults than the command itself. A
// request for counters takes two of half a kilobyte, and to allocate and free those costs as much as the rest
// of the library's part. So each thread keeps the blocks that its calls give back, two of either size, and
// freeing the library frees them all.
#pragma once

#include <cstddef>

#include "trelm_driver_records.h"

namespace trelm::detail {

inline constexpr size_t kSmallBlock = sizeof(native_cb_header) + sizeof(kronfc_port_stats);
inline constexpr size_t kLargeBlock = sizeof(kronfc_scsi_cmd_cb);

// At least so many bytes, kLargeBlock at most, with whatever their last user left there; null when memory is
// exhausted. Who wants zeros is told whether they are there already, which for large fresh memory costs
// nothing more.
void* pool_take(size_t bytes, bool* cleared = nullptr);
// The same number of bytes as when they were taken.
void pool_give_back(void* block, size_t bytes);
// Frees the blocks that are kept. Nobody else may be in the library.
void pool_empty();

// Memory of the pool, for one request.
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
