// The gate. A thread that enters notes in its cell that it is inside, then reads whether the gate is closed.
// A thread that closes the gate marks it as closed, then reads the cells. Both steps are sequentially
// consistent, so at least one of the two threads sees the other. If it is the one that enters, it steps back
// and waits.
//
// A waiting thread spins for a moment and then sleeps in the kernel. A thread that leaves issues no fence
// before it looks for sleepers, so it may miss one that falls asleep at that moment. Sleepers therefore check
// again every 10 ms.
//
// A thread may end while it is inside (pthread_exit() in a signal handler, asynchronous cancellation). A
// destructor of thread-specific data then takes it out. A forked child has one thread; all others are taken
// out in the same way.

#include "trelm_gate.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include "trelm_owners.h"

namespace trelm::detail {

constinit thread_local ThreadCell* my_cell __attribute__((tls_model("initial-exec"))) = nullptr;
GateState gate;

namespace {

constexpr size_t kCells = 256;       // further threads form a crowd that is only counted
constexpr size_t kPortLocks = 1024;  // port n uses lock n % kPortLocks
constexpr int kTries = 100;
constexpr long kNapNanoseconds = 10'000'000;

constexpr uint32_t kSpareId = kCells + 1;
constexpr uint32_t kCrowdId = kCells + 2;
constexpr uint32_t kInDoubt = kCells + 3;  // of gate.closed: the registry was left incomplete
constexpr uint32_t kExpels = 1u << 31;     // of a port lock: its holder waits for the node's users

struct alignas(128) PortWord {
    uint32_t word;
};

ThreadCell cells[kCells];
ThreadCell spare;  // for an Exclusive whose thread got no cell
PortWord port_words[kPortLocks];
uint32_t record_word;

// Rarely written; kept apart from what every call reads.
struct alignas(128) {
    uint32_t cells_used;
    uint32_t port_words_used;
    uint32_t crowd;   // calls of threads without a cell
    uint32_t events;  // the futex that sleepers wait on
} rare;

constinit thread_local uint32_t crowded_calls __attribute__((tls_model("initial-exec"))) = 0;

pthread_key_t end_of_thread;
bool sees_ends = false;

template <class Word>
Word load(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}
template <class Word>
void store(Word& word, Word value) {
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}
void add(uint32_t& word, uint32_t more) { __atomic_fetch_add(&word, more, __ATOMIC_SEQ_CST); }
// Returns the value before the operation.
uint32_t swap_if(uint32_t& word, uint32_t expected, uint32_t value) {
    __atomic_compare_exchange_n(&word, &expected, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return expected;
}
void raise(uint32_t& word, uint32_t least) {
    for (uint32_t now = load(word); now < least;) {
        const uint32_t before = swap_if(word, now, least);
        if (before == now) return;
        now = before;
    }
}

void pause_briefly() {
#ifdef __x86_64__
    __builtin_ia32_pause();
#endif
}

void sleep_on(uint32_t& word, uint32_t value) {
    timespec nap = {0, kNapNanoseconds};
    if (syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, &nap, nullptr, 0) == 0) return;
    if (errno != EAGAIN && errno != EINTR && errno != ETIMEDOUT) nanosleep(&nap, nullptr);
}

template <class Condition>
void wait_until(Condition comes_true) {
    for (int i = 0; i < kTries; ++i) {
        if (comes_true()) return;
        pause_briefly();
    }
    const ErrnoKeeper keep;
    const NoCancellation whole;
    add(gate.sleepers, 1);
    for (;;) {
        const uint32_t event = load(rare.events);
        if (comes_true()) break;
        sleep_on(rare.events, event);
    }
    add(gate.sleepers, UINT32_MAX);
}

// ---- Cells

uint32_t id_of(const ThreadCell* cell) {
    if (!cell) return kCrowdId;
    return cell == &spare ? kSpareId : static_cast<uint32_t>(cell - cells) + 1;
}

// Takes out a thread that will not continue, and releases what it held.
void vacate(ThreadCell& cell) {
    const uint32_t id = id_of(&cell);
    for (uint32_t i = 0; i < load(rare.port_words_used); ++i) {
        if ((load(port_words[i].word) & ~kExpels) == id) store(port_words[i].word, 0u);
    }
    swap_if(record_word, id, 0);
    swap_if(gate.closed, id, cell.call & kHasAll ? kInDoubt : kOpen);
    store(cell.call, kOutside);
    if (&cell == &spare) return;
    store(cell.taken, 0u);
    add(gate.threads, UINT32_MAX);
}

void leave_for_good(void* cell) {
    my_cell = nullptr;
    vacate(*static_cast<ThreadCell*>(cell));
    wake_if_needed();
}

// The calling thread's cell, which is assigned now if it has none. Null if all cells are taken.
ThreadCell* take_cell() {
    if (my_cell || !sees_ends) return my_cell;
    for (ThreadCell& cell : cells) {
        if (load(cell.taken) || swap_if(cell.taken, 0, 1) != 0) continue;
        add(gate.threads, 1);
        raise(rare.cells_used, id_of(&cell));
        if (pthread_setspecific(end_of_thread, &cell) != 0) {
            vacate(cell);
            return nullptr;
        }
        return my_cell = &cell;
    }
    return nullptr;
}

// Waits for the other threads one by one. They need not all be out at the same moment: a thread that enters
// after the gate was closed, or after a port was marked, sees that itself.
template <class IsInTheWay>
void wait_for_others(const ThreadCell* own, IsInTheWay is_in_the_way) {
    for (const ThreadCell* cell = first_cell(); cell != end_of_cells(); ++cell) {
        if (cell != own) wait_until([=] { return !is_in_the_way(load(cell->call)); });
    }
    wait_until([] { return load(rare.crowd) == 0; });
}

void wait_for_everyone(const ThreadCell* own) {
    wait_for_others(own, [](uint64_t call) { return call != kOutside; });
    for (uint32_t i = 0; i < load(rare.port_words_used); ++i)
        wait_until([i] { return load(port_words[i].word) == 0; });
}

bool uses_port(uint64_t call, uint32_t handle) {
    return (call & kUsesAnyPort) || (call & ~kHasAll) == (kInside | handle);
}

void wait_while_closed() {
    wait_until([] { return load(gate.closed) == kOpen || load(gate.closed) == kInDoubt; });
    if (load(gate.closed) == kInDoubt) const Exclusive clears_up;
}

uint32_t& port_word(uint32_t instance) { return port_words[instance % kPortLocks].word; }

// ---- Fork and the end of the library

void be_alone_in_child() {
    ++gate.forks;
    gate.sleepers = 0;
    gate.threads -= rare.crowd - crowded_calls;
    rare.crowd = crowded_calls;
    for (ThreadCell* cell = first_cell(); cell != end_of_cells(); ++cell) {
        if (cell->taken && cell != my_cell) vacate(*cell);
    }
    if (&spare != my_cell) vacate(spare);
    if (crowded_calls) return;
    for (uint32_t i = 0; i < rare.port_words_used; ++i) {
        if ((port_words[i].word & ~kExpels) == kCrowdId) port_words[i].word = 0;
    }
    swap_if(record_word, kCrowdId, 0);
}

__attribute__((constructor)) void watch_threads() {
    sees_ends = pthread_key_create(&end_of_thread, leave_for_good) == 0;
    pthread_atfork(nullptr, nullptr, be_alone_in_child);
}

// A thread that ends after the library was unloaded must not call into it.
__attribute__((destructor)) void let_threads_be() {
    if (sees_ends) pthread_key_delete(end_of_thread);
    sees_ends = false;
}

}  // namespace

ThreadCell* first_cell() { return cells; }
ThreadCell* end_of_cells() { return cells + load(rare.cells_used); }

void wake_sleepers() {
    const ErrnoKeeper keep;
    add(rare.events, 1);
    syscall(SYS_futex, &rare.events, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

bool reads_registry() { return !my_cell || (my_cell->call != kOutside && !(my_cell->call & kHasAll)); }

// ---- Call

void Call::enter_slowly(uint64_t mark) {
    if (!cell_) {
        cell_ = take_cell();
        if (!cell_) return enter_crowd();
        outer_ = cell_->call;
        if (outer_ != kOutside) {
            admitted_ = !(outer_ & kHasAll);
            store(cell_->call, outer_ | kUsesAnyPort);
            return;
        }
        store(cell_->call, mark);
    }
    while (load(gate.closed) != kOpen) {
        store(cell_->call, kOutside);
        wake_if_needed();
        wait_while_closed();
        store(cell_->call, mark);
    }
}

void Call::enter_crowd() {
    ++crowded_calls;
    add(gate.threads, 1);
    for (;;) {
        add(rare.crowd, 1);
        if (crowded_calls > 1 || load(gate.closed) == kOpen) return;
        add(rare.crowd, UINT32_MAX);
        wake_if_needed();
        wait_while_closed();
    }
}

void Call::leave_crowd() {
    --crowded_calls;
    add(gate.threads, UINT32_MAX);
    add(rare.crowd, UINT32_MAX);
}

bool Call::is_closing(uint32_t handle) { return load(port_word(handle - 1)) & kExpels; }

bool Call::make_way_for_close(uint32_t handle) {
    const uint32_t& word = port_word(handle - 1);
    if (outer_ != kOutside) {  // a nested call cannot step outside, and this thread itself may be closing
        admitted_ = false;
        return true;
    }
    if (cell_) {
        store(cell_->call, kOutside);
    } else {
        leave_crowd();
    }
    wake_if_needed();
    wait_until([&word] { return !(load(word) & kExpels); });
    if (cell_) {
        store(cell_->call, kInside | handle);
        enter_slowly(kInside | handle);
    } else {
        enter_crowd();
    }
    return true;
}

// ---- PortLock

PortLock::PortLock(uint32_t instance) : cell_(take_cell()), word_(&port_word(instance)) {
    const uint32_t id = id_of(cell_);
    if (cell_) outer_ = cell_->call;
    if (outer_ & kHasAll) return;
    if (!cell_) add(gate.threads, 1);
    if (cell_ && outer_ == kOutside) __atomic_store_n(&cell_->call, kInside, __ATOMIC_RELAXED);
    if (load(rare.port_words_used) <= instance % kPortLocks)
        raise(rare.port_words_used, instance % kPortLocks + 1);
    for (;;) {
        uint32_t before = 0;
        while ((before = swap_if(*word_, 0, id)) != 0) {
            if (cell_ && (before & ~kExpels) == id) return;
            wait_until([this] { return load(*word_) == 0; });
        }
        held_ = true;
        if (outer_ != kOutside || load(gate.closed) == kOpen) return;
        held_ = false;
        store(*word_, 0u);
        if (cell_) store(cell_->call, kOutside);
        wake_if_needed();
        wait_while_closed();
        if (cell_) store(cell_->call, kInside);
    }
}

PortLock::~PortLock() {
    if (held_) __atomic_store_n(word_, 0, __ATOMIC_RELEASE);
    if (!cell_) add(gate.threads, UINT32_MAX);
    if (cell_ && outer_ == kOutside) __atomic_store_n(&cell_->call, kOutside, __ATOMIC_RELEASE);
    wake_if_needed();
}

bool PortLock::expel_users(uint32_t handle) {
    if (uses_port(outer_, handle)) return false;
    store(*word_, id_of(cell_) | kExpels);
    wait_for_others(cell_, [handle](uint64_t call) { return uses_port(call, handle); });
    return true;
}

// ---- Exclusive

Exclusive::Exclusive() : cell_(take_cell()) {
    if (cell_ && cell_->call != kOutside) return;
    const uint32_t id = cell_ ? id_of(cell_) : kSpareId;
    bool in_doubt = false;
    wait_until([id, &in_doubt] {
        const uint32_t before = swap_if(gate.closed, kOpen, id);
        in_doubt = before == kInDoubt && swap_if(gate.closed, kInDoubt, id) == kInDoubt;
        return before == kOpen || in_doubt;
    });
    if (!cell_) cell_ = my_cell = &spare;
    if (in_doubt) store(cell_->call, kInside | kHasAll);
    wait_for_everyone(cell_);
    store(cell_->call, kInside | kHasAll);
    if (in_doubt) forget_registry();
    held_ = true;
}

Exclusive::~Exclusive() {
    if (!held_) return;
    store(cell_->call, kOutside);
    if (cell_ == &spare) my_cell = nullptr;
    store(gate.closed, kOpen);
    wake_if_needed();
}

// ---- RecordLock

RecordLock::RecordLock() {
    const uint32_t id = id_of(my_cell);
    uint32_t before = 0;
    while ((before = swap_if(record_word, 0, id)) != 0) {
        if (my_cell && before == id) return;
        wait_until([] { return load(record_word) == 0; });
    }
    held_ = true;
}

RecordLock::~RecordLock() {
    if (!held_) return;
    __atomic_store_n(&record_word, 0, __ATOMIC_RELEASE);
    wake_if_needed();
}

}  // namespace trelm::detail
