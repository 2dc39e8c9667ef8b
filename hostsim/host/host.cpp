// host.cpp - the host of this process. One lock guards it: driver calls are short, and a kernel also serves
// the requests of a port one by one. The lock is recursive, because a test may change the host from within an
// answer.
#include "host.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "host_file.h"
#include "host_file_watch.h"
#include "keep_errno.h"
#include "legacy_node.h"
#include "management_api.h"
#include "own_calls.h"
#include "request_pipeline.h"
#include "root_layout.h"
#include "state.h"

namespace hostsim {

class Host::Core {
  public:
    // A host of this process and its forks.
    Core(Model model, std::unique_ptr<State> own)
        : owned(std::move(own)),
          state(*owned),
          pipeline(std::move(model), state, LunStores(state.root() + layout::kLuns, ""), true) {}

    // The launcher's host.
    Core(State& launched, HostFileWatch file)
        : state(launched),
          watch(std::move(file)),
          pipeline(watch->read(), state, launched_stores(state), false) {}

    // The contents of all LUNs are in files, whatever `backing` says: the processes of the host share them,
    // and a kept root preserves them.
    static LunStores launched_stores(const State& launched) {
        const std::string directory = launched.root() + layout::kLuns;
        return {directory, directory};
    }

    void follow_file() {
        if (!watch) return;
        if (auto changed = watch->poll()) pipeline.model = std::move(*changed);
    }

    std::recursive_mutex mutex;
    std::unique_ptr<State> owned;
    State& state;
    std::optional<HostFileWatch> watch;
    RequestPipeline pipeline;
    ManagementApi api{pipeline};
    // The model's effective user as of the last call that held the lock.
    std::atomic<uint32_t> user{pipeline.model.effective_user};
};

namespace {

std::atomic<Host*> active_host{nullptr};

// The lock that is held while the process forks, so that no other thread is inside the host then.
std::recursive_mutex* forking = nullptr;

// Runs `work` with the lock held and the model updated from the file.
template <typename Core, typename Work>
auto as_host(Core& core, const Work& work) {
    const OwnCalls own_calls;
    const std::lock_guard lock(core.mutex);
    {
        const KeepErrno keep;
        core.follow_file();
        core.user = core.pipeline.model.effective_user;
    }
    return work();
}

// Like a system call: returns 0 with errno unchanged, or -1.
template <typename Core, typename Work>
int answer(Core& core, const Work& work) noexcept {
    try {
        const int saved = errno;
        const int result = as_host(core, work);
        if (result == 0) errno = saved;
        return result;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

void copy_name(std::span<char> field, const std::string& text) {
    std::fill(field.begin(), field.end(), '\0');
    text.copy(field.data(), field.size() - 1);
}

Model checked(Model model) {
    for (const ModelProblem& problem : find_problems(model, 1)) {
        if (problem.severity == ModelProblem::Severity::error)
            throw HostError("the host's model: " + problem.pointer + ": " + problem.reason);
    }
    return model;
}

}  // namespace

Host::Host(std::unique_ptr<Core> core) : core_(std::move(core)) {
    core_->pipeline.tamper = &tamper;
    static const int handlers = pthread_atfork(
        [] {
            Host* const host = active_host;
            forking = host ? &host->core_->mutex : nullptr;
            if (forking) forking->lock();
        },
        [] {
            if (forking) forking->unlock();
        },
        // The child's thread has another id than the one that locked it, so it cannot unlock it.
        [] {
            if (forking) new (forking) std::recursive_mutex;
        });
    (void)handlers;
    Host* none = nullptr;
    if (!active_host.compare_exchange_strong(none, this)) {
        throw HostError("this process has a simulated host already; end that one before another begins");
    }
}

Host::Host(Model model)
    : Host([&] {
          const OwnCalls own_calls;
          return std::make_unique<Core>(checked(std::move(model)), State::temporary());
      }()) {}

Host Host::from_json(std::string_view json) {
    return Host(parse_host(json, "host", std::filesystem::current_path()));
}

Host Host::from_file(const std::filesystem::path& path) { return Host(read_host_file(path)); }

Host::~Host() {
    const OwnCalls own_calls;
    Host* self = this;
    active_host.compare_exchange_strong(self, nullptr);
    core_.reset();
}

// The launcher's host lives as long as the process. Its State exists before main. A State without a host file
// belongs to a test's host that is being constructed.
Host* Host::current() noexcept {
    if (Host* const host = active_host) return host;
    State* const state = State::current();
    if (!state) return nullptr;
    const OwnCalls own_calls;
    static std::once_flag once;
    try {
        const std::filesystem::path file = state->host_file();
        if (file.empty()) return nullptr;
        std::call_once(once, [&] {
            const std::filesystem::path copy = state->root() + layout::kLastSound;
            new Host(std::make_unique<Core>(*state, HostFileWatch(file, copy)));
        });
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "trelm-hostsim: %s\n", failure.what());
        std::call_once(once, [] {});
    }
    return active_host;
}

// ---- For tests

Model& Host::model() { return core_->pipeline.model; }

void Host::edit(const std::function<void(Model&)>& change) {
    const std::lock_guard lock(core_->mutex);
    change(core_->pipeline.model);
    core_->user = core_->pipeline.model.effective_user;
}

std::vector<DriverCall> Host::calls() const {
    const std::lock_guard lock(core_->mutex);
    return core_->pipeline.calls;
}

size_t Host::count_calls(Operation operation) const {
    const std::vector<DriverCall> all = calls();
    const auto is_one = [&](const DriverCall& call) { return call.operation == operation; };
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), is_one));
}

