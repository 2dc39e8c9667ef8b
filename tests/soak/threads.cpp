// threads.cpp - threads use every public function at once, with loads and frees in between. A model knows the
// allowed results of each call. The drivers of this program answer without a lock, so only the library keeps
// the threads apart.
//
// As a guest (--guest) of a host that trelm-hostsim runs, the program calls the drivers of that host.
//
// While no load or free is running, every result is known: an open port must answer, and the library must
// count exactly the opens that the threads have made. While one is running, a call may come before or after
// it.
#include <fmt/format.h>
#include <sys/ioctl.h>

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <barrier>
#include <mutex>
#include <random>
#include <thread>

#include "../support/libc_replacements.h"
#include "host.h"
#include "host_builders.h"
#include "trelm_core.h"
#include "trelm_mgmt.h"
#include "vmkmgmt.h"

// Threads and their locks end with this program.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() { return "halt_on_error=1"; }

namespace {

constexpr uint32_t kPorts = 4;
constexpr uint32_t kCounters = 30, kSenseLength = 18, kNoTarget = 13;

std::atomic<uint64_t> calls = 0, failures = 0;

template <typename... Values>
void demand(bool fulfilled, fmt::format_string<Values...> complaint, Values&&... values) {
    if (fulfilled || failures++ >= 20) return;
    fmt::print("threads: {}\n", fmt::format(complaint, std::forward<Values>(values)...));
    fflush(stdout);
}

// ---- The drivers

bool is_guest = false;
std::atomic<int> requests_under_way = 0;
std::array<std::atomic<int>, 4096> node_users;  // by descriptor of the legacy node; kNoNode: another file
constexpr int kNoNode = -1'000'000;

// The answers of a port, derived from its number.
void answer_stats(uint64_t* counters, uint64_t port) {
    for (uint64_t i = 0; i < kCounters; ++i) counters[i] = port * 1000 + i;
}

// Port state, speeds and target count change together.
template <typename PortInfo>
void answer_port(PortInfo& info) {
    static std::atomic<uint32_t> turn = 0;
    const uint32_t now = turn++ % 3 + 1;
    info.portid = now, info.tgt_cnt = now, info.port_speed = static_cast<uint16_t>(now);
}

template <typename Command>
void answer_scsi(Command& command, uint8_t* data, uint64_t port) {
    command.sense_len = kSenseLength, command.sense[0] = static_cast<uint8_t>(port);
    if (command.direction != SCSI_DIRECTION_IN) return;
    memset(data, static_cast<int>(port), command.data_len);
    if (command.cdb[0] == 0xA0) memcpy(data, "\0\0\0\x08\0\0\0\0\0\x01\0\0\0\0\0\0", 16);  // one LUN
}

// The answer to a request that discovery does not make; false for requests of discovery.
bool answer_target(dorfc_tgt_info& target) {
    target.port_state = 1;
    return target.scsi_tgt_num < 2;
}

REPLACES_LIBC(int, vmk_MgmtUserCallbackInvokeInt,
              (uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, void* payload)) {
    auto* const header = static_cast<native_cb_header*>(payload);
    void* const record = header + 1;
    ++requests_under_way;
    switch (is_guest ? 0 : callback) {
        case NATIVE_CB_PORT_STATS:
            answer_stats(static_cast<uint64_t*>(record), header->host_no);
            break;
        case NATIVE_CB_TGT_INFO:
            if (!answer_target(*static_cast<dorfc_tgt_info*>(record))) header->status = kNoTarget;
            break;
        case NATIVE_CB_FCF_INFO:
            break;
        case NATIVE_CB_SCSI_CMD: {
            auto& command = *static_cast<kronfc_scsi_cmd*>(record);
            answer_scsi(command, command.data_buffer, header->host_no);
            break;
        }
        default:
            NEXT_OF(vmk_MgmtUserCallbackInvokeInt)(handle, instance, callback, count, payload);
            if (!is_guest && callback == NATIVE_CB_PORT_INFO)
                answer_port(*static_cast<dorfc_port_info*>(record));
    }
    --requests_under_way;
    return 0;
}

REPLACES_LIBC(int, ioctl, (int fd, unsigned long number, void* argument)) {
    const auto request = static_cast<uint32_t>(number & 0xFF);
    if (is_guest || !CALLED_BY_LIBRARY() || number != dorfc_request(request))
        return NEXT_OF(ioctl)(fd, number, argument);
    const bool over_node = fd >= 0 && ++node_users[fd] > 0;
    demand(over_node, "a request went to descriptor {}, which is not the node's", fd);
    if (fd < 0) return -1;
    ++requests_under_way;
    auto* const block = static_cast<dorfc_ioctl*>(argument);
    void* const record = trelm_64bit_to_ptr(block->ioctlstructaddr);
    switch (request) {
        case 5:
            answer_stats(static_cast<uint64_t*>(record), 100u + block->hbaselect);
            break;
        case 6:
            if (!answer_target(*static_cast<dorfc_tgt_info*>(record))) block->status = kNoTarget;
            break;
        case 7:
            break;
        case 8: {
            auto& command = *static_cast<dorfc_scsi_cmd*>(record);
            answer_scsi(command, static_cast<uint8_t*>(trelm_64bit_to_ptr(command.data_addr)),
                        100u + block->hbaselect);
            break;
        }
        default:
            NEXT_OF(ioctl)(fd, number, argument);
            if (request == 4) answer_port(*static_cast<dorfc_port_info*>(record));
    }
    --requests_under_way;
    --node_users[fd];
    return 0;
}

REPLACES_LIBC(int, open, (const char* path, int flags, mode_t mode)) {
    const int fd = NEXT_OF(open)(path, flags, mode);
    if (CALLED_BY_LIBRARY() && fd >= 0 && strncmp(path, "/dev/char/", 10) == 0) node_users[fd] = 0;
    return fd;
}

REPLACES_LIBC(int, close, (int fd)) {
    if (CALLED_BY_LIBRARY() && fd >= 0) {
        const int users = node_users[fd].exchange(kNoNode);
        demand(users <= 0, "the node was closed under {} requests", users);
    }
    return NEXT_OF(close)(fd);
}

// The library counts the processes that have it loaded only while it holds an Exclusive.
REPLACES_LIBC(FILE*, popen, (const char* command, const char* mode)) {
    if (is_guest || !CALLED_BY_LIBRARY()) return NEXT_OF(popen)(command, mode);
    demand(requests_under_way == 0, "the library was freed under {} requests", requests_under_way.load());
    return fmemopen(const_cast<char*>("2\n"), 2, "r");
}
REPLACES_LIBC(int, pclose, (FILE * file)) {
    return !is_guest && CALLED_BY_LIBRARY() ? fclose(file) : NEXT_OF(pclose)(file);
}

// ---- The model

// Whether the library is loaded, and the number of loads and frees so far.
class Lifecycle {
  public:
    struct State {
        uint64_t number;
        bool loaded, changing;
        bool operator==(const State&) const = default;
    };
    State now() const {
        const uint64_t value = value_;
        return {value / 4, (value & 1) != 0, (value & 2) != 0};
    }
    // Loads or frees, unless another thread is about to do so.
    void toggle() {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) return;
        const bool loaded = now().loaded;
        value_ |= 2;
        const uint32_t code = loaded ? TRELM_FreeLibrary() : TRELM_LoadLibrary();
        demand(code == TRELM_STATUS_OK, "a {} returned {:#x}", loaded ? "free" : "load", code);
        value_ = (now().number + 1) * 4 + !loaded;
    }

