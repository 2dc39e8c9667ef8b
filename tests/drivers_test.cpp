// drivers_test.cpp - the simulated host's two kernel interfaces, asked directly: what they refuse, what each
// request gets, and how faults, a test's own hands and edits of the host file change it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "hosts.h"
#include "trelm_driver_records.h"
#include "vmkmgmt.h"

namespace {

using hostsim::DriverKind;
using hostsim::Fault;
using hostsim::Host;
using hostsim::Model;
using hostsim::Operation;
namespace hosts = hostsim::hosts;

// ---- The two interfaces, spoken as a management library speaks them
// ----------------------------------------------------

struct Signature {
    std::array<vmk_MgmtCallbackInfo, 10> callbacks{};
    vmk_MgmtApiSignature api{};

    explicit Signature(DriverKind kind) {
        constexpr std::array<uint64_t, 10> sizes{8, 16, 72, 520, 520, 72, 72, 262444, 24, 262172};
        for (size_t i = 0; i < sizes.size(); ++i) {
            callbacks[i].location = VMK_MGMT_CALLBACK_KERNEL;
            callbacks[i].synchronous = 1;
            callbacks[i].numParms = 1;
            callbacks[i].parmSizes[0] = sizes[i];
            callbacks[i].parmTypes[0] = VMK_MGMT_PARMTYPE_INOUT;
            callbacks[i].callbackId = 16 + i;
        }
        const bool kron = kind == DriverKind::kron;
        api.version = 0x01000000;
        std::strcpy(api.name.string, kron ? "kronnativefc" : "cx_fcoe");
        std::strcpy(api.vendor.string, "Calvexa");
        api.numCallbacks = kron ? 10 : 8;
        api.callbacks = callbacks.data();
    }

    int connect(uint64_t cookie, vmk_MgmtUserHandle& handle) {
        return vmk_MgmtUserInit(&api, cookie, &handle);
    }
};

uint64_t cookie_of(DriverKind kind) { return kind == DriverKind::kron ? 501 : 601; }

struct Outcome {
    int result = 0;
    uint32_t status = 0;
    int error = 0;
};
bool operator==(const Outcome& a, const Outcome& b) {
    return a.result == b.result && a.status == b.status && a.error == b.error;
}
void PrintTo(const Outcome& o, std::ostream* out) {
    *out << "result " << o.result << ", status " << o.status << ", errno " << o.error;
}
constexpr Outcome kGood{};

dorfc_ioctl request_block(uint16_t port, void* payload) {
    dorfc_ioctl block{};
    std::memcpy(block.signature, "DORFC", 5);
    block.addrmode = 2;
    block.version = 1;
    block.hbaselect = port;
    block.ioctlstructaddr = reinterpret_cast<uintptr_t>(payload);
    return block;
}

// A port of any driver, asked through whichever interface it has. Ports are counted as the driver enumerates
// them.
class Line {
  public:
    Line(Host& host, DriverKind kind) : host_(host), kind_(kind) {
        if (kind == DriverKind::legacy) return;
        EXPECT_EQ(Signature(kind).connect(cookie_of(kind), handle_), 0);
    }

    uint32_t host_number(uint32_t index) {
        uint32_t number = 0;
        EXPECT_EQ(ask_host_number(index, number), kGood);
        return number;
    }

    Outcome ask_host_number(uint32_t index, uint32_t& number) {
        if (kind_ == DriverKind::legacy) {
            dorfc_hostno record{};
            const Outcome outcome = ioctl(DORFC_GET_HOSTNO, static_cast<uint16_t>(index), &record);
            number = record.host_no;
            return outcome;
        }
        kronfc_hostno_cb record{.inst = index, .host_no = 0, .status = 0};
        const Outcome outcome = invoke(NATIVE_CB_HOSTNO, &record);
        number = record.host_no;
        return {outcome.result, record.status, outcome.error};
    }

    Outcome count(int64_t& count) {
        if (kind_ == DriverKind::legacy) {
            dorfc_hba_cnt record{};
            const Outcome outcome = ioctl(DORFC_GET_HBA_COUNT, 0, &record);
            count = record.hba_cnt;
            return outcome;
        }
        kronfc_hba_cnt_cb record{};
        const Outcome outcome = invoke(NATIVE_CB_HBA_COUNT, &record);
        count = record.hba_cnt;
        return {outcome.result, static_cast<uint32_t>(record.status), outcome.error};
    }