void Host::clear_calls() {
    const std::lock_guard lock(core_->mutex);
    core_->pipeline.calls.clear();
}

void Host::inject(Fault fault) {
    edit([&](Model& model) { model.faults.push_back(std::move(fault)); });
}

std::filesystem::path Host::root() const { return core_->state.root(); }

// ---- For the interposers

State& Host::state() noexcept { return core_->state; }

void Host::fill_utsname(utsname* name) const noexcept {
    as_host(*core_, [&] {
        const Model& model = core_->pipeline.model;
        *name = utsname{};
        copy_name(name->sysname, model.system_name);
        copy_name(name->nodename, model.name);
        copy_name(name->release, model.release);
        copy_name(name->version, model.version);
        copy_name(name->machine, model.machine);
    });
}

uint32_t Host::effective_user() const noexcept {
    return as_host(*core_, [&] { return core_->pipeline.model.effective_user; });
}

uint32_t Host::shown_owner() const noexcept { return core_->user; }

NodeKind Host::legacy_node() const noexcept {
    return as_host(*core_, [&] {
        const Model& model = core_->pipeline.model;
        if (is_present(model, DriverKind::legacy)) return NodeKind::device;
        const bool file = model.driver(DriverKind::legacy).presence == Driver::Presence::no_device;
        return file ? NodeKind::regular_file : NodeKind::missing;
    });
}

int Host::node_fault(Operation open_or_close) noexcept {
    return as_host(*core_, [&] { return core_->pipeline.pass(DriverKind::legacy, open_or_close, 0).error; });
}

int Host::legacy_request(unsigned long number, void* block) noexcept {
    return answer(*core_, [&] { return legacy_ioctl(core_->pipeline, number, block); });
}

std::vector<LinkStateFile> Host::link_state_files() const {
    return as_host(*core_, [&] { return hostsim::link_state_files(core_->pipeline.model); });
}

int Host::management_init(const vmk_MgmtApiSignature* signature, uint64_t cookie,
                          vmk_MgmtUserHandle* handle) noexcept {
    return answer(*core_, [&] { return core_->api.init(signature, cookie, handle); });
}

int Host::management_invoke(vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback,
                            uint32_t parameter_count, void* const* parameters) noexcept {
    return answer(*core_,
                  [&] { return core_->api.invoke(handle, instance, callback, parameter_count, parameters); });
}

}  // namespace hostsim
