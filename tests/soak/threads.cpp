// threads.cpp - threads use every public function at once. In a calm round the library stays loaded and every
// result is known: an open port must answer, and at the end of the round the library must count exactly the
// opens that the threads have made. In a wild round the threads also load and free, so any call may fail, but
// what a call returns must be right. The drivers answer statistics and SCSI commands without a lock, so only
// the library keeps the threads apart.
//
// Before the rounds, threads and forked children write the log at once.
//
// As a guest (--guest) of a host that trelm-hostsim runs, the program calls the drivers of that host.
#include <fmt/format.h>

#include <array>
#include <atomic>
#include <barrier>
#include <fstream>
#include <random>
#include <thread>

#include "../support/child.h"
#include "../support/golden.h"
#include "../support/libc_replacements.h"
#include "../support/log_capture.h"
#include "../support/options.h"
#include "trelm_driver_records.h"
#include "trelm_mgmt.h"

// A forked child never joins its parent's threads. Standard error is that of the log.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() { return "halt_on_error=1:report_thread_leaks=0:log_path=stdout"; }
// The simulated host looks at a descriptor inside close(), which ThreadSanitizer takes for a use after it.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions();
const char* __tsan_default_suppressions() { return "race:host_of_node"; }

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kPorts = 4;
constexpr uint32_t kCounters = 30;
constexpr uint8_t kInquiry = 0x12, kReportLuns = 0xA0;
constexpr uint8_t kOneLun[16]{0, 0, 0, 8, 0, 0, 0, 0, 0, 1};  // the LUN with the number 1
constexpr auto kRound = std::chrono::milliseconds(200);

std::atomic<uint64_t> calls = 0, frees = 0, failures = 0;

template <typename... Values>
void demand(bool fulfilled, fmt::format_string<Values...> complaint, Values&&... values) {
    if (fulfilled || failures++ >= 20) return;
    fmt::print("threads: {}\n", fmt::format(complaint, std::forward<Values>(values)...));
    fflush(stdout);
}

void run_threads(unsigned count, const std::function<void(unsigned)>& work) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
}

// ---- The drivers

std::atomic<int> requests_under_way = 0;
constexpr int kNoNode = -1'000'000;
std::array<std::atomic<int>, 4096> node_users;  // requests to the legacy node by descriptor, or kNoNode

uint8_t* data_of(kronfc_scsi_cmd& command) { return command.data_buffer; }
uint8_t* data_of(dorfc_scsi_cmd& command) {
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(command.data_addr));
}

// Answers a request to a port, or lets the host answer. The numbers of requests are those of the callbacks.
template <typename Command, typename Host>
int serve(uint64_t request, void* record, uint64_t port, const Host& ask_host) {
    ++requests_under_way;
    int result = 0;
    auto& command = *static_cast<Command*>(record);
    if (request == NATIVE_CB_PORT_STATS) {
        auto* const counters = static_cast<uint64_t*>(record);
        for (uint64_t i = 0; i < kCounters; ++i) counters[i] = port * 1000 + i;
    } else if (request == NATIVE_CB_SCSI_CMD) {
        command.sense_len = 1, command.sense[0] = static_cast<uint8_t>(port);
        if (command.direction == SCSI_DIRECTION_IN)
            memset(data_of(command), static_cast<int>(port), command.data_len);
        if (command.cdb[0] == kReportLuns) memcpy(data_of(command), kOneLun, sizeof kOneLun);
    } else {
        result = ask_host();
    }
    if (request == NATIVE_CB_PORT_INFO) {  // port state, speed and target count change together
        static std::atomic<uint8_t> turn = 0;
        auto& info = *static_cast<dorfc_port_info*>(record);
        info.portid = info.port_speed = 1 + turn++ % 3;
        info.tgt_cnt = info.portid;
    }
    --requests_under_way;
    return result;
}

}  // namespace

REPLACES_LIBC(int, vmk_MgmtUserCallbackInvokeInt,
              (uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, void* payload)) {
    const auto ask_host = [&] {
        return NEXT_OF(vmk_MgmtUserCallbackInvokeInt)(handle, instance, callback, count, payload);
    };
    if (!CALLED_BY_LIBRARY()) return ask_host();
    auto* const header = static_cast<native_cb_header*>(payload);
    return serve<kronfc_scsi_cmd>(callback, header + 1, header->host_no, ask_host);
}

