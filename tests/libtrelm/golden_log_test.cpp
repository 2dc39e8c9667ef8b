// golden_log_test.cpp - the log of one scenario over each driver: a load, every call with success and
// failure, a free, and loads that fail. Each file in golden/ has the calls of the scenario, their results and
// their lines, with only trace lines (DRIVER_trace.txt) or only error lines (DRIVER_error.txt). Numbers are
// large enough to show their base.
#include <fstream>

#include "shared_db.h"
#include "support/failing_allocation.h"
#include "support/port_calls.h"
#include "support/story.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr uint32_t kInstance = 10, kHandle = 11, kTarget = 12;
constexpr DriverFailure kRefused{.status = 12, .error = ENOSPC}, kUnheard{.error = ENOSPC};

// One of sixteen ports has no host number, two belong to an unknown device, and one does not report its
// location.
hostsim::Model described(DriverKind kind) {
    hostsim::Model model = hostsim::hosts::ports(kind, 16);
    model.adapters[2].device_id = 0x1234;
    hostsim::Adapter& adapter = model.adapters[5];
    adapter.manufacturer = std::string(64, 'm'), adapter.subsystem_vendor_id = 0x193D, adapter.revision = 10;
    adapter.pci_domain = 13, adapter.pci_bus = 18, adapter.pci_device = 30;
    hostsim::PhysicalPort& detailed = adapter.ports[0];
    detailed.host_no = 33, detailed.port_number = 12, detailed.link_state = 12;
    detailed.speed = 10, detailed.supported_speed = 0x104, detailed.npiv_index = 16;
    detailed.reported_target_count = 17, detailed.reported_fcf_count = 19, detailed.reported_npiv_count = 20;
    model.driver(kind).name = "drv-of-16-bytes!";
    model.driver(kind).reported_port_count = kind == DriverKind::legacy ? 15 : 16;
    model.faults = {fault(Operation::hostno, kRefused, 3),
                    fault(Operation::port_info, kind == DriverKind::legacy ? kRefused : kUnheard, 7),
                    fault(Operation::pci_info, {.error = ENOSPC}, 8)};
    for (size_t i = 0; i < 16; ++i) {
        hostsim::PhysicalPort& port = hostsim::hosts::port(model, i);
        hostsim::hosts::add_fcf(port);
        hostsim::hosts::add_target(port, 1, 1);
        hostsim::Target& target = hostsim::hosts::add_target(port, kTarget, 1);
        hostsim::hosts::add_lun(target, 31, 0x2'0000'0000);
    }
    hostsim::hosts::add_virtual_port(hostsim::hosts::port(model, 12)).npiv_index = 20;
    return model;
}

class GoldenLog : public testing::TestWithParam<std::tuple<DriverKind, uint32_t>> {
  protected:
    using Call = std::function<uint32_t()>;

