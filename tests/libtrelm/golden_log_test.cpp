// golden_log_test.cpp - the log of one scenario over each driver: a load, every call with success and
// failure, a free, and loads that fail. Each file in golden/ has the calls of the scenario, their results and
// their lines, with only trace lines (DRIVER_trace.txt) or only error lines (DRIVER_error.txt). Numbers are
// large enough to show their base.
//
// After an intended change `./dev golden` writes the files again. Read the difference before you commit it.
#include <fcntl.h>

#include <fstream>
#include <regex>

#include "own_calls.h"
#include "shared_db.h"
#include "support/failing_allocation.h"
#include "support/places.h"
#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr uint32_t kTraceLines = 2;
constexpr uint32_t kInstance = 10, kHandle = 11, kTarget = 12;
constexpr DriverFailure kRefused{.status = 12, .error = ENOSPC}, kUnheard{.error = ENOSPC};

// One of sixteen ports has no host number, two belong to an unknown device, and one does not report its
// location.
hostsim::Model described(DriverKind kind) {
    hostsim::Model model = hostsim::hosts::ports(kind, 16);
    model.adapters[2].device_id = 0x1234;
    model.driver(kind).reported_port_count = kind == DriverKind::legacy ? 15 : 16;
    model.faults = {fault(Operation::hostno, kRefused, 3), fault(Operation::port_info, kUnheard, 7),
                    fault(Operation::pci_info, {.error = ENOSPC}, 8)};
    for (size_t i = 0; i < 16; ++i) {
        hostsim::PhysicalPort& port = hostsim::hosts::port(model, i);
        hostsim::hosts::add_fcf(port);
        hostsim::hosts::add_target(port, 1, 1);
        hostsim::hosts::add_target(port, kTarget, 2);
    }
    hostsim::hosts::add_virtual_port(hostsim::hosts::port(model, 12)).npiv_index = 20;
    return model;
}

// While the object lives, new descriptors are 100 and above.
class HighDescriptors {
  public:
    HighDescriptors() {
        while (taken_.empty() || taken_.back() < 99) taken_.push_back(open("/dev/null", O_RDWR | O_CLOEXEC));
    }
    ~HighDescriptors() {
        for (const int fd : taken_) close(fd);
    }
    HighDescriptors(HighDescriptors&&) = delete;

  private:
    std::vector<int> taken_;
};

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

class GoldenLog : public testing::TestWithParam<std::tuple<DriverKind, uint32_t>> {
  protected:
    using Call = std::function<uint32_t()>;

