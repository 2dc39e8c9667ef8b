// The pool of request memory: of each size two slots, one for each block of a request. Slots change hands
// atomically, so that two threads that use the library at once (which they should not) never share a block.
//
// What was given back last is taken first. A request gives its payload back before its record, of which, when
// it is large, only the beginning is ever used: so each block keeps its part, and most of the record's is
// never touched.

#include "trelm_pool.h"

#include <cstdlib>

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace {

constexpr size_t kSlots = 2;

struct Blocks {
    size_t size;
    void* slots[kSlots];
};
Blocks kept[] = {{trelm::detail::kSmallBlock, {}}, {trelm::detail::kLargeBlock, {}}};

Blocks& blocks_for(size_t bytes) { return kept[bytes > trelm::detail::kSmallBlock]; }

void* take_kept(Blocks& blocks) {
    for (size_t i = kSlots; i-- > 0;) {
        if (!__atomic_load_n(&blocks.slots[i], __ATOMIC_RELAXED)) continue;
        if (void* block = __atomic_exchange_n(&blocks.slots[i], nullptr, __ATOMIC_ACQ_REL)) return block;
    }
    return nullptr;
}

bool keep(Blocks& blocks, void* block) {
    for (void*& slot : blocks.slots) {
        void* none = nullptr;
        if (!__atomic_load_n(&slot, __ATOMIC_RELAXED) &&
            __atomic_compare_exchange_n(&slot, &none, block, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return true;
    }
    return false;
}

}  // namespace

void* trelm::detail::pool_take(size_t bytes, bool* cleared) {
    Blocks& blocks = blocks_for(bytes);
    void* block = take_kept(blocks);
    const bool zeroed = !block && cleared && blocks.size == kLargeBlock;
    if (cleared) *cleared = zeroed;
    if (!block) block = zeroed ? calloc(1, blocks.size) : malloc(blocks.size);
    // A kept block hides from AddressSanitizer who may use how much of it.
    if (block) {
        ASAN_POISON_MEMORY_REGION(block, blocks.size);
        ASAN_UNPOISON_MEMORY_REGION(block, bytes);
    }
    return block;
}

void trelm::detail::pool_give_back(void* block, size_t bytes) {
    Blocks& blocks = blocks_for(bytes);
    ASAN_POISON_MEMORY_REGION(block, blocks.size);
    if (!keep(blocks, block)) free(block);
}

void trelm::detail::pool_empty() {
    for (Blocks& blocks : kept) {
        for (void*& slot : blocks.slots) free(__atomic_exchange_n(&slot, nullptr, __ATOMIC_ACQ_REL));
    }
}
