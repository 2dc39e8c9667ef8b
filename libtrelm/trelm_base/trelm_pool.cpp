// The pool of request memory. What was given back last is taken first: a request gives its payload back before
// its record, of which, when it is large, only the beginning is ever used. So each block keeps its part, and
// most of the record's is never touched.
//
// The blocks that a cell keeps are its thread's alone, so taking one and giving it back are plain reads and
// writes. A signal handler that uses the library may come between two of them. It finds a block either kept,
// and has given it back when it returns, or taken.

#include "trelm_pool.h"

#include <cstdlib>

#include "trelm_gate.h"

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace {

using trelm::detail::ThreadCell;

// What the calling thread keeps of one size; nothing, where it has no cell.
ThreadCell::Blocks* kept_blocks(bool large) {
    ThreadCell* const cell = trelm::detail::my_cell;
    return cell ? &cell->blocks[large] : nullptr;
}

void* take(void*& kept) {
    void* const block = kept;
    kept = nullptr;
    return block;
}

void* take_kept(bool large) {
    ThreadCell::Blocks* const kept = kept_blocks(large);
    if (!kept) return nullptr;
    return kept->second ? take(kept->second) : take(kept->first);
}

bool keep(void* block, bool large) {
    ThreadCell::Blocks* const kept = kept_blocks(large);
    if (!kept || kept->second) return false;
    (kept->first ? kept->second : kept->first) = block;
    return true;
}

void release(void*& block) {
    free(block);
    block = nullptr;
}

}  // namespace

void* trelm::detail::pool_take(size_t bytes, bool* cleared) {
    const bool large = bytes > kSmallBlock;
    const size_t room = large ? kLargeBlock : kSmallBlock;
    void* block = take_kept(large);
    const bool zeroed = !block && cleared && large;
    if (cleared) *cleared = zeroed;
    if (!block) block = zeroed ? calloc(1, room) : malloc(room);
    // A kept block hides from AddressSanitizer who may use how much of it.
    if (block) {
        ASAN_POISON_MEMORY_REGION(block, room);
        ASAN_UNPOISON_MEMORY_REGION(block, bytes);
    }
    return block;
}

void trelm::detail::pool_give_back(void* block, size_t bytes) {
    const bool large = bytes > kSmallBlock;
    ASAN_POISON_MEMORY_REGION(block, large ? kLargeBlock : kSmallBlock);
    if (!keep(block, large)) free(block);
}

void trelm::detail::pool_empty() {
    for (ThreadCell* cell = first_cell(); cell != end_of_cells(); ++cell) {
        for (ThreadCell::Blocks& kept : cell->blocks) {
            release(kept.first);
            release(kept.second);
        }
    }
}
