// The pool of request memory. The block that was returned last is taken first. A request returns its payload
// before its record. Each block thus keeps its role, and most of a large record is never touched, because
// only its beginning is used.
//
// The blocks in a cell belong to its thread alone, so plain reads and writes suffice. A signal handler that
// uses the library may run between two of them. It finds a block kept, and returns it before it ends, or
// finds it taken.

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

// The blocks of one size that the calling thread keeps; null if it has no cell.
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
    // AddressSanitizer cannot see how much of a kept block its user may access.
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
