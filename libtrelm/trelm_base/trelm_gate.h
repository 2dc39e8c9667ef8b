// trelm_gate.h - lets calls of any number of threads into the library at once and keeps apart what must not
// meet. It knows three kinds of visitor:
//
//   Call       a public function at work. Calls never wait for one another.
//   PortLock   an open or a close. Of one port there is one at a time.
//   Exclusive  a load or a free. It waits until everyone is out and lets nobody in meanwhile.
//
// Each thread has a cell: a cache line pair of its own, where it notes that it is inside. To enter costs one
// atomic exchange there and a look at a word that hardly ever changes; to leave costs a plain store. Nothing
// that one call writes is read by another, so calls do not slow each other down.
//
// The exported operations of the layers below (list, registry, transports, load and unload) do not pass
// through here: who calls them directly sees to it that nobody else is at work.
#pragma once

#include <cstddef>
#include <cstdint>

namespace trelm::detail {

// What a cell says of its thread: outside, or inside with these bits and the handle that the call is for.
inline constexpr uint64_t kOutside = 0;
inline constexpr uint64_t kInside = uint64_t{1} << 32;
inline constexpr uint64_t kUsesAnyPort = kInside << 1;  // a call and one that interrupted it, for two handles
inline constexpr uint64_t kHasAll = kInside << 2;       // an Exclusive

// A thread's cell. Two lines, as processors fetch lines in pairs.
struct alignas(128) ThreadCell {
    uint64_t call;
    uint32_t taken;
    // The pool's, small and large, for whoever has the cell. They are kept first to second and taken second
    // to first.
    struct Blocks {
        void* first;
        void* second;
    } blocks[2];
};

// Null until the thread's first call, and while there are more threads than cells. Initial-exec: any other
// model would make the dynamic linker one more library that this one needs.
extern constinit thread_local ThreadCell* my_cell __attribute__((tls_model("initial-exec")));

struct alignas(128) GateState {
    uint32_t closed;    // who has or wants the library alone, as id_of() counts cells; kOpen: nobody
    uint32_t threads;   // that have a cell, or are in a call without one
    uint32_t sleepers;  // threads that wait in the kernel
    uint32_t forks;     // between the process that began with this library and this one
};
extern GateState gate;
inline constexpr uint32_t kOpen = 0;

// Wakes those who wait for something to change. What leaves calls it where it sees somebody asleep.
void wake_sleepers();
inline void wake_if_needed() {
    if (__builtin_expect(__atomic_load_n(&gate.sleepers, __ATOMIC_RELAXED) != 0, 0)) wake_sleepers();
}

// The cells that were ever taken, for who goes through them all.
ThreadCell* first_cell();
ThreadCell* end_of_cells();

// Whether this thread reads the registry while others may, in which case it leaves the lists' cursors alone.
bool reads_registry();
inline bool shares_registry() {
    return __atomic_load_n(&gate.threads, __ATOMIC_RELAXED) > 1 && reads_registry();
}

class Call {
  public:
    // A call over a port's node names the port's handle.
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

    // False in a signal handler that interrupted a load or a free of its own thread.
    explicit operator bool() const { return admitted_; }

    // For a call that is about to use the node of the port that `handle` names: where a close waits for the
    // node's users, this call steps outside until that is over. Then true: what it has looked up is void.
    bool made_way_for_close(uint32_t handle) {
        return __builtin_expect(is_closing(handle), 0) && make_way_for_close(handle);
    }

  private:
    static bool is_closing(uint32_t handle);
    bool make_way_for_close(uint32_t handle);
    void enter_slowly(uint64_t mark);
    void enter_crowd();
    void leave_crowd();

    ThreadCell* cell_ = nullptr;  // null: one of the crowd, for whom there was no cell
    uint64_t outer_ = kOutside;   // of the call that this one, in a signal handler, interrupted
    bool admitted_ = true;
};

class PortLock {
  public:
    explicit PortLock(uint32_t instance);
    ~PortLock();
    PortLock(const PortLock&) = delete;
    PortLock& operator=(const PortLock&) = delete;

    // False in a signal handler that interrupted this thread where it must not be waited for.
    explicit operator bool() const { return held_; }

    // Waits until nobody uses the node of the port that `handle` names, and keeps others off until the lock
    // goes. False where the call that this one interrupted uses it.
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

    // False in a signal handler that interrupted a call of its own thread.
    explicit operator bool() const { return held_; }

  private:
    ThreadCell* cell_;
    bool held_ = false;
};

// One thread at a time brings a record of the registry up to date.
class RecordLock {
  public:
    RecordLock();
    ~RecordLock();
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;

    // False in a signal handler that interrupted the holder: what that one writes comes after.
    explicit operator bool() const { return held_; }

  private:
    bool held_ = false;
};

// The core's: a thread ended in the middle of a load or a free, or the process forked there. What it left is
// neither used nor released.
void forget_registry();

}  // namespace trelm::detail