    void load_again() {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (lock && now().loaded) demand(TRELM_LoadLibrary() == TRELM_STATUS_OK, "a second load failed");
    }
    // An open or close may take effect before or after a load or free. Until the next load or free, opens are
    // not counted.
    void forgo_counting() {
        const State state = now();
        const uint64_t until = state.number + (state.changing ? 2 : 1);
        for (uint64_t before = uncounted_;
             before < until && !uncounted_.compare_exchange_weak(before, until);) {
        }
    }
    bool counts_opens() const { return now().number >= uncounted_; }

  private:
    std::mutex mutex_;
    std::atomic<uint64_t> value_ = 0, uncounted_ = 0;
};
Lifecycle lifecycle;

std::array<uint64_t, kPorts> tags;  // the first counters of each port

class Caller {
  public:
    explicit Caller(unsigned seed) : random_(seed) {}

    void call() {
        ++calls;
        before_ = lifecycle.now();
        if (before_ != opened_in_) opened_ = {}, opened_in_ = before_;
        const uint32_t port = pick(kPorts);
        switch (pick(32)) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
                return open(port);
            case 5:
            case 6:
            case 7:
            case 8:
            case 9:
                return close(port);
            case 10:
            case 11:
                return count_ports();
            case 12:
                return lifecycle.load_again();
            case 13:
                return list_targets(port);
            case 14:
                return list_luns(port);
            case 15:
            case 16:
                return send(port);
            case 17:
                return ask_version();
            case 18:
            case 19:
            case 20:
                return ask_port(port);
            case 21:
            case 22:
            case 23:
            case 24:
            case 25:
                return ask_adapter(port);
            case 26:
                if (pick(200) == 0) lifecycle.toggle();
                return;
            default:
                return ask_stats(port);
        }
    }
    // Loads and frees on several threads at once, for which the model has no expected results.
    void call_wildly() {
        if (pick(500) == 0) pick(2) == 0 ? TRELM_FreeLibrary() : TRELM_LoadLibrary();
        uint32_t handle = 0;
        TRELM_PORT_STATS stats;
        TRELM_OpenAdapter(pick(kPorts), &handle);
        TRELM_GetPortStats(1 + pick(kPorts), 0, &stats);
        TRELM_CloseAdapter(1 + pick(kPorts));
        calls += 3;
    }
    uint64_t opened(uint32_t port, const Lifecycle::State& in) const {
        return opened_in_ == in ? opened_[port] : 0;
    }

  private:
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    bool is_certain() const { return !before_.changing && lifecycle.now() == before_; }

    // Checks the result of a call for a port. Returns whether it succeeded.
    bool judge(const char* function, uint32_t code, uint32_t port) {
        const bool worked = code == TRELM_STATUS_OK;
        demand(worked || code == TRELM_STATUS_FAILED, "{} returned {:#x}", function, code);
        if (!is_certain()) return worked;
        demand(worked || !opened_[port], "{} failed for an open port with {:#x}", function, code);
        demand(!worked || before_.loaded, "{} worked without a loaded library", function);
        return worked;
    }

    void open(uint32_t port) {
        uint32_t handle = 0;
        const uint32_t code = TRELM_OpenAdapter(port, &handle);
        if (!is_certain()) return lifecycle.forgo_counting();
        demand(code == (before_.loaded ? TRELM_STATUS_OK : TRELM_STATUS_FAILED), "an open returned {:#x}",
               code);
        if (code != TRELM_STATUS_OK) return;
        demand(handle == port + 1, "port {} was opened with handle {}", port, handle);
        ++opened_[port];
    }
    void close(uint32_t port) {
        if (opened_[port] == 0) return;
        const uint32_t code = TRELM_CloseAdapter(port + 1);
        if (!is_certain()) return lifecycle.forgo_counting();
        demand(code == TRELM_STATUS_OK, "a close of an open port returned {:#x}", code);
        --opened_[port];
    }
    void count_ports() {
        uint32_t count = kPorts;
        const uint32_t code = TRELM_GetPortCount(&count);
        demand(count == kPorts, "{} ports were counted", count);
        if (is_certain())
            demand((code == TRELM_STATUS_OK) == before_.loaded, "a count of ports returned {:#x}", code);
    }
    void ask_version() {
        std::array<uint8_t, 13> version{};
        demand(TRELM_GetVersion(version.data(), 13) == TRELM_VERSION_NUMBER && version[0] == 'v',
               "no version");
    }
    void ask_adapter(uint32_t port) {
        TRELM_FCOE_INFO info{};
        info.Version = 2;
        if (judge("TRELM_GetFcoeInfo", TRELM_GetFcoeInfo(port + 1, &info), port))
            demand(info.DriverLoaded == 1, "no adapter information");
    }
    void ask_port(uint32_t port) {
        TRELM_VNPORT_INFO info{};
        if (judge("TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(port + 1, 0, &info), port))
            demand(info.PortFCID == info.TgtCount && info.PortSpeed == info.TgtCount,
                   "mixed port information");
    }
    void ask_stats(uint32_t port) {
        TRELM_PORT_STATS stats{};
        if (judge("TRELM_GetPortStats", TRELM_GetPortStats(port + 1, 0, &stats), port))
            demand(stats.RxFCoEFrames == tags[port] && stats.LinkFailures == tags[port] + kCounters - 1,
                   "statistics of another port");
    }
    void send(uint32_t port) {
        TRELM_SCSI_CMND command{};
        command.Direction = TRELM_SCSI_DATA_IN, command.CDBLength = 6, command.CDB[0] = 0x12;
        command.SenseLength = sizeof command.Sense;
        std::array<uint8_t, 512> data{};
        uint32_t length = sizeof data;
        const auto expected = static_cast<uint8_t>(tags[port] / 1000);
        if (judge("TRELM_SendScsiCommand", TRELM_SendScsiCommand(port + 1, 0, &command, &length, data.data()),
                  port))
            demand(data[0] == expected && data[511] == expected && command.Sense[0] == expected,
                   "data of another port");
    }
    void list_targets(uint32_t port) {
        std::array<TRELM_TGT_INFO, 3> targets{};
        TRELM_TGT_INFO* array = targets.data();
        uint32_t count = targets.size();
        const uint32_t code = TRELM_GetTgtInfo(port + 1, 0, &count, &array);
        if (judge("TRELM_GetTgtInfo", code, port))
            demand(targets[0].PortState == 1 && targets[0].LunCount == 1, "a target without its LUN");
    }
    void list_luns(uint32_t port) {
        std::array<TRELM_LUN_INFO, 2> luns{};
        luns[0].Version = 2;
        TRELM_LUN_INFO* array = luns.data();
        uint32_t count = luns.size();
        const uint32_t code = TRELM_GetLunInfo(port + 1, 0, 0, &count, &array);
        if (judge("TRELM_GetLunInfo", code, port)) demand(luns[0].ScsiLunNum == 1, "a LUN of another number");
    }

    std::mt19937 random_;
    Lifecycle::State before_{};
    Lifecycle::State opened_in_{};
    std::array<uint64_t, kPorts> opened_{};
};

// ---- The rounds

const trelm_priv_db* physical_port(uint32_t instance) { return trelm_get_pdb_from_user_instance(instance); }

// No other thread is working. The library must count the opens of its callers, and a record of a port must
// come from one answer.
void check_registry(const std::vector<Caller>& callers) {
    const Lifecycle::State state = lifecycle.now();
    if (!state.loaded) return;
    for (uint32_t port = 0; port < kPorts; ++port) {
        const trelm_priv_db& pdb = *physical_port(port);
        demand(pdb.port_id == pdb.tgt_cnt && pdb.port_speed == pdb.tgt_cnt,
               "the registry's port is of two answers");
        if (!lifecycle.counts_opens()) continue;
        uint64_t opened = 0;
        for (const Caller& caller : callers) opened += caller.opened(port, state);
        const trelm_hw_info& hw = *pdb.hw_info;
        demand(hw.open_cnt == opened, "port {}: {} opens counted, {} made", port, hw.open_cnt, opened);
        demand(hw.apihandle == (opened ? port + 1 : 0), "port {} has handle {}", port, hw.apihandle);
        demand((hw.oshandle != -1) == (opened && !hw.native_driver), "port {} has descriptor {}", port,
               hw.oshandle);
    }
}

void learn_tags() {
    lifecycle.toggle();
    for (uint32_t port = 0; port < kPorts; ++port) {
        uint32_t handle = 0;
        TRELM_PORT_STATS stats{};
        const bool told = TRELM_OpenAdapter(port, &handle) == TRELM_STATUS_OK &&
                          TRELM_GetPortStats(handle, 0, &stats) == TRELM_STATUS_OK;
        demand(told, "port {} tells nothing", port);
        tags[port] = stats.RxFCoEFrames;
        TRELM_CloseAdapter(handle);
    }
}

void check_end() {
    TRELM_FreeLibrary();
    uint32_t count = 0;
    demand(TRELM_GetPortCount(&count) == TRELM_STATUS_FAILED, "ports were counted after the last free");
    demand(TRELM_LoadLibrary() == TRELM_STATUS_OK && TRELM_GetPortCount(&count) == TRELM_STATUS_OK &&
               count == kPorts,
           "the last load found {} ports", count);
    for (uint32_t port = 0; port < kPorts; ++port)
        demand(TRELM_CloseAdapter(port + 1) == TRELM_STATUS_FAILED, "port {} was open after a load", port);
    TRELM_FreeLibrary();
    demand(requests_under_way == 0, "requests were under way at the end");
}

// One round of a thread of a guest: every call must succeed while the host file is edited.
void work_as_guest(uint32_t port, unsigned long long& link_changes) {
    uint32_t handle = 0;
    TRELM_VNPORT_INFO info{};
    TRELM_PORT_STATS stats;
    demand(TRELM_OpenAdapter(port, &handle) == TRELM_STATUS_OK, "port {} did not open", port);
    demand(TRELM_GetVNPortInfo(handle, 0, &info) == TRELM_STATUS_OK, "port {} tells nothing", port);
    demand(TRELM_GetPortStats(handle, 0, &stats) == TRELM_STATUS_OK, "port {} counts nothing", port);
    demand(TRELM_CloseAdapter(handle) == TRELM_STATUS_OK, "port {} did not close", port);
    static std::array<std::atomic<uint32_t>, 64> states;
    if (states.at(port).exchange(info.PortState) != info.PortState) ++link_changes;
    calls += 4;
}

int run_as_guest(unsigned thread_count, unsigned seconds) {
    uint32_t count = 0;
    demand(TRELM_LoadLibrary() == TRELM_STATUS_OK && TRELM_GetPortCount(&count) == TRELM_STATUS_OK,
           "no ports");
    if (count == 0) return 1;
    std::atomic<uint64_t> link_changes = 0;
    std::vector<std::thread> threads;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (unsigned i = 0; i < thread_count; ++i) {
        threads.emplace_back([&, i] {
            unsigned long long changes = 0;
            while (std::chrono::steady_clock::now() < end) work_as_guest(i % count, changes);
            link_changes += changes;
        });
    }
    for (std::thread& thread : threads) thread.join();
    demand(TRELM_FreeLibrary() == TRELM_STATUS_OK, "the library was not freed");
    fmt::print("threads: {} calls of {} threads, {} changes of links, {} failures\n", calls.load(),
               thread_count, link_changes.load(), failures.load());
    return failures == 0 ? 0 : 1;
}

int run(unsigned thread_count, unsigned seconds, unsigned seed) {
    fmt::print("threads: seed {}\n", seed);
    hostsim::Model model = hostsim::hosts::legacy_ports(2);
    model.driver(hostsim::DriverKind::kron).presence = hostsim::Driver::Presence::present;
    hostsim::hosts::add_adapter(model, hostsim::DriverKind::kron, 2);
    const hostsim::Host host(model);
    if (!trelm::test::find_library()) return 1;
    for (auto& users : node_users) users = kNoNode;
    learn_tags();

    using Clock = std::chrono::steady_clock;
    constexpr auto kRound = std::chrono::milliseconds(200);
    const auto start = Clock::now();
    const auto wild_from = start + std::chrono::milliseconds(800) * seconds,
               end = start + std::chrono::seconds(seconds);
    std::vector<Caller> callers;
    for (unsigned i = 0; i < thread_count; ++i) callers.emplace_back(seed + i);
    uint64_t rounds = 0;
    auto round_end = start + kRound;
    bool wild = false;
    std::barrier between_rounds(thread_count, [&]() noexcept {
        check_registry(callers);
        ++rounds;
        wild = Clock::now() > wild_from || failures != 0;
        round_end = Clock::now() + kRound;
    });
    std::vector<std::thread> threads;
    for (Caller& caller : callers) {
        threads.emplace_back([&] {
            while (!wild) {
                while (Clock::now() < round_end && failures == 0) caller.call();
                between_rounds.arrive_and_wait();
            }
            while (Clock::now() < end) caller.call_wildly();
        });
    }
    for (std::thread& thread : threads) thread.join();
    check_end();
    fmt::print("threads: {} calls of {} threads in {} rounds, {} loads and frees, {} failures\n",
               calls.load(), thread_count, rounds, lifecycle.now().number, failures.load());
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned threads = 8, seconds = 60, seed = std::random_device{}();
    CLI::App app("Threads that use every public function at once, with loads and frees in between.");
    app.add_option("--threads", threads, "How many");
    app.add_option("--seconds", seconds, "For how long");
    app.add_option("--seed", seed, "What chance starts from");
    app.add_flag("--guest", is_guest, "On the simulated host that this program was started on");
    CLI11_PARSE(app, argc, argv);
    return is_guest ? run_as_guest(threads, seconds) : run(threads, seconds, seed);
}