    // The text of the call, its result and its lines. Only the first dump of a port is kept whole. Other
    // tests check the other dumps, and the lines for added and removed records.
    void tell(const std::string& text, const Call& call) {
        const uint32_t result = call();
        story += fmt::format("# {} = {:#x}\n", text, result);
        for (const std::string& line : log.take()) {
            const bool dumps_port = line == " API Private Data:";
            dumps += dumps_port;
            const bool dumped = line[0] == ' ' && !dumps_port && dumps > 1;
            if (!dumped && !std::regex_search(line, added_or_removed)) story += line + "\n";
        }
        replace_all(story, "sem_id=" + std::to_string(trelm_db_sem_id), "sem_id=<id>");
    }
#define TELL(...) tell(#__VA_ARGS__, [&] { return static_cast<uint32_t>(__VA_ARGS__); })
    // With requests that the driver refuses, and requests that fail before they reach it.
    void tell_failing(Operation operation, const std::string& text, const Call& call) {
        for (const DriverFailure& failure : {kRefused, kUnheard}) {
            failure.of(host, operation);
            tell(fmt::format("{}, status {}, errno {}", text, failure.status, failure.error), call);
        }
        host.tamper = nullptr;
    }
#define TELL_FAILING(operation, ...) \
    tell_failing(operation, #__VA_ARGS__, [&] { return static_cast<uint32_t>(__VA_ARGS__); })

    void tell_load();
    void tell_open();
    void tell_port();
    void tell_scsi();
    void tell_targets();
    void tell_close();
    void tell_failing_loads();

    const DriverKind kind = std::get<0>(GetParam());
    hostsim::Host host{described(kind)};
    LogCapture log{std::get<1>(GetParam())};
    const HighDescriptors high;
    const std::regex added_or_removed{"^trelm_(alloc|free)_.*: (entered|exiting)"};
    std::string story;
    int dumps = 0;
    uint32_t handle = 0, count = 0;
};

void GoldenLog::tell_load() {
    const uint32_t marks[8] = {0x1C, 0xFFFFFFFF, 0xF4};  // three slots are taken
    std::ofstream("/tmp/trelm_shared.dat", std::ios::binary)
        .write(reinterpret_cast<const char*>(marks), sizeof marks);
    TELL(TRELM_GetPortCount(&count));
    TELL(TRELM_OpenAdapter(kInstance, &handle));
    TELL(TRELM_CloseAdapter(kHandle));
    TELL(TRELM_LoadLibrary());
    TELL(TRELM_LoadLibrary());
    TELL(TRELM_GetVersion(nullptr, 100));
    TELL(TRELM_GetPortCount(nullptr));
    TELL(TRELM_GetPortCount(&count));
}

void GoldenLog::tell_open() {
    TELL(TRELM_OpenAdapter(kInstance, nullptr));
    TELL(TRELM_OpenAdapter(99, &handle));
    if (kind == DriverKind::legacy) {
        host.inject(fault(Operation::open, {.error = ENOSPC}));
        TELL(TRELM_OpenAdapter(kInstance, &handle));
    }
    TELL(TRELM_OpenAdapter(kInstance, &handle));
    TELL(TRELM_OpenAdapter(kInstance, &handle));
}

void GoldenLog::tell_port() {
    TRELM_FCOE_INFO fcoe{};
    TRELM_VNPORT_INFO port{};
    TRELM_PORT_STATS stats{};
    TELL(TRELM_GetFcoeInfo(99, &fcoe));
    TELL(TRELM_GetFcoeInfo(kHandle, nullptr));
    TELL(TRELM_GetFcoeInfo(kHandle, &fcoe));
    TELL(TRELM_GetVNPortInfo(kHandle, 99, &port));
    TELL(TRELM_GetVNPortInfo(kHandle, 0, nullptr));
    TELL(TRELM_GetVNPortInfo(kHandle, 0, &port));
    TELL_FAILING(Operation::port_info, TRELM_GetVNPortInfo(kHandle, 0, &port));
    TELL_FAILING(Operation::fcf_info, TRELM_GetVNPortInfo(kHandle, 0, &port));
    TELL(TRELM_GetPortStats(kHandle, 99, &stats));
    TELL(TRELM_GetPortStats(kHandle, 0, nullptr));
    TELL(TRELM_GetPortStats(kHandle, 0, &stats));
    TELL_FAILING(Operation::port_stats, TRELM_GetPortStats(kHandle, 0, &stats));
}

void GoldenLog::tell_scsi() {
    TRELM_SCSI_CMND inquiry{};
    inquiry.ScsiTgtNum = kTarget;
    inquiry.Direction = TRELM_SCSI_DATA_IN, inquiry.CDBLength = 6, inquiry.CDB[0] = 0x12, inquiry.CDB[4] = 36;
    uint32_t length = 36;
    std::array<uint8_t, 36> data{};
    TELL(TRELM_SendScsiCommand(kHandle, 0, nullptr, &length, data.data()));
    TELL(TRELM_SendScsiCommand(kHandle, 99, &inquiry, &length, data.data()));
    TELL(TRELM_SendScsiCommand(kHandle, 0, &inquiry, &length, data.data()));
    TELL_FAILING(Operation::scsi, TRELM_SendScsiCommand(kHandle, 0, &inquiry, &length, data.data()));
}

void GoldenLog::tell_targets() {
    std::array<TRELM_TGT_INFO, 2> targets{};
    std::array<TRELM_LUN_INFO, 2> luns{};
    TRELM_TGT_INFO *to_targets = targets.data(), *no_targets = nullptr;
    TRELM_LUN_INFO *to_luns = luns.data(), *no_luns = nullptr;
    TELL(TRELM_GetTgtInfo(99, 0, &count, &to_targets));
    TELL(TRELM_GetTgtInfo(kHandle, 0, &(count = 1), &to_targets));
    TELL(TRELM_GetTgtInfo(kHandle, 0, &(count = 2), &no_targets));
    TELL(TRELM_GetTgtInfo(kHandle, 0, &(count = 2), &to_targets));
    TELL_FAILING(Operation::tgt_info, TRELM_GetTgtInfo(kHandle, 0, &(count = 2), &to_targets));
    TELL_FAILING(Operation::scsi, TRELM_GetTgtInfo(kHandle, 0, &(count = 2), &to_targets));
    TELL(TRELM_GetLunInfo(kHandle, 0, kTarget, &(count = 2), &no_luns));
    TELL(TRELM_GetLunInfo(kHandle, 0, kTarget, &(count = 1), &to_luns));
    TELL(TRELM_GetLunInfo(kHandle, 20, kTarget, &(count = 16), &to_luns));
    TELL(TRELM_GetLunInfo(kHandle, 0, kTarget, &(count = 2), &to_luns));
    TELL_FAILING(Operation::scsi, TRELM_GetLunInfo(kHandle, 0, kTarget, &(count = 2), &to_luns));
}

void GoldenLog::tell_close() {
    trelm_priv_db* const pdb = trelm_get_pdb_from_user_handle(kHandle);
    TELL(TRELM_CloseAdapter(kHandle));
    TELL(TRELM_CloseAdapter(kHandle));
    TELL(TRELM_CloseAdapter(kHandle));
    // For a closed port, and for no port.
    for (trelm_priv_db* of : {pdb, static_cast<trelm_priv_db*>(nullptr)}) {
        if (kind == DriverKind::kron) TELL(trelmnt_close_adapter(of));
        if (kind == DriverKind::pyx) TELL(trelm_pyxnt_close_adapter(of));
    }
    TELL(TRELM_OpenAdapter(kInstance, &handle));
    if (kind == DriverKind::legacy) {
        uint32_t error = 0;
        host.inject(fault(Operation::close, {.error = ENOSPC}));
        TELL(TRELM_CloseAdapter(kHandle));
        put_back(pdb->hw_info->oshandle);
        TELL(trelm_close_adapter(nullptr, &error));
    }
    TELL(trelm_sem_wait(-1));
    TELL(trelm_sem_signal(-1));
    TELL(TRELM_FreeLibrary());
    TELL(TRELM_FreeLibrary());
}

void GoldenLog::tell_failing_loads() {
    const Operation first = kind == DriverKind::legacy ? Operation::open : Operation::init;
    for (const hostsim::Fault& wrong :
         {kind == DriverKind::legacy ? fault(first, {.error = EACCES}) : fault(first, {.status = 22}),
          fault(Operation::hba_count, kRefused), fault(Operation::hba_count, kUnheard),
          fault(Operation::open, {.error = EBUSY}, 2)}) {
        if (wrong.occurrence == 2 && kind != DriverKind::legacy) continue;
        host.edit([&](hostsim::Model& model) { model.faults = {wrong}; });
        TELL(TRELM_LoadLibrary());
        TRELM_FreeLibrary();
        log.take();
    }
    host.edit([](hostsim::Model& model) { model.faults = {fault(Operation::hostno, kRefused, 1)}; });
    for (const auto& [size, after] : {std::pair{sizeof(trelm_priv_db), 12U}, {sizeof(trelm_hw_info), 12U}}) {
        const FailingAllocation failing(size, after);
        tell(fmt::format("TRELM_LoadLibrary() without memory for another {}",
                         size == sizeof(trelm_priv_db) ? "port" : "hardware record"),
             TRELM_LoadLibrary);
    }
}

std::string file_name(const testing::TestParamInfo<std::tuple<DriverKind, uint32_t>>& info) {
    return std::string(hostsim::kDriverKindNames.at(static_cast<size_t>(std::get<0>(info.param)))) +
           (std::get<1>(info.param) == kTraceLines ? "_trace" : "_error");
}

TEST_P(GoldenLog, MatchesTheFile) {
    tell_load();
    tell_open();
    tell_port();
    tell_scsi();
    tell_targets();
    tell_close();
    tell_failing_loads();
    TRELM_FreeLibrary();
    const hostsim::OwnCalls own;  // the file is on the machine, even if it is below /tmp
    const std::filesystem::path file =
        std::filesystem::path(source_dir()) / "tests/libtrelm/golden" / (file_name({GetParam(), 0}) + ".txt");
    if (getenv("TRELM_REFRESH_GOLDEN")) std::ofstream(file) << story;
    std::ifstream golden(file);
    EXPECT_EQ(story, std::string(std::istreambuf_iterator<char>(golden), {}));
}

INSTANTIATE_TEST_SUITE_P(, GoldenLog,
                         testing::Combine(testing::Values(DriverKind::kron, DriverKind::pyx,
                                                          DriverKind::legacy),
                                          testing::Values(kTraceLines, kErrorLines)),
                         file_name);

}  // namespace