    // Operations on one port. The native drivers' records are the legacy one's behind a header.
    template <typename Record>
    Outcome ask(Operation operation, uint32_t index, Record& record) {
        const auto number = static_cast<uint32_t>(operation) - static_cast<uint32_t>(Operation::pci_info);
        if (kind_ == DriverKind::legacy)
            return ioctl(DORFC_GET_PCI_INFO + number, static_cast<uint16_t>(index), &record);
        struct [[gnu::packed]] Wrapped {
            native_cb_header header;
            Record record;
        } wrapped{.header = {.host_no = host_number(index), .status = 0}, .record = record};
        const Outcome outcome = invoke(NATIVE_CB_PCI_INFO + number, &wrapped);
        record = wrapped.record;
        return {outcome.result, wrapped.header.status, outcome.error};
    }

    // A SCSI command without regard to where its data travels.
    Outcome scsi(uint32_t index, uint32_t target, uint32_t lun, std::vector<uint8_t> cdb,
                 std::vector<uint8_t>& data, uint8_t direction, std::vector<uint8_t>& sense) {
        const auto fill = [&](auto& command) {
            command.tgt = target;
            command.lun = lun;
            command.direction = direction;
            command.cdb_len = static_cast<uint8_t>(cdb.size());
            std::copy(cdb.begin(), cdb.end(), command.cdb);
            command.sense_len = kScsiMaxSense;
            command.data_len = static_cast<uint32_t>(data.size());
        };
        const auto take = [&](const auto& command) {
            sense.assign(command.sense, command.sense + command.sense_len);
            data.resize(command.data_len);
        };
        if (kind_ == DriverKind::legacy) {
            dorfc_scsi_cmd command{};
            fill(command);
            command.data_addr = reinterpret_cast<uintptr_t>(data.data());
            const Outcome outcome = ask(Operation::scsi, index, command);
            take(command);
            return outcome;
        }
        auto command = std::make_unique<kronfc_scsi_cmd>();
        fill(*command);
        std::copy(data.begin(), data.end(), command->data_buffer);
        const Outcome outcome = ask(Operation::scsi, index, *command);
        take(*command);
        std::copy_n(command->data_buffer, data.size(), data.begin());
        return outcome;
    }

    Outcome ioctl(uint32_t number, uint16_t index, void* payload) {
        dorfc_ioctl block = request_block(index, payload);
        errno = 0;
        const int result = host_.legacy_request(number, &block);
        return {result, block.status, errno};
    }

    Outcome invoke(uint64_t callback, void* record) {
        errno = 0;
        const int result = vmk_MgmtUserCallbackInvokeInt(handle_, 0, callback, 1, record);
        return {result, 0, errno};
    }

    vmk_MgmtUserHandle handle() const { return handle_; }

