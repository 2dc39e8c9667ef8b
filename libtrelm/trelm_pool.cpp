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

using trelm::detail::kLargeBlock;
using trelm::detail::kSmallBlock;
using trelm::detail::ThreadCell;

constexpr size_t kKept = 2;  // of either size: as many as a request takes

// Where the calling thread keeps blocks of one size; nowhere, where it has no cell.
struct Shelf {
    size_t block_size;
    void** begin;
    void** end;
};

Shelf shelf_for(size_t bytes) {
    const bool large = bytes > kSmallBlock;
    const size_t block_size = large ? kLargeBlock : kSmallBlock;
    ThreadCell* const cell = trelm::detail::my_cell;
    if (!cell) return {block_size, nullptr, nullptr};
    void** const begin = large ? cell->large_blocks : cell->small_blocks;
    return {block_size, begin, begin + kKept};
}

void* take_kept(const Shelf& shelf) {
    for (void** kept = shelf.end; kept != shelf.begin;) {
        void* const block = *--kept;
        *kept = nullptr;
        if (block) return block;
    }
    return nullptr;
}

bool keep(const Shelf& shelf, void* block) {
    for (void** kept = shelf.begin; kept != shelf.end; ++kept) {
        if (*kept) continue;
        *kept = block;
        return true;
    }
    return false;
}

void release(void*& block) {
    free(block);
    block = nullptr;
}

}  // namespace

void* trelm::detail::pool_take(size_t bytes, bool* cleared) {
    const Shelf shelf = shelf_for(bytes);
    void* block = take_kept(shelf);
    const bool zeroed = !block && cleared && shelf.block_size == kLargeBlock;
    if (cleared) *cleared = zeroed;
    if (!block) block = zeroed ? calloc(1, shelf.block_size) : malloc(shelf.block_size);
    // A kept block hides from AddressSanitizer who may use how much of it.
    if (block) {
        ASAN_POISON_MEMORY_REGION(block, shelf.block_size);
        ASAN_UNPOISON_MEMORY_REGION(block, bytes);
    }
    return block;
}

void trelm::detail::pool_give_back(void* block, size_t bytes) {
    const Shelf shelf = shelf_for(bytes);
    ASAN_POISON_MEMORY_REGION(block, shelf.block_size);
    if (!keep(shelf, block)) free(block);
}

void trelm::detail::pool_empty() {
    for (ThreadCell* cell = first_cell(); cell != end_of_cells(); ++cell) {
        for (void*& block : cell->small_blocks) release(block);
        for (void*& block : cell->large_blocks) release(block);
    }
}
