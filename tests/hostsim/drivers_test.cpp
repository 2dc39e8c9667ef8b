// drivers_test.cpp - behaviour that the drivers of a simulated host share, and wrong requests that its
// management interface refuses.
#include <gmock/gmock.h>

#include "support/loaded_host.h"
#include "trelm_driver_records.h"
#include "trelm_mgmt.hpp"

namespace {

using hostsim::DriverKind;
using hostsim::Host;
using hostsim::Operation;
namespace hosts = hostsim::hosts;

// ---- All drivers

class AnyDriver : public trelm::test::OnEachDriver {
  protected:
    AnyDriver() {
        for (uint32_t i = 0; i < 2; ++i) EXPECT_EQ(TRELM_OpenAdapter(i, &handles[i]), TRELM_STATUS_OK);
    }
    uint32_t handles[2];
};
TRELM_ON_EACH_DRIVER(AnyDriver);

TEST_P(AnyDriver, FailsTheRequestsThatAFaultNames) {
    host.inject(
        {.operation = Operation::port_stats, .port = "port0.1", .occurrence = 2, .count = 2, .status = 6});
    TRELM_PORT_STATS record;
    std::vector<uint32_t> codes;
    for (const int port : {0, 0, 1, 1, 0, 1, 1})
        codes.push_back(TRELM_GetPortStats(handles[port], 0, &record));
    EXPECT_EQ(codes, (std::vector<uint32_t>{0, 0, 0, 0x60000006, 0, 0x60000006, 0}));
}

TEST_P(AnyDriver, ReportsAUnitAttentionOnce) {
    host.model().port(0, 0).targets[0].luns[1].unit_attention = true;
    for (const int key : {6, 0}) {
        auto ready = trelm::scsi_command(0, 1, {0, 0, 0, 0, 0, 0}, 0);
        EXPECT_EQ(TRELM_SendScsiCommand(handles[0], 0, &ready, nullptr, nullptr), TRELM_STATUS_OK);
        EXPECT_EQ(ready.Sense[2], key);
    }
}

// ---- The management interface

// A valid signature, which the tests then change.
struct Signature {
    explicit Signature(DriverKind kind) : cookie(kind == DriverKind::kron ? 501 : 601) {
        constexpr uint64_t kSizes[]{8, 16, 72, 520, 520, 72, 72, 262444, 24, 262172};
        for (size_t i = 0; i < 10; ++i)
            callbacks[i] = {VMK_MGMT_CALLBACK_KERNEL,  nullptr, 1, 1, {kSizes[i]},
                            {VMK_MGMT_PARMTYPE_INOUT}, 16 + i};
        std::strcpy(api.name.string, kind == DriverKind::kron ? "kronnativefc" : "cx_fcoe");
        api.numCallbacks = kind == DriverKind::kron ? 10 : 8;
    }
    int connect(vmk_MgmtUserHandle& handle) { return vmk_MgmtUserInit(&api, cookie, &handle); }