  private:
    Host& host_;
    DriverKind kind_;
    vmk_MgmtUserHandle handle_ = 0;
};

std::string text(const char* field, size_t width) { return {field, strnlen(field, width)}; }
// Fields of the records may lie anywhere; where one is compared, a + takes its value and no reference to it.
#define TEXT(field) text(field, sizeof(field))

// ---- What all three drivers do alike
// -----------------------------------------------------------------------------------

class AnyDriver : public testing::TestWithParam<DriverKind> {
  protected:
    Model model(size_t ports = 2, size_t virtual_ports = 0) const {
        return hosts::ports(GetParam(), ports, virtual_ports);
    }
};
INSTANTIATE_TEST_SUITE_P(Drivers, AnyDriver,
                         testing::Values(DriverKind::kron, DriverKind::pyx, DriverKind::legacy),
                         [](const auto& kind) {
                             return std::string(hostsim::kDriverKindNames[static_cast<size_t>(kind.param)]);
                         });

TEST_P(AnyDriver, EnumeratesPortsBeforeTheirVirtualPortsUnlessToldOtherwise) {
    Model described = model(2, 1);
    described.port(0, 1).host_no = 2;
    Host host(described);
    Line line(host, GetParam());
    int64_t count = 0;
    EXPECT_EQ(line.count(count), kGood);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(line.host_number(0), 3u);
    EXPECT_EQ(line.host_number(1), 4u);
    EXPECT_EQ(line.host_number(2), 2u);
    EXPECT_EQ(line.host_number(3), 5u);

    host.model().driver(GetParam()).order = {"port0.0/1", "20:00:02:ca:1e:00:01:00"};
    EXPECT_EQ(line.host_number(0), 4u);
    EXPECT_EQ(line.host_number(1), 2u);
    EXPECT_EQ(line.host_number(2), 3u);

    host.model().driver(GetParam()).reported_port_count = 7;
    EXPECT_EQ(line.count(count), kGood);
    EXPECT_EQ(count, 7);
    uint32_t number = 99;
    EXPECT_NE(line.ask_host_number(4, number).status, 0u);
}

TEST_P(AnyDriver, TellsAPortAsItIsDescribed) {
    Model described = model(2, 2);
    hostsim::Adapter& adapter = described.adapters[0];
    adapter.manufacturer = std::string(64, 'M');  // fills its field: no zero follows
    adapter.chip_revision = 5;
    adapter.pci_domain = 1;
    hostsim::PhysicalPort& port = described.port(0, 1);
    port.link_state = FC_PORTSTATE_LINKDOWN;
    port.mac = {2, 4, 6, 8, 10, 12};
    hosts::add_fcf(port);
    hosts::add_target(port, 3);
    hosts::add_target(port, 5).offline = true;
    Host host(described);
    Line line(host, GetParam());

    dorfc_port_info info{};
    ASSERT_EQ(line.ask(Operation::port_info, 3, info), kGood);
    EXPECT_EQ(TEXT(info.manufacturer), std::string(64, 'M'));
    EXPECT_EQ(TEXT(info.model_name), adapter.model);
    EXPECT_EQ(+info.wwpn, 0x200002CA1E000100u);
    EXPECT_EQ(+info.portid, 0x010100u);
    EXPECT_EQ(+info.port_type, FC_PORTTYPE_NPORT);
    EXPECT_EQ(+info.link_state, FC_PORTSTATE_LINKDOWN);
    EXPECT_THAT(info.mac, testing::ElementsAre(2, 4, 6, 8, 10, 12));
    EXPECT_EQ(+info.tgt_cnt, 1u) << "an offline target is not counted";
    EXPECT_EQ(+info.fcf_cnt, 1u);
    EXPECT_EQ(+info.npiv_count, 2u);
    EXPECT_EQ(+info.npiv_index, 0u);
    const bool kron = GetParam() == DriverKind::kron;
    const auto& kron_info = reinterpret_cast<const kronfc_port_info&>(info);
    EXPECT_EQ(kron ? TEXT(kron_info.hba_name) : TEXT(info.hba_name), "vmhba5");
    EXPECT_EQ(kron ? +kron_info.mfw_version : 0x08251E00u, 0x08251E00u);

    ASSERT_EQ(line.ask(Operation::port_info, 5, info), kGood);
    EXPECT_EQ(+info.port_type, FC_PORTTYPE_NPIV);
    EXPECT_EQ(+info.npiv_index, 2u);
    EXPECT_THAT(info.mac, testing::ElementsAre(0x0E, 0xFC, 0x00, 0x01, 0x01, 0x02)) << "given by the fabric";

    dorfc_pci_info pci{};
    ASSERT_EQ(line.ask(Operation::pci_info, 5, pci), kGood);
    EXPECT_EQ(+pci.domain_num, 1);
    EXPECT_EQ(+pci.function_num, 1) << "a virtual port stands where its physical port does";
    EXPECT_EQ(+pci.port_num, 2);
    EXPECT_EQ(+pci.chip_rev_id, GetParam() == DriverKind::legacy ? 0u : 5u);
}

TEST_P(AnyDriver, AnswersForTargetsAndFcfsThatAreThere) {
    Model described = model(1);
    hosts::add_target(described.port(0, 0), 127).port_id = 0x0A0B0C;
    hosts::add_target(described.port(0, 0), 4).offline = true;
    hosts::add_fcf(described.port(0, 0)).vfid = 11;
    hostsim::Fcf& selected = hosts::add_fcf(described.port(0, 0));
    selected.vfid = 22;
    selected.selected = true;
    described.port(0, 0).fcfs[0].selected = false;
    Host host(described);
    Line line(host, GetParam());

    const auto status_of_target = [&](uint32_t index) {
        dorfc_tgt_info target{};
        target.scsi_tgt_num = index;
        return line.ask(Operation::tgt_info, 0, target).status;
    };
    EXPECT_EQ(status_of_target(4), 13u);
    EXPECT_EQ(status_of_target(5), 13u);
    dorfc_tgt_info target{};
    target.scsi_tgt_num = 127;
    EXPECT_EQ(line.ask(Operation::tgt_info, 0, target), kGood);
    EXPECT_EQ(+target.portid, 0x0A0B0Cu);

    dorfc_fcf_info fcf{};
    EXPECT_EQ(line.ask(Operation::fcf_info, 0, fcf), kGood);
    EXPECT_EQ(+fcf.vfid, 22) << "a zeroed request gets the FCF in use";
    host.model().port(0, 0).fcfs.clear();
    fcf = {};
    EXPECT_NE(line.ask(Operation::fcf_info, 0, fcf).status, 0u);
}

TEST_P(AnyDriver, CountersStartWhereTheyAreToldAndGrowAtTheirRate) {
    Model described = model(1);
    described.port(0, 0).counters[0].start = uint64_t{1} << 40;
    described.port(0, 0).counters[29] = {.start = 5, .rate = 1e9};
    Host host(described);
    Line line(host, GetParam());
    dorfc_port_stats first{};
    dorfc_port_stats second{};
    ASSERT_EQ(line.ask(Operation::port_stats, 0, first), kGood);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ASSERT_EQ(line.ask(Operation::port_stats, 0, second), kGood);
    EXPECT_EQ(+first.rx_fcoe_frames, uint64_t{1} << 40);
    EXPECT_EQ(+second.rx_fcoe_frames, +first.rx_fcoe_frames);
    EXPECT_GE(+second.link_failures, +first.link_failures + 2'000'000) << "2 ms at 1e9 a second";
}

TEST_P(AnyDriver, CarriesScsiDataBothWaysAndSenseBack) {
    Model described = model(1);
    hostsim::Target& target = hosts::add_target(described.port(0, 0), 2);
    hosts::add_lun(target, 0);
    hosts::add_lun(target, 300);
    target.luns[1].unit_attention = true;
    Host host(described);
    Line line(host, GetParam());
    std::vector<uint8_t> sense;

    std::vector<uint8_t> block(512, 0x5A);
    EXPECT_EQ(line.scsi(0, 2, 0, {0x2A, 0, 0, 0, 0, 7, 0, 0, 1, 0}, block, SCSI_DIRECTION_OUT, sense), kGood);
    std::vector<uint8_t> back(1024, 0xFF);
    EXPECT_EQ(line.scsi(0, 2, 0, {0x28, 0, 0, 0, 0, 7, 0, 0, 1, 0}, back, SCSI_DIRECTION_IN, sense), kGood);
    EXPECT_EQ(back, block) << "512 bytes came of the 1024 that there was room for";
    EXPECT_TRUE(sense.empty());

    std::vector<uint8_t> none;
    EXPECT_EQ(line.scsi(0, 2, 0x4000 | 300, {0, 0, 0, 0, 0, 0}, none, SCSI_DIRECTION_NONE, sense), kGood);
    ASSERT_EQ(sense.size(), 18u) << "the first command learns of the unit attention";
    EXPECT_EQ(sense[2] & 0x0F, 6);
    EXPECT_EQ(line.scsi(0, 2, 0x4000 | 300, {0, 0, 0, 0, 0, 0}, none, SCSI_DIRECTION_NONE, sense), kGood);
    EXPECT_TRUE(sense.empty()) << "and the second does not";

    EXPECT_EQ(line.scsi(0, 3, 0, {0, 0, 0, 0, 0, 0}, none, SCSI_DIRECTION_NONE, sense).status, 13u);
}

TEST_P(AnyDriver, DisksOfOneNaaIdAreOneDiskOverAllPaths) {
    Model described = model(2);
    for (size_t p = 0; p < 2; ++p) {
        hosts::add_lun(hosts::add_target(described.port(0, p), 0), 1).naa = 0x50000000000000AA;
        hosts::add_lun(described.port(0, p).targets[0], 2);
    }
    Host host(described);
    Line line(host, GetParam());
    std::vector<uint8_t> sense;
    const std::vector<uint8_t> written(512, 0x77);
    const auto read_over_second = [&](uint32_t lun) {
        std::vector<uint8_t> data(512);
        EXPECT_EQ(line.scsi(1, 0, lun, {0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0}, data, SCSI_DIRECTION_IN, sense),
                  kGood);
        return data;
    };
    for (const uint32_t lun : {1u, 2u}) {
        std::vector<uint8_t> data = written;
        EXPECT_EQ(line.scsi(0, 0, lun, {0x2A, 0, 0, 0, 0, 0, 0, 0, 1, 0}, data, SCSI_DIRECTION_OUT, sense),
                  kGood);
    }
    EXPECT_EQ(read_over_second(1), written);
    EXPECT_EQ(read_over_second(2), std::vector<uint8_t>(512, 0))
        << "a LUN without an id of its own is another disk";
}

TEST_P(AnyDriver, FaultsHitThePortAndOccurrenceThatTheyName) {
    Model described = model(2);
    described.faults = {
        Fault{.operation = Operation::port_info, .port = "port0.1", .occurrence = 2, .count = 2, .status = 6},
        Fault{.operation = Operation::port_stats, .count = Fault::kAlways, .error = EIO},
        Fault{.operation = Operation::tgt_info, .target = 9, .status = 3, .error = ENXIO},
        Fault{.operation = Operation::hba_count, .status = 2},
    };
    Host host(described);
    Line line(host, GetParam());
    dorfc_port_info info{};
    const auto ask = [&](uint32_t port) { return line.ask(Operation::port_info, port, info).status; };
    EXPECT_EQ(ask(0), 0u);
    EXPECT_EQ(ask(0), 0u);
    EXPECT_EQ(ask(1), 0u);
    EXPECT_EQ(ask(1), 6u);
    EXPECT_EQ(ask(0), 0u);
    EXPECT_EQ(ask(1), 6u);
    EXPECT_EQ(ask(1), 0u);

    dorfc_port_stats stats{};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(line.ask(Operation::port_stats, 0, stats), (Outcome{-1, 0, EIO}));
    dorfc_tgt_info target{};
    target.scsi_tgt_num = 9;
    EXPECT_EQ(line.ask(Operation::tgt_info, 0, target), (Outcome{-1, 3, ENXIO}))
        << "both a status and a failing call";
    int64_t count = 0;
    EXPECT_EQ(line.count(count), (Outcome{0, 2, 0}));
    EXPECT_EQ(line.count(count), kGood);
}

TEST_P(AnyDriver, ATestMayChangeAnyAnswer) {
    Host host(model(1));
    Line line(host, GetParam());
    host.tamper = [](hostsim::Answer& answer) {
        if (answer.call.operation == Operation::port_info) answer.as<dorfc_port_info>().tgt_cnt = 0xFFFFFFFF;
        if (answer.call.operation == Operation::fcf_info)
            answer.result = -1, answer.error = EBUSY, answer.status = 0;
        if (answer.call.operation == Operation::hostno) answer.as<uint32_t>() = 2;
    };
    dorfc_port_info info{};
    EXPECT_EQ(line.ask(Operation::port_info, 0, info), kGood);
    EXPECT_EQ(+info.tgt_cnt, 0xFFFFFFFFu);
    dorfc_fcf_info fcf{};
    EXPECT_EQ(line.ask(Operation::fcf_info, 0, fcf), (Outcome{-1, 0, EBUSY}));
    EXPECT_EQ(line.host_number(0), 2u);
}

TEST_P(AnyDriver, RequestsAreRecordedAsTheyCame) {
    Host host(model(1));
    Line line(host, GetParam());
    dorfc_tgt_info target{};
    target.scsi_tgt_num = 0x11223344;
    host.clear_calls();
    line.ask(Operation::tgt_info, 0, target);
    ASSERT_EQ(host.count_calls(Operation::tgt_info), 1u);
    const hostsim::Call call = host.calls().back();
    EXPECT_EQ(call.driver, GetParam());
    const bool legacy = GetParam() == DriverKind::legacy;
    EXPECT_EQ(call.number, legacy ? uint64_t{DORFC_GET_TGT_INFO} : uint64_t{NATIVE_CB_TGT_INFO});
    EXPECT_EQ(call.port, legacy ? 0u : 2u);
    EXPECT_EQ(call.block.size(), legacy ? 64u : 0u);
    ASSERT_EQ(call.payload.size(), legacy ? 64u : 72u);
    const size_t at = call.payload.size() - 64 + offsetof(dorfc_tgt_info, scsi_tgt_num);
    EXPECT_EQ(call.payload[at], 0x44);
    EXPECT_EQ(call.payload[at + 3], 0x11);
}

// ---- The management interface
// ------------------------------------------------------------------------------------------

TEST(ManagementApi, RefusesASignatureThatDiffersInAnyField) {
    Host host(hosts::empty());
    struct Case {
        const char* what;
        std::function<void(Signature&)> spoil;
        int error;
    };
    const std::vector<Case> cases{
        {"version", [](Signature& s) { s.api.version = 0x01000001; }, EINVAL},
        {"name", [](Signature& s) { s.api.name.string[0] = 'K'; }, ENOENT},
        {"bytes after the name", [](Signature& s) { s.api.name.string[31] = 1; }, ENOENT},
        {"vendor", [](Signature& s) { s.api.vendor.string[6] = '\0'; }, EINVAL},
        {"number of callbacks", [](Signature& s) { s.api.numCallbacks--; }, EINVAL},
        {"no callbacks", [](Signature& s) { s.api.callbacks = nullptr; }, EINVAL},
        {"location", [](Signature& s) { s.callbacks[3].location = VMK_MGMT_CALLBACK_USER; }, EINVAL},
        {"user-side function", [](Signature& s) { s.callbacks[0].callback = &s; }, EINVAL},
        {"synchronous", [](Signature& s) { s.callbacks[7].synchronous = 0; }, EINVAL},
        {"number of parameters", [](Signature& s) { s.callbacks[1].numParms = 2; }, EINVAL},
        {"size", [](Signature& s) { s.callbacks[7].parmSizes[0] = 262436; }, EINVAL},
        {"type", [](Signature& s) { s.callbacks[2].parmTypes[0] = VMK_MGMT_PARMTYPE_OUT; }, EINVAL},
        {"size of another slot", [](Signature& s) { s.callbacks[5].parmSizes[3] = 8; }, EINVAL},
        {"type of another slot", [](Signature& s) { s.callbacks[5].parmTypes[1] = 1; }, EINVAL},
        {"id", [](Signature& s) { s.callbacks[6].callbackId = 23; }, EINVAL},
    };
    for (const DriverKind kind : {DriverKind::kron, DriverKind::pyx}) {
        vmk_MgmtUserHandle handle = 77;
        for (const Case& c : cases) {
            Signature signature(kind);
            c.spoil(signature);
            errno = 0;
            EXPECT_EQ(signature.connect(cookie_of(kind), handle), c.error) << c.what;
            EXPECT_EQ(errno, c.error) << c.what;
        }
        EXPECT_EQ(Signature(kind).connect(500, handle), EINVAL) << "cookie";
        EXPECT_EQ(vmk_MgmtUserInit(nullptr, cookie_of(kind), &handle), EFAULT);
        EXPECT_EQ(handle, 77u) << "no handle was given out";
    }
    vmk_MgmtUserHandle late = 0;
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, late), 0)
        << "the last callback of kron alone is wrong";
    Signature last(DriverKind::kron);
    last.callbacks[9].parmSizes[0] = 1;
    EXPECT_EQ(last.connect(501, late), EINVAL);
}

