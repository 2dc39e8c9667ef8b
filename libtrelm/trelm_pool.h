// trelm_pool.h - large request buffers. A SCSI command to a native driver takes two blocks of a quarter of a
// megabyte; given back to the C allocator each time, they cost more in page faults than the command itself.
// So a block that is given back is kept for the next request, up to a bound, and all of them are freed when
// the library is.
#pragma once

#include <cstddef>

#include "trelm_driver_records.h"
#include "trelm_owners.h"

namespace trelm {

inline constexpr size_t kPoolBlock = sizeof(kronfc_scsi_cmd_cb);

// A block with whatever its last user left in it, or zero-filled when it is `fresh`; null when memory is
// exhausted.
void* pool_take(bool& fresh);
void pool_give_back(void* block);
// Frees the blocks that are kept.
void pool_empty();

template <class T>
void give_back(T* memory) {
    pool_give_back(memory);
}

// A block as a record of type T, at most kPoolBlock bytes.
template <class T>
class Pooled : public Owner<T*, nullptr, give_back<T>> {
    static_assert(sizeof(T) <= kPoolBlock);

  public:
    Pooled() { this->reset(static_cast<T*>(pool_take(fresh_))); }
    // All zeros already.
    bool fresh() const { return fresh_; }

  private:
    bool fresh_ = false;
};

}  // namespace trelm