    uint64_t cookie;
    vmk_MgmtCallbackInfo callbacks[10]{};
    vmk_MgmtApiSignature api{
        .version = 0x01000000, .name = {}, .vendor = {"Calvexa"}, .numCallbacks = 0, .callbacks = callbacks};
};

TEST(ManagementApi, RefusesASignatureThatDiffersInAnyField) {
    Host host(hosts::empty());
    const struct {
        const char* what;
        std::function<void(Signature&)> spoil;
        int error = EINVAL;
    } rows[]{
        {"cookie", [](Signature& s) { --s.cookie; }},
        {"version", [](Signature& s) { s.api.version = 0x01000001; }},
        {"name", [](Signature& s) { s.api.name.string[0] = 'K'; }, ENOENT},
        {"bytes after the name", [](Signature& s) { s.api.name.string[31] = 1; }, ENOENT},
        {"vendor", [](Signature& s) { s.api.vendor.string[6] = '\0'; }},
        {"number of callbacks", [](Signature& s) { s.api.numCallbacks--; }},
        {"user-side function", [](Signature& s) { s.callbacks[0].callback = &s; }},
        {"size", [](Signature& s) { s.callbacks[7].parmSizes[0] = 262436; }},
        {"type", [](Signature& s) { s.callbacks[2].parmTypes[0] = VMK_MGMT_PARMTYPE_OUT; }},
        {"type of another slot", [](Signature& s) { s.callbacks[5].parmTypes[1] = 1; }},
        {"id", [](Signature& s) { s.callbacks[6].callbackId = 23; }},
        {"last callback", [](Signature& s) { s.callbacks[s.api.numCallbacks - 1].parmSizes[0] = 1; }},
    };
    for (const DriverKind kind : {DriverKind::kron, DriverKind::pyx}) {
        vmk_MgmtUserHandle handle = 77;
        for (const auto& [what, spoil, error] : rows) {
            Signature signature(kind);
            spoil(signature);
            errno = 0;
            EXPECT_EQ(signature.connect(handle), error) << what;
            EXPECT_EQ(errno, error) << what;
        }
        EXPECT_EQ(handle, 77u) << "no handle was returned";
        EXPECT_EQ(Signature(kind).connect(handle), 0);
    }
}

TEST(ManagementApi, RefusesMalformedInvocations) {
    using enum hostsim::Driver::Presence;
    Host host(hosts::kron_ports(1));
    host.model().driver(DriverKind::pyx).presence = present;
    host.inject({.operation = Operation::init, .driver = DriverKind::kron, .status = 195887107});
    host.inject({.operation = Operation::init, .driver = DriverKind::kron, .occurrence = 2, .error = EPERM});
    vmk_MgmtUserHandle kron = 0, pyx = 0;
    for (const int result : {195887107, -1, 0}) EXPECT_EQ(Signature(DriverKind::kron).connect(kron), result);
    EXPECT_EQ(Signature(DriverKind::pyx).connect(pyx), 0);
    std::vector<uint8_t> record(262444, 0xEE);
    void* const at = record.data();
    host.model().driver(DriverKind::pyx).presence = absent;  // unloaded while in use
    const std::tuple<uint64_t, uint64_t, uint64_t, uint32_t, void*, int> rows[]{
        {1, 0, 16, 1, at, EBADF},         {kron, 1, 16, 1, at, EINVAL},      {kron, 0, 15, 1, at, EINVAL},
        {kron, 0, 16, 2, at, EINVAL},     {kron, 0, 16, 1, nullptr, EFAULT}, {kron, 0, 24, 1, at, EOPNOTSUPP},
        {kron, 0, 25, 1, at, EOPNOTSUPP}, {pyx, 0, 16, 1, at, ENODEV}};
    for (const auto& [handle, instance, callback, count, parameter, error] : rows) {
        EXPECT_EQ(vmk_MgmtUserCallbackInvokeInt(handle, instance, callback, count, parameter), -1);
        EXPECT_EQ(errno, error) << instance << ' ' << callback << ' ' << count;
    }
    EXPECT_THAT(record, testing::Each(0xEE));
    EXPECT_EQ(vmk_MgmtUserCallbackInvokeInt(kron, 0, 19, 1, at), 0);
    EXPECT_NE(+reinterpret_cast<native_cb_header*>(at)->status, 0u) << "there is no such host number";
}

// ---- The legacy driver

TEST(LegacyNode, RefusesMalformedRequestsAndLeavesTheCallersMemoryAlone) {
    Host host(hosts::legacy_ports(1));
    host.inject({.operation = Operation::hostno, .occurrence = 2, .error = EIO});
    host.inject({.operation = Operation::hostno, .occurrence = 3, .status = 9, .error = EBUSY});
    struct {
        dorfc_hostno record{0xEEEEEEEE, 0xEEEEEEEE};
        dorfc_scsi_cmd command{};
        dorfc_ioctl block{"DORFC", 2, 1, 0, 77, 0, 0, {}};
    } given;
    given.block.ioctlstructaddr = reinterpret_cast<uintptr_t>(&given.record);
    using Given = decltype(given);
    const struct {
        const char* what;
        uint32_t number;
        std::function<void(Given&)> spoil;
        int error;
        uint32_t status = 77;
    } rows[]{
        {"number", DORFC_GET_HOSTNO + 7, [](Given&) {}, ENOTTY},
        {"signature", DORFC_GET_HOSTNO, [](Given& g) { g.block.signature[7] = 1; }, EINVAL},
        {"address mode", DORFC_GET_HOSTNO, [](Given& g) { g.block.addrmode = 1; }, EINVAL},
        {"version", DORFC_GET_HOSTNO, [](Given& g) { g.block.version = 2; }, EINVAL},
        {"subcode", DORFC_GET_HOSTNO, [](Given& g) { g.block.subcode = 1; }, EINVAL},
        {"no record", DORFC_GET_HOSTNO, [](Given& g) { g.block.ioctlstructaddr = 0; }, EFAULT},
        {"no data", DORFC_SEND_SCSI_CMD,
         [](Given& g) {
             g.command.direction = SCSI_DIRECTION_IN, g.command.data_len = 1;
             g.block.ioctlstructaddr = reinterpret_cast<uintptr_t>(&g.command);
         },
         EFAULT},
        {"no such port", DORFC_GET_HOSTNO, [](Given& g) { g.block.hbaselect = 1; }, 0, 7},
        {"failing call", DORFC_GET_HOSTNO, [](Given&) {}, EIO},
        {"failing call with status", DORFC_GET_HOSTNO, [](Given&) {}, EBUSY, 9},
    };
    for (const auto& [what, number, spoil, error, status] : rows) {
        SCOPED_TRACE(what);
        Given spoiled = given;
        if (spoiled.block.ioctlstructaddr != 0)
            spoiled.block.ioctlstructaddr = reinterpret_cast<uintptr_t>(&spoiled.record);
        spoil(spoiled);
        errno = EDOM;  // a call that succeeds leaves it unchanged
        EXPECT_EQ(host.legacy_request(number, &spoiled.block), error ? -1 : 0);
        EXPECT_EQ(errno, error ? error : EDOM);
        EXPECT_EQ(+spoiled.block.status, status);
        EXPECT_EQ(+spoiled.record.host_no, 0xEEEEEEEEu);
    }
    EXPECT_EQ(host.legacy_request(DORFC_GET_HOSTNO, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(host.legacy_request(DORFC_GET_HOSTNO, &given.block), 0);
    EXPECT_EQ(std::tuple(+given.block.status, +given.record.host_no, +given.record.reserved),
              std::tuple(0u, 2u, 0xEEEEEEEEu));
}

}  // namespace
