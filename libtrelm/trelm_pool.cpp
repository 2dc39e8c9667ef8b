// The pool of large request buffers: two slots, one for each block of a command. Slots change hands
// atomically, so that two threads that use the library at once (which they should not) never share a block.
//
// What was given back last is taken first. A command gives its payload back before its record, of which only
// the beginning is ever used: so each block keeps its part, and most of the record's is never touched.

#include "trelm_pool.h"

#include <cstdlib>

namespace {

constexpr size_t kSlots = 2;
void* slots[kSlots];

}  // namespace

void* trelm::pool_take(bool& fresh) {
    for (size_t i = kSlots; i-- > 0;) {
        if (void* block = __atomic_exchange_n(&slots[i], nullptr, __ATOMIC_ACQ_REL)) {
            fresh = false;
            return block;
        }
    }
    fresh = true;
    return calloc(1, kPoolBlock);
}

void trelm::pool_give_back(void* block) {
    for (void*& slot : slots) {
        void* none = nullptr;
        if (__atomic_compare_exchange_n(&slot, &none, block, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return;
    }
    free(block);
}

void trelm::pool_empty() {
    for (void*& slot : slots) free(__atomic_exchange_n(&slot, nullptr, __ATOMIC_ACQ_REL));
}
