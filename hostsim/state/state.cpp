#include "state.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "own_calls.h"
#include "passed_directories.h"
#include "root.h"
#include "shared_state.h"

namespace hostsim {

namespace fs = std::filesystem;

namespace {

constinit std::atomic<State*> current_state = nullptr;

uint64_t hash(std::string_view name) {
    uint64_t value = 0xcbf29ce484222325;
    for (const char c : name) value = (value ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    return mix(value) | 1;
}

}  // namespace

State::State(std::string root, std::vector<std::string> passed, MappedState shared,
             std::unique_ptr<Root> owned)
    : root_(std::move(root)),
      passed_(std::move(passed)),
      owned_(std::move(owned)),
      shared_(std::move(shared)),
      previous_(current_state.load()) {
    current_state.store(this);
}

State::~State() {
    const OwnCalls own;
    current_state.store(previous_);
    shared_.reset();
    owned_.reset();
}

std::unique_ptr<State> State::temporary() {
    const OwnCalls own;
    std::unique_ptr<Root> root = Root::make_temporary();
    root->enter("");
    PassedDirectories passed;
    passed.add_working_directory();
    MappedState shared = map_state(root->files());
    const std::string path = root->path();
    return std::unique_ptr<State>(new State(path, passed.directories(), std::move(shared), std::move(root)));
}

std::unique_ptr<State> State::attach(const fs::path& root, std::vector<std::string> passed) {
    const OwnCalls own;
    const fs::path path = fs::canonical(root);
    return std::unique_ptr<State>(new State(path, std::move(passed), map_state(OwnDirectory(path)), nullptr));
}

State* State::current() noexcept { return current_state.load(std::memory_order_acquire); }

uint64_t State::host_id() const noexcept { return shared_->host_id; }

std::string State::host_file() const { return shared_->host_file; }

std::chrono::nanoseconds State::age() const noexcept {
    return std::chrono::nanoseconds(monotonic_now() - shared_->started);
}

std::atomic<uint64_t>& State::counter(std::string_view name) {
    const uint64_t wanted = hash(name);
    for (size_t i = 0; i < SharedState::kCounterSlots; ++i) {
        SharedCounter& slot = shared_->counters[(wanted + i) % SharedState::kCounterSlots];
        uint64_t there = 0;
        if (slot.name.compare_exchange_strong(there, wanted) || there == wanted) return slot.value;
    }
    throw std::length_error("the simulated host has no room for another counter");
}

key_t State::semaphore_key(key_t key) noexcept {
    constexpr size_t kSlots = SharedState::kSemaphoreSlots;
    const uint64_t wanted = SharedState::kSlotTaken | static_cast<uint32_t>(key);
    for (size_t i = 0; i < kSlots; ++i) {
        auto& slot = shared_->semaphores[(static_cast<uint32_t>(key) + i) % kSlots];
        uint64_t there = 0;
        if (slot.compare_exchange_strong(there, wanted) || there == wanted)
            return machine_key(shared_->host_id, key);
    }
    return -1;
}

}  // namespace hostsim