    // Four dumps are enough. Of the legacy driver, the fifth port has no names, the sixth no hardware record.
    // registry_test has the lines for added and removed records.
    GoldenLog() {
        story.hides = [this](const std::string& line) {
            if (walks) return line.find("got index") == line.npos;
            const bool begins_dump = line == " API Private Data:";
            dumps += begins_dump;
            const bool is_told = begins_dump || (dumps >= 5 && dumps <= 8);
            return (line[0] == ' ' && !is_told) || added_or_removed.is_in(line);
        };
    }
    // With requests that the driver refuses, and requests that fail before they reach it.
    void tell_failing(Operation operation, const std::string& text, const Call& call) {
        for (const DriverFailure& failure : {kRefused, kUnheard}) {
            failure.of(host, operation);
            story.tell(fmt::format("{}, status {}, errno {}", text, failure.status, failure.error), call);
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
    void tell_exhausted_memory();

    const DriverKind kind = std::get<0>(GetParam());
    hostsim::Host host{described(kind)};
    Story story{std::get<1>(GetParam())};
    const Pattern added_or_removed{"^trelm_(alloc|free)_.*: (entered|exiting)"};
    int dumps = 0;
    bool walks = false;  // over all targets: only the end is told
    uint32_t handle = 0, count = 0;
    TRELM_VNPORT_INFO port{};
    TRELM_PORT_STATS stats{};
    std::array<TRELM_TGT_INFO, 201> targets{};
    std::array<TRELM_LUN_INFO, 2> luns{};
    TRELM_TGT_INFO *to_targets = targets.data(), *no_targets = nullptr;
    TRELM_LUN_INFO *to_luns = luns.data(), *no_luns = nullptr;
};

void GoldenLog::tell_load() {
    const uint32_t marks[8] = {0x1C, 0xFFFFFFFF, 0xF4};  // three slots are taken
    std::ofstream("/tmp/trelm_shared.dat", std::ios::binary)
        .write(reinterpret_cast<const char*>(marks), sizeof marks);
    TELL(TRELM_FreeLibrary());
    TELL(TRELM_GetPortCount(&count));
    TELL(TRELM_OpenAdapter(kInstance, &handle));
    TELL(TRELM_CloseAdapter(kHandle));
    host.tamper = [](DriverAnswer& answer) {  // a number that shows its base
        if (answer.call.operation == Operation::pci_info) answer.as<dorfc_pci_info>().function_num += 24;
    };
    TELL(TRELM_LoadLibrary());
    TELL(TRELM_LoadLibrary());
    TELL(TRELM_GetVersion(nullptr, 100));
    TELL(TRELM_GetPortCount(nullptr));
    TELL(TRELM_GetPortCount(&count));
}

void GoldenLog::tell_open() {
    TELL(TRELM_OpenAdapter(kInstance, nullptr));
    TELL(TRELM_OpenAdapter(99, &handle));
    trelm_priv_db without_adapter{};
    for (trelm_priv_db* of : {&without_adapter, static_cast<trelm_priv_db*>(nullptr)}) {
        if (kind == DriverKind::kron) TELL(trelmnt_open_adapter(of, kInstance, &handle));
        if (kind == DriverKind::pyx) TELL(trelm_pyxnt_open_adapter(of, kInstance, &handle));
    }
    if (kind == DriverKind::legacy) {
        uint32_t without_hardware = 0;
        for (trelm_priv_db* pdb : registry()) {
            if (!pdb->hw_info) trelm_get_instance_from_pdb(pdb, &without_hardware);
        }
        TELL(TRELM_OpenAdapter(without_hardware, &count));
        TELL(trelm_charnode_exist(nullptr));
        TELL(trelm_charnode_exist("/tmp/trelm_shared.dat"));
        host.inject(fault(Operation::open, {.error = ENOSPC}));
        TELL(TRELM_OpenAdapter(kInstance, &handle));
    }
    TELL(TRELM_OpenAdapter(kInstance, &handle));
    TELL(TRELM_OpenAdapter(kInstance, &handle));
}

void GoldenLog::tell_port() {
    TRELM_FCOE_INFO fcoe{};
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
    for (const uint8_t opcode : {0x12, 0x25, 0x9E}) {
        hostsim::Fault fails = fault(Operation::scsi, kRefused, opcode == 0x9E ? 1 : 2);
        fails.opcode = opcode;
        host.edit([&fails](hostsim::Model& model) { model.faults = {fails}; });
        story.tell(fmt::format("TRELM_GetLunInfo, command {:#x} fails", opcode),
                   [&] { return TRELM_GetLunInfo(kHandle, 0, kTarget, &(count = 2), &to_luns); });
    }
    for (const uint32_t reported : {0, 200}) {
        host.edit([reported](hostsim::Model& model) {
            for (size_t i = 0; i < 16; ++i) hostsim::hosts::port(model, i).reported_target_count = reported;
        });
        TRELM_GetVNPortInfo(kHandle, 0, &port);
        story.skip();
        walks = reported == 200;
        TELL(TRELM_GetTgtInfo(kHandle, 0, &(count = 201), &to_targets));
    }
    walks = false;
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
        story.skip();
    }
    const DriverFailure& failure = kind == DriverKind::legacy ? kUnheard : kRefused;
    host.edit([&](hostsim::Model& model) { model.faults = {fault(Operation::hostno, failure, 1)}; });
    for (const auto& [size, after] : {std::pair{sizeof(trelm_priv_db), 12U}, {sizeof(trelm_hw_info), 12U}}) {
        const FailingAllocation failing(size, after);
        story.tell(fmt::format("TRELM_LoadLibrary() without memory for another {}",
                               size == sizeof(trelm_priv_db) ? "port" : "hardware record"),
                   TRELM_LoadLibrary);
    }
}

// Each call without one of the blocks that it takes. A free also frees the blocks that are kept for the next
// request. Otherwise the second request of a call uses the block of the first.
void GoldenLog::tell_exhausted_memory() {
    constexpr size_t kRequest = 520, kScsiRequest = 262444, kList = 16384, kTargetRecord = 64;
    TRELM_SCSI_CMND ready{};
    dorfc_fcf_info fcf{};
    uint32_t stat = 0;
    ready.ScsiTgtNum = kTarget, ready.CDBLength = 6;
    host.edit([this](hostsim::Model& model) {
        model = described(kind);
        model.faults.clear();
    });
    const auto opened = [] { return trelm_get_pdb_from_user_handle(kHandle); };
    const auto start_anew = [this] {
        TRELM_FreeLibrary();
        TRELM_LoadLibrary();
        TRELM_OpenAdapter(kInstance, &handle);
        count = 2;
        story.skip();
    };
#define TELL_WITHOUT(size, after, ...)                \
    {                                                 \
        start_anew();                                 \
        const FailingAllocation failing(size, after); \
        TELL(__VA_ARGS__);                            \
    }
    TELL_WITHOUT(kRequest, 0, TRELM_GetPortStats(kHandle, 0, &stats));
    TELL_WITHOUT(kRequest, 1, TRELM_GetPortStats(kHandle, 0, &stats));
    TELL_WITHOUT(kRequest, 0, TRELM_GetVNPortInfo(kHandle, 0, &port));
    TELL_WITHOUT(kRequest, 0, TRELM_SendScsiCommand(kHandle, 0, &ready, nullptr, nullptr));
    TELL_WITHOUT(kScsiRequest, 0, TRELM_SendScsiCommand(kHandle, 0, &ready, nullptr, nullptr));
    TELL_WITHOUT(kScsiRequest, 1, TRELM_SendScsiCommand(kHandle, 0, &ready, nullptr, nullptr));
    TELL_WITHOUT(kList, 0, TRELM_GetTgtInfo(kHandle, 0, &count, &to_targets));
    TELL_WITHOUT(kTargetRecord, 0, TRELM_GetTgtInfo(kHandle, 0, &count, &to_targets));
    TELL_WITHOUT(kRequest, 0, TRELM_GetTgtInfo(kHandle, 0, &count, &to_targets));
    TELL_WITHOUT(kList, 0, TRELM_GetLunInfo(kHandle, 0, kTarget, &count, &to_luns));
    if (kind == DriverKind::kron) TELL_WITHOUT(kRequest, 0, trelmnt_get_fcf_info(opened(), &fcf, &stat));
    if (kind == DriverKind::pyx) TELL_WITHOUT(kRequest, 0, trelm_pyxnt_get_fcf_info(opened(), &fcf, &stat));
}

std::string test_name(const testing::TestParamInfo<std::tuple<DriverKind, uint32_t>>& info) {
    const auto& [kind, flags] = info.param;
    return driver_name({kind, 0}) + category(flags);
}

TEST_P(GoldenLog, MatchesTheFile) {
    tell_load();
    tell_open();
    tell_port();
    tell_scsi();
    tell_targets();
    tell_close();
    tell_failing_loads();
    tell_exhausted_memory();
    TRELM_FreeLibrary();
    story.expect_golden(driver_name({kind, 0}));
}

INSTANTIATE_TEST_SUITE_P(, GoldenLog,
                         testing::Combine(testing::Values(DriverKind::kron, DriverKind::pyx,
                                                          DriverKind::legacy),
                                          testing::Values(kTraceLines, kErrorLines)),
                         test_name);

}  // namespace
