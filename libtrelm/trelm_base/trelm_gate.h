// trelm_gate.h - admits calls of any number of threads at once and keeps conflicting operations apart. There
// are three kinds of visitor:
//
//   Call       a public function at work. Calls never wait for one another.
//   PortLock   an open or a close. At most one runs for each port.
//   Exclusive  a load or a free. It waits until all others are out, and admits nobody until it ends.
//
// Each thread has a cell, two cache lines of its own, where it notes that it is inside. To enter costs one
// atomic exchange in the cell and one read of a word that rarely changes. To leave costs a plain store. No
// call reads what another call writes, so calls do not slow each other down.
//
// The exported operations of the layers below (list, registry, transports, load and unload) do not pass
// through the gate. A program that calls them directly must keep other threads out of the library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace trelm::detail {

// The state of a thread in its cell: outside, or inside with these bits and the handle that the call is for.
inline constexpr uint64_t kOutside = 0;
inline constexpr uint64_t kInside = uint64_t{1} << 32;
inline constexpr uint64_t kUsesAnyPort = kInside << 1;  // nested calls for two handles
inline constexpr uint64_t kHasAll = kInside << 2;       // an Exclusive

// A thread's cell. It takes two cache lines, because processors fetch lines in pairs.
struct alignas(128) ThreadCell {
    uint64_t call;
    uint32_t taken;
    // Blocks that the pool keeps for the thread, small and large. They are stored first to second and taken
    // second to first.
    struct Blocks {
        void* first;
        void* second;
    } blocks[2];
};

// Null until the thread's first call, and while all cells are taken. Initial-exec: any other model would add
// the dynamic linker to the libraries that this one needs.
extern constinit thread_local ThreadCell* my_cell __attribute__((tls_model("initial-exec")));

struct alignas(128) GateState {
    uint32_t closed;    // id_of() of the cell whose thread has or wants the library alone; kOpen: none
    uint32_t threads;   // threads with a cell, and calls of threads without one
    uint32_t sleepers;  // threads that wait in the kernel
    uint32_t forks;     // number of forks since the library was loaded into memory
};
extern GateState gate;
inline constexpr uint32_t kOpen = 0;

// Wakes threads that wait in the kernel. A thread that leaves calls it if it sees sleepers.
void wake_sleepers();
inline void wake_if_needed() {
    if (__builtin_expect(__atomic_load_n(&gate.sleepers, __ATOMIC_RELAXED) != 0, 0)) wake_sleepers();
}

// The cells that were ever taken, as a range.
ThreadCell* first_cell();
ThreadCell* end_of_cells();

// Whether other threads may read the registry at the same time. The thread then leaves the cursors of the
// lists alone.
bool reads_registry();
inline bool shares_registry() {
    return __atomic_load_n(&gate.threads, __ATOMIC_RELAXED) > 1 && reads_registry();
}

class Call {
  public:
    // `handle` is given for a call that uses the node of a legacy port.
    [[gnu::always_inline]] explicit Call(uint32_t handle = 0) {
        ThreadCell* const cell = my_cell;
        if (__builtin_expect(cell && cell->call == kOutside, 1)) {
            cell_ = cell;
            __atomic_exchange_n(&cell->call, kInside | handle, __ATOMIC_SEQ_CST);
            if (__builtin_expect(__atomic_load_n(&gate.closed, __ATOMIC_SEQ_CST) == kOpen, 1)) return;
        }
        enter_slowly(kInside | handle);
    }
    [[gnu::always_inline]] ~Call() {
        if (__builtin_expect(cell_ != nullptr, 1)) {
            __atomic_store_n(&cell_->call, outer_, __ATOMIC_RELEASE);
        } else {
            leave_crowd();
        }
        wake_if_needed();
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // False in a signal handler that interrupted a load or a free in the same thread.
    explicit operator bool() const { return admitted_; }

    // For a call that is about to use the node of the port of `handle`. If a close waits for the users of the
    // node, this call steps outside until the close has ended, and the function returns true: the call must
    // look its port up again.
    bool made_way_for_close(uint32_t handle) {
        return __builtin_expect(is_closing(handle), 0) && make_way_for_close(handle);
    }

  private:
    static bool is_closing(uint32_t handle);
    bool make_way_for_close(uint32_t handle);
    void enter_slowly(uint64_t mark);
    void enter_crowd();
    void leave_crowd();

    ThreadCell* cell_ = nullptr;  // null: the thread got no cell and belongs to the crowd
    uint64_t outer_ = kOutside;   // state of the call that this one interrupted in a signal handler
    bool admitted_ = true;
};

class PortLock {
  public:
    explicit PortLock(uint32_t instance);
    ~PortLock();
    PortLock(const PortLock&) = delete;
    PortLock& operator=(const PortLock&) = delete;

    // False in a signal handler if the interrupted function of the same thread is in the way.
    explicit operator bool() const { return held_; }

    // Waits until nobody uses the node of the port of `handle`, and keeps others off it until the lock is
    // released. False if the call that was interrupted by this one uses it.
    bool expel_users(uint32_t handle);

  private:
    ThreadCell* cell_;
    uint32_t* word_;
    uint64_t outer_ = kOutside;
    bool held_ = false;
};

class Exclusive {
  public:
    Exclusive();
    ~Exclusive();
    Exclusive(const Exclusive&) = delete;
    Exclusive& operator=(const Exclusive&) = delete;

    // False in a signal handler that interrupted a call of the same thread.
    explicit operator bool() const { return held_; }

  private:
    ThreadCell* cell_;
    bool held_ = false;
};

// Admits one thread at a time to updates of a registry record.
class RecordLock {
  public:
    RecordLock();
    ~RecordLock();
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;

    // False in a signal handler that interrupted the holder, whose values will replace those of the handler.
    explicit operator bool() const { return held_; }

  private:
    bool held_ = false;
};

// Forgets the registry without using or releasing it, after a thread ended, or the process forked, in the
// middle of a load or free. Defined where the library is loaded.
void forget_registry();

}  // namespace trelm::detail