TEST(ManagementApi, IsNotThereWhereItsDriverIsAbsent) {
    Host host(hosts::pyx_ports(1));
    vmk_MgmtUserHandle handle = 0;
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, handle), ENOENT);
    Line line(host, DriverKind::pyx);
    host.model().driver(DriverKind::pyx).presence = hostsim::Driver::Presence::absent;
    kronfc_hba_cnt_cb record{};
    EXPECT_EQ(line.invoke(NATIVE_CB_HBA_COUNT, &record), (Outcome{-1, 0, ENODEV}))
        << "unloaded while it was in use";
}

TEST(ManagementApi, InitialisationFailsAsItsFaultsSay) {
    Host host(hosts::empty());
    host.inject({.operation = Operation::init, .driver = DriverKind::kron, .status = 195887107});
    host.inject({.operation = Operation::init, .driver = DriverKind::kron, .occurrence = 2, .error = EPERM});
    vmk_MgmtUserHandle handle = 0;
    EXPECT_EQ(Signature(DriverKind::pyx).connect(601, handle), 0);
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, handle), 195887107);
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, handle), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, handle), 0);
}

TEST(ManagementApi, RefusesInvocationsThatNoDriverWouldGet) {
    Host host(hosts::kron_ports(1));
    host.model().driver(DriverKind::pyx).presence = hostsim::Driver::Presence::present;
    Line kron(host, DriverKind::kron);
    Line pyx(host, DriverKind::pyx);
    std::vector<uint8_t> record(262444, 0xEE);
    const auto error = [&](vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback, uint32_t count,
                           void* parameter) {
        errno = 0;
        EXPECT_EQ(vmk_MgmtUserCallbackInvokeInt(handle, instance, callback, count, parameter), -1);
        return errno;
    };
    EXPECT_EQ(error(1, 0, 16, 1, record.data()), EBADF);
    EXPECT_EQ(error(kron.handle(), 1, 16, 1, record.data()), EINVAL);
    EXPECT_EQ(error(kron.handle(), 0, 15, 1, record.data()), EINVAL);
    EXPECT_EQ(error(kron.handle(), 0, 16, 2, record.data()), EINVAL);
    EXPECT_EQ(error(kron.handle(), 0, 16, 1, nullptr), EFAULT);
    EXPECT_EQ(error(kron.handle(), 0, 24, 1, record.data()), EOPNOTSUPP);
    EXPECT_EQ(error(kron.handle(), 0, 25, 1, record.data()), EOPNOTSUPP);
    EXPECT_EQ(error(pyx.handle(), 0, 24, 1, record.data()), EINVAL) << "pyx has no such callback";
    EXPECT_THAT(record, testing::Each(0xEE));

    kronfc_port_info_cb unknown{};
    unknown.header.host_no = 4711;
    EXPECT_EQ(kron.invoke(NATIVE_CB_PORT_INFO, &unknown), kGood);
    EXPECT_NE(+unknown.header.status, 0u) << "there is no such host number";
}