REPLACES_LIBC(int, ioctl, (int fd, unsigned long number, void* argument)) {
    const auto ask_host = [&] { return NEXT_OF(ioctl)(fd, number, argument); };
    if (!CALLED_BY_LIBRARY()) return ask_host();
    const bool is_node = fd >= 0 && ++node_users[fd] > 0;
    demand(is_node, "a request went to descriptor {}, which is not the node's", fd);
    if (!is_node) return -1;
    const auto& block = *static_cast<dorfc_ioctl*>(argument);
    void* const record = reinterpret_cast<void*>(static_cast<uintptr_t>(block.ioctlstructaddr));
    const uint64_t request = number - DORFC_GET_HBA_COUNT + NATIVE_CB_HBA_COUNT;
    const int result = serve<dorfc_scsi_cmd>(request, record, 100u + block.hbaselect, ask_host);
    --node_users[fd];
    return result;
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

// The library counts the processes that have it loaded only while no other call is running.
REPLACES_LIBC(FILE*, popen, (const char* command, const char* mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(popen)(command, mode);
    demand(requests_under_way == 0, "the library was freed under {} requests", requests_under_way.load());
    return fmemopen(const_cast<char*>("2\n"), 2, "r");
}
REPLACES_LIBC(int, pclose, (FILE * file)) {
    return CALLED_BY_LIBRARY() ? fclose(file) : NEXT_OF(pclose)(file);
}

namespace {

// ---- The callers

bool round_is_wild = false;
std::array<uint8_t, kPorts> tags;  // the numbers of the ports in the drivers' answers

class Caller {
  public:
    explicit Caller(unsigned seed) : random_(seed) {}

    void call() {
        // A list or a load takes much longer than the other calls.
        static constexpr void (Caller::*kOften[])(uint32_t){
            &Caller::open,        &Caller::close,    &Caller::ask_stats, &Caller::ask_stats,
            &Caller::ask_adapter, &Caller::ask_port, &Caller::send,      &Caller::ask_count,
        };
        static constexpr void (Caller::*kRarely[])(uint32_t){
            &Caller::list_targets, &Caller::list_luns, &Caller::ask_version, &Caller::load, &Caller::free,
        };
        ++calls;
        const auto function =
            pick(8) == 0 ? kRarely[pick(std::size(kRarely))] : kOften[pick(std::size(kOften))];
        (this->*function)(pick(kPorts));
    }
    // Ports that this thread has opened in a calm round; what a free has closed is not known.
    std::array<uint64_t, kPorts> opened{};

  private:
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

    // Whether a call worked.
    static bool judge(const char* function, uint32_t code, bool must_work) {
        const bool may_fail = round_is_wild || !must_work;
        demand(code == TRELM_STATUS_OK || (may_fail && code == TRELM_STATUS_FAILED), "{} returned {:#x}",
               function, code);
        return code == TRELM_STATUS_OK;
    }

    void open(uint32_t port) {
        uint32_t handle = 0;
        if (!judge("TRELM_OpenAdapter", TRELM_OpenAdapter(port, &handle), true)) return;
        demand(handle == port + 1, "port {} was opened with handle {}", port, handle);
        ++opened[port];
    }
    void close(uint32_t port) {
        if (opened[port] == 0) return;
        if (judge("TRELM_CloseAdapter", TRELM_CloseAdapter(port + 1), true)) --opened[port];
    }
    void ask_count(uint32_t) {
        uint32_t count = 0;
        if (judge("TRELM_GetPortCount", TRELM_GetPortCount(&count), true))
            demand(count == kPorts, "{} ports were counted", count);
    }
    void ask_version(uint32_t) {
        std::array<uint8_t, 13> version{};
        demand(TRELM_GetVersion(version.data(), 13) == TRELM_VERSION_NUMBER && version[0] == 'v',
               "no version");
    }
    void ask_adapter(uint32_t port) {
        TRELM_FCOE_INFO info{};
        if (judge("TRELM_GetFcoeInfo", TRELM_GetFcoeInfo(port + 1, &info), opened[port]))
            demand(info.DriverLoaded == 1, "no adapter information");
    }
    void ask_port(uint32_t port) {
        TRELM_VNPORT_INFO info{};
        if (judge("TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(port + 1, 0, &info), opened[port]))
            demand(info.PortFCID == info.TgtCount && info.PortSpeed == info.TgtCount,
                   "mixed port information");
    }
    void ask_stats(uint32_t port) {
        TRELM_PORT_STATS stats{};
        if (judge("TRELM_GetPortStats", TRELM_GetPortStats(port + 1, 0, &stats), opened[port]))
            demand(stats.RxFCoEFrames == tags[port] * 1000u &&
                       stats.LinkFailures == stats.RxFCoEFrames + kCounters - 1,
                   "statistics of another port");
    }
    void send(uint32_t port) {
        TRELM_SCSI_CMND command{};
        command.Direction = TRELM_SCSI_DATA_IN, command.CDBLength = 6, command.CDB[0] = kInquiry;
        command.SenseLength = sizeof command.Sense;
        std::array<uint8_t, 512> data{};
        uint32_t length = sizeof data;
        const uint32_t code = TRELM_SendScsiCommand(port + 1, 0, &command, &length, data.data());
        if (judge("TRELM_SendScsiCommand", code, opened[port]))
            demand(data[0] == tags[port] && data[511] == tags[port] && command.Sense[0] == tags[port],
                   "data of another port");
    }
    void list_targets(uint32_t port) {
        std::array<TRELM_TGT_INFO, 3> targets{};
        TRELM_TGT_INFO* array = targets.data();
        uint32_t count = targets.size();
        if (judge("TRELM_GetTgtInfo", TRELM_GetTgtInfo(port + 1, 0, &count, &array), opened[port]))
            demand(targets[0].LunCount == 1, "a target of {} LUNs", targets[0].LunCount);
    }
    void list_luns(uint32_t port) {
        std::array<TRELM_LUN_INFO, 2> luns{};
        luns[0].Version = 2;
        TRELM_LUN_INFO* array = luns.data();
        uint32_t count = luns.size();
        if (judge("TRELM_GetLunInfo", TRELM_GetLunInfo(port + 1, 0, 0, &count, &array), opened[port]))
            demand(luns[0].ScsiLunNum == 1, "a LUN of another number");
    }
    void load(uint32_t) { demand(TRELM_LoadLibrary() == TRELM_STATUS_OK, "a load failed"); }
    void free(uint32_t) {
        if (!round_is_wild || pick(50) != 0) return;
        demand(TRELM_FreeLibrary() == TRELM_STATUS_OK, "a free failed");
        ++frees;
    }

    std::mt19937 random_;
};

// ---- The rounds: nobody else is working at their ends

// The library must count the opens of its callers, and a record of a port must come from one answer.
void check_registry(const std::vector<Caller>& callers) {
    for (uint32_t port = 0; port < kPorts; ++port) {
        const trelm_priv_db& pdb = *trelm_get_pdb_from_user_instance(port);
        const trelm_hw_info& hw = *pdb.hw_info;
        uint64_t opened = 0;
        for (const Caller& caller : callers) opened += caller.opened[port];
        demand(pdb.port_id == pdb.tgt_cnt && pdb.port_speed == pdb.tgt_cnt, "port {} is of two answers",
               port);
        demand(hw.open_cnt == opened, "port {}: {} opens counted, {} made", port, hw.open_cnt, opened);
        demand(hw.apihandle == (opened ? port + 1 : 0), "port {} has handle {}", port, hw.apihandle);
        demand((hw.oshandle != -1) == (opened && !hw.native_driver), "port {} has descriptor {}", port,
               hw.oshandle);
    }
}

// A free closes all ports, and a load finds them again.
void load_anew(std::vector<Caller>& callers) {
    uint32_t count = 0;
    demand(TRELM_LoadLibrary() == TRELM_STATUS_OK && TRELM_FreeLibrary() == TRELM_STATUS_OK, "no free");
    demand(TRELM_GetPortCount(&count) == TRELM_STATUS_FAILED, "ports were counted after a free");
    demand(TRELM_LoadLibrary() == TRELM_STATUS_OK && TRELM_GetPortCount(&count) == TRELM_STATUS_OK &&
               count == kPorts,
           "a load found {} ports", count);
    demand(requests_under_way == 0, "{} requests are under way", requests_under_way.load());
    for (Caller& caller : callers) caller.opened = {};
    for (uint32_t port = 0; port < kPorts; ++port) {
        demand(TRELM_CloseAdapter(port + 1) == TRELM_STATUS_FAILED, "port {} was open after a load", port);
        const trelm_priv_db& pdb = *trelm_get_pdb_from_user_instance(port);
        tags[port] = static_cast<uint8_t>(pdb.hw_info->native_driver ? pdb.host_no : 100 + pdb.drvr_inst);
    }
}

// ---- The log

int write_line(uint64_t writer, uint64_t number) {
    trelm_dbg_print("writer", "(", writer, 10, 0);
    trelm_dbg_print(nullptr, "): a line in two pieces, number ", number, 10, 1);
    return 0;
}

// Lines of several threads, and of children that are forked meanwhile, must be whole in the log file.
void check_log() {
    constexpr unsigned kWriters = 4, kForks = 10, kLines = 200;
    static constexpr uint8_t kBytes[]{1, 2, 3, 4};
    const trelm::test::LogCapture standard_error(7);
    std::thread writers([] {
        run_threads(kWriters, [](unsigned writer) {
            for (unsigned i = 0; i < kLines; ++i) {
                write_line(writer, i);
                if (i % 16 == 0) trelm_dbg_dump("dump", kBytes, 8, sizeof kBytes);
            }
        });
    });
    for (unsigned i = 0; i < kForks; ++i)
        demand(trelm::test::in_child([i] { return write_line(kWriters, i); }) == 0, "a child failed");
    writers.join();
    const trelm::test::Pattern whole_line(".{15}: writer\\(\\d\\): a line in two pieces, number \\d+");
    std::ifstream file("/var/tmp/libtrelm.log");  // of the simulated host
    unsigned whole = 0;
    for (std::string line; std::getline(file, line);) whole += whole_line.is_whole(line);
    demand(whole == kWriters * kLines + kForks, "{} lines of the log are whole", whole);
}

// ---- The program

// Every call must succeed while the host file is edited.
void run_as_guest(unsigned thread_count, unsigned seconds) {
    uint32_t count = 0;
    demand(TRELM_LoadLibrary() == TRELM_STATUS_OK && TRELM_GetPortCount(&count) == TRELM_STATUS_OK,
           "no ports");
    std::array<std::atomic<uint32_t>, 64> states{};
    std::atomic<uint64_t> link_changes = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    run_threads(thread_count, [&](unsigned i) {
        const uint32_t port = i % std::max(count, 1U);
        while (Clock::now() < end) {
            uint32_t handle = 0;
            TRELM_VNPORT_INFO info{};
            TRELM_PORT_STATS stats;
            demand(TRELM_OpenAdapter(port, &handle) == TRELM_STATUS_OK, "port {} did not open", port);
            demand(TRELM_GetVNPortInfo(handle, 0, &info) == TRELM_STATUS_OK, "port {} tells nothing", port);
            demand(TRELM_GetPortStats(handle, 0, &stats) == TRELM_STATUS_OK, "port {} counts nothing", port);
            demand(TRELM_CloseAdapter(handle) == TRELM_STATUS_OK, "port {} did not close", port);
            link_changes += states.at(port).exchange(info.PortState) != info.PortState;
            calls += 4;
        }
    });
    demand(TRELM_FreeLibrary() == TRELM_STATUS_OK, "the library was not freed");
    fmt::print("threads: {} calls of {} threads, {} changes of links, {} failures\n", calls.load(),
               thread_count, link_changes.load(), failures.load());
}

void run(unsigned thread_count, unsigned seconds, unsigned seed) {
    hostsim::Model model = hostsim::hosts::legacy_ports(2);
    model.driver(hostsim::DriverKind::kron).presence = hostsim::Driver::Presence::present;
    hostsim::hosts::add_adapter(model, hostsim::DriverKind::kron, 2);
    for (uint32_t port = 0; port < kPorts; ++port)
        hostsim::hosts::add_target(hostsim::hosts::port(model, port), 0);
    const hostsim::Host host(model);
    demand(trelm::test::find_library(), "the library is not in the process");
    for (auto& users : node_users) users = kNoNode;
    check_log();
    fmt::print("threads: seed {}\n", seed);

    std::vector<Caller> callers;
    for (unsigned i = 0; i < thread_count; ++i) callers.emplace_back(seed + i);
    load_anew(callers);
    uint64_t rounds = 0;
    bool is_over = false;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    auto round_end = Clock::now() + kRound;
    std::barrier between_rounds(thread_count, [&]() noexcept {
        if (!round_is_wild) check_registry(callers);
        load_anew(callers);
        ++rounds;
        round_is_wild = !round_is_wild;
        is_over = Clock::now() > end || failures != 0;
        round_end = Clock::now() + kRound;
    });
    run_threads(thread_count, [&](unsigned i) {
        while (!is_over) {
            while (Clock::now() < round_end) callers[i].call();
            between_rounds.arrive_and_wait();
        }
    });
    demand(TRELM_FreeLibrary() == TRELM_STATUS_OK, "the library was not freed");
    fmt::print("threads: {} calls of {} threads in {} rounds, {} frees, {} failures\n", calls.load(),
               thread_count, rounds, frees.load(), failures.load());
}

}  // namespace

int main(int argc, char** argv) {
    unsigned threads = 8, seconds = 60, seed = std::random_device{}();
    bool is_guest = false;
    trelm::test::read_options(
        argc, argv, "Threads that use every public function at once, with loads and frees in between.",
        {{"--threads", &threads, "How many"},
         {"--seconds", &seconds, "For how long"},
         {"--seed", &seed, "What chance starts from"},
         {"--guest", &is_guest, "On the simulated host that this program was started on"}});
    is_guest ? run_as_guest(threads, seconds) : run(threads, seconds, seed);
    return failures == 0 ? 0 : 1;
}