TEST(ManagementApi, ATransferBeyondTheRecordIsRefusedByTheDriver) {
    Host host(hosts::kron_ports(1));
    hosts::add_target(host.model().port(0, 0), 0, 1);
    Line line(host, DriverKind::kron);
    auto command = std::make_unique<kronfc_scsi_cmd>();
    command->cdb_len = 6;
    command->direction = SCSI_DIRECTION_IN;
    command->data_len = kScsiMaxData + 1;
    EXPECT_EQ(line.ask(Operation::scsi, 0, *command).status, 4u);
}

// ---- The legacy node
// ---------------------------------------------------------------------------------------------------

TEST(LegacyNode, RefusesBlocksThatAreNotItsOwn) {
    Host host(hosts::legacy_ports(1));
    dorfc_port_info payload{};
    struct Case {
        const char* what;
        std::function<void(dorfc_ioctl&)> spoil;
        int error;
    };
    const std::vector<Case> cases{
        {"signature", [](dorfc_ioctl& b) { b.signature[4] = 'c'; }, EINVAL},
        {"padding of the signature", [](dorfc_ioctl& b) { b.signature[7] = ' '; }, EINVAL},
        {"address mode", [](dorfc_ioctl& b) { b.addrmode = 1; }, EINVAL},
        {"version", [](dorfc_ioctl& b) { b.version = 2; }, EINVAL},
        {"subcode", [](dorfc_ioctl& b) { b.subcode = 4; }, EINVAL},
        {"no payload", [](dorfc_ioctl& b) { b.ioctlstructaddr = 0; }, EFAULT},
    };
    for (const Case& c : cases) {
        dorfc_ioctl block = request_block(0, &payload);
        c.spoil(block);
        errno = 0;
        EXPECT_EQ(host.legacy_request(DORFC_GET_PORT_INFO, &block), -1) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
        EXPECT_EQ(+block.status, 0u) << c.what;
    }
    dorfc_ioctl block = request_block(0, &payload);
    EXPECT_EQ(host.legacy_request(dorfc_request(9), &block), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(host.legacy_request(DORFC_GET_PORT_INFO, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    block = request_block(1, &payload);
    EXPECT_EQ(host.legacy_request(DORFC_GET_PORT_INFO, &block), 0);
    EXPECT_EQ(+block.status, 7u) << "the driver has one port only";
    EXPECT_EQ(+payload.wwpn, 0u);
    EXPECT_EQ(host.count_calls(Operation::port_info), 1u) << "only the last came to the driver";
}

TEST(LegacyNode, ScsiDataNeedsAnAddress) {
    Host host(hosts::legacy_ports(1));
    hosts::add_target(host.model().port(0, 0), 0, 1);
    Line line(host, DriverKind::legacy);
    dorfc_scsi_cmd command{};
    command.cdb_len = 6;
    command.cdb[0] = 0x12;
    command.direction = SCSI_DIRECTION_IN;
    command.data_len = 36;
    EXPECT_EQ(line.ask(Operation::scsi, 0, command), (Outcome{-1, 0, EFAULT}));
    command.data_len = 0;
    EXPECT_EQ(line.ask(Operation::scsi, 0, command), kGood);
}

TEST(LegacyNode, IsWhatTheModelSays) {
    Host host(hosts::kron_ports(1));
    EXPECT_EQ(host.legacy_node(), hostsim::NodeKind::missing);
    host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::no_device;
    EXPECT_EQ(host.legacy_node(), hostsim::NodeKind::regular_file);
    host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::present;
    EXPECT_EQ(host.legacy_node(), hostsim::NodeKind::device);
    host.inject({.operation = Operation::open, .occurrence = 2, .error = EACCES});
    EXPECT_EQ(host.node_fault(Operation::open), 0);
    EXPECT_EQ(host.node_fault(Operation::close), 0);
    EXPECT_EQ(host.node_fault(Operation::open), EACCES);
}

// Reads a link-state file as the files' readers do: from its heading on, a port's name and then the word for
// 'ready'.
bool names_ready(const std::string& text, uint64_t wwpn) {
    char name[32];
    std::snprintf(name, sizeof name, "%02llx", static_cast<unsigned long long>(wwpn));
    size_t at = 0;
    for (const char* const wanted :
         {"SCSI Device Information", static_cast<const char*>(name), "LPORT_ST_READY"}) {
        at = text.find(wanted, at);
        if (at == std::string::npos) return false;
        at = text.find('\n', at);
    }
    return true;
}

TEST(LinkStateFiles, NameExactlyThePortsThatAreOnline) {
    Model model = hosts::legacy_ports(3, 2);
    constexpr uint32_t states[] = {FC_PORTSTATE_LINKDOWN, FC_PORTSTATE_ONLINE, FC_PORTSTATE_OFFLINE,
                                   FC_PORTSTATE_ONLINE};
    size_t next = 0;
    for (hostsim::Adapter& adapter : model.adapters) {
        for (hostsim::PhysicalPort& port : adapter.ports) {
            port.link_state = states[next++ % 4];
            for (hostsim::Port& virtual_port : port.virtual_ports)
                virtual_port.link_state = states[next++ % 4];
            hosts::add_target(port, 3);
        }
    }
    Host host(model);
    const auto files = host.link_state_files();
    EXPECT_EQ(files.size(), 3u);
    for (const hostsim::PortRef& ref : hostsim::all_ports(host.model())) {
        const bool online = ref.port->link_state == FC_PORTSTATE_ONLINE;
        const bool found = std::any_of(files.begin(), files.end(),
                                       [&](const auto& file) { return names_ready(file.text, ref.wwpn); });
        EXPECT_EQ(found, online) << ref.port->name;
    }
    host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::absent;
    EXPECT_TRUE(host.link_state_files().empty());
}

// ---- The host itself
// ---------------------------------------------------------------------------------------------------

TEST(SimulatedHost, IsTheProcessesOnlyOneWhileItLives) {
    EXPECT_EQ(Host::current(), nullptr);
    {
        Host host(hosts::empty());
        EXPECT_EQ(Host::current(), &host);
        EXPECT_THROW(Host second(hosts::empty()), hostsim::HostError);
        EXPECT_EQ(Host::current(), &host);
    }
    EXPECT_EQ(Host::current(), nullptr);
    vmk_MgmtUserHandle handle = 0;
    EXPECT_EQ(Signature(DriverKind::kron).connect(501, handle), ENOENT);
    EXPECT_EQ(vmk_MgmtUserCallbackInvokeInt(1, 0, 16, 0), -1);
}

TEST(SimulatedHost, RefusesAModelWithAMistake) {
    Model model = hosts::kron_ports(2);
    model.port(0, 1).wwpn = model.port(0, 0).wwpn = 5;
    EXPECT_THROW(Host host(model), hostsim::HostError);
    EXPECT_EQ(Host::current(), nullptr);
}

}  // namespace
