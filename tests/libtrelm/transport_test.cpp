// The transports to the three drivers, called directly: the bytes that are sent, the result of each request,
// and the requirements for the node of the legacy driver. The golden logs hold their lines.
#include <fstream>

#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr uint32_t kHostNo = 0x11223344;

// The block of a request to the legacy driver.
std::vector<uint8_t> block(uint16_t subcode, uint16_t port, const void* payload) {
    return Bytes(sizeof(dorfc_ioctl))
        .text(offsetof(dorfc_ioctl, signature), "DORFC", 8)
        .put(offsetof(dorfc_ioctl, addrmode), uint16_t{2})
        .put(offsetof(dorfc_ioctl, version), uint16_t{1})
        .put(offsetof(dorfc_ioctl, subcode), subcode)
        .put(offsetof(dorfc_ioctl, hbaselect), port)
        .put(offsetof(dorfc_ioctl, ioctlstructaddr), reinterpret_cast<uint64_t>(payload))
        .all();
}

// A request that is made by calling an exported function with a record.
struct Request {
    Operation operation;
    uint64_t number;  // of the legacy driver's ioctl; callback ids are 15 more
    size_t size;
    std::function<uint32_t(void*)> call;
};

class Transport : public OnEachDriver {
  protected:
    Transport() {
        open_port(1);
        pdb = trelm_get_pdb_from_user_handle(2);
        pdb->host_no = kHostNo;
        pdb->drvr_inst |= 0x12340000;  // 16 bits select a port
    }
    template <typename Record>
    Request request(uint64_t number, Operation operation,
                    uint32_t (*function)(trelm_priv_db*, Record*, uint32_t*)) {
        return {operation, number, sizeof(Record),
                [=, this](void* to) { return function(pdb, static_cast<Record*>(to), &stat); }};
    }
    template <typename Record>
    Request request(uint64_t number, Operation operation,
                    uint32_t (*function)(int32_t, trelm_priv_db*, Record*, uint32_t*)) {
        return {operation, number, sizeof(Record), [=, this](void* to) {
                    return function(pdb->hw_info->oshandle, pdb, static_cast<Record*>(to), &stat);
                }};
    }
    std::vector<Request> requests() {
        if (GetParam() == DriverKind::kron)
            return {request(4, Operation::port_info, trelmnt_get_port_info),
                    request(5, Operation::port_stats, trelmnt_get_port_stats),
                    request(6, Operation::tgt_info, trelmnt_get_tgt_info),
                    request(7, Operation::fcf_info, trelmnt_get_fcf_info),
                    request(8, Operation::scsi, trelmnt_send_scsi_cmd)};
        if (GetParam() == DriverKind::pyx)
            return {request(4, Operation::port_info, trelm_pyxnt_get_port_info),
                    request(5, Operation::port_stats, trelm_pyxnt_get_port_stats),
                    request(6, Operation::tgt_info, trelm_pyxnt_get_tgt_info),
                    request(7, Operation::fcf_info, trelm_pyxnt_get_fcf_info),
                    request(8, Operation::scsi, trelm_pyxnt_send_scsi_cmd)};
        return {request(3, Operation::pci_info, trelm_get_pci_info),
                request(4, Operation::port_info, trelm_get_port_info),
                request(5, Operation::port_stats, trelm_get_port_stats),
                request(6, Operation::tgt_info, trelm_get_tgt_info),
                request(7, Operation::fcf_info, trelm_get_fcf_info),
                request(8, Operation::scsi, trelm_send_scsi_cmd)};
    }
    // The first fields are the same in the records of all drivers.
    static dorfc_scsi_cmd& command_in(GuardedBytes& record) {
        return *reinterpret_cast<dorfc_scsi_cmd*>(record.data());
    }
    // The caller's record; that of a SCSI command has a CDB of ten bytes and no data phase.
    static GuardedBytes record_for(const Request& request) {
        GuardedBytes record(request.size);
        if (request.operation != Operation::scsi) return record;
        command_in(record).direction = 3;
        command_in(record).cdb_len = kCdbLength;
        command_in(record).data_len = 0;
        return record;
    }

    static constexpr uint8_t kCdbLength = 10;
    const bool native = GetParam() != DriverKind::legacy;
    trelm_priv_db* pdb;
    uint32_t stat = 99;
};
TRELM_ON_EACH_DRIVER(Transport);

// The tests of SCSI commands, targets and port information check the payloads.
TEST_P(Transport, SendsARequestToOnePort) {
    for (const Request& request : requests()) {
        SCOPED_TRACE(request.number);
        GuardedBytes record = record_for(request);
        DriverFailure{.status = 20}.of(host, request.operation);
        host.clear_calls();
        request.call(record.data());
        const hostsim::Call call = host.calls().at(0);
        EXPECT_EQ(call.number, request.number + (native ? 15 : 0xC0406200));
        if (native) {
            const auto header = call.payload.begin();
            EXPECT_EQ(std::vector(header, header + 8), Bytes(8).put(0, kHostNo).all());
        } else {
            EXPECT_EQ(call.block, block(0, 3, record.data()));
        }
    }
}

TEST_P(Transport, ReportsTheStatusOfTheDriverBeforeTheResultOfTheCall) {
    for (const Request& request : requests()) {
        SCOPED_TRACE(request.number);
        GuardedBytes record = record_for(request);
        const std::vector<uint8_t> before = contents(record);
        DriverFailure{.status = 20, .error = EIO}.of(host, request.operation);
        EXPECT_EQ(std::pair(request.call(record.data()), stat), std::pair(1U, 20U));
        DriverFailure{.error = EIO}.of(host, request.operation);
        EXPECT_EQ(std::pair(request.call(record.data()), stat), std::pair(1U, 0U));
        EXPECT_TRUE(contents(record) == before);
    }
}

TEST_P(Transport, FillsTheRecordWithTheWholeAnswer) {
    host.tamper = [](Answer& answer) {
        answer.status = 0, answer.result = 0;
        std::fill(answer.payload.begin(), answer.payload.end(), 0x6B);
    };
    for (const Request& request : requests()) {
        SCOPED_TRACE(request.number);
        GuardedBytes record = record_for(request);
        EXPECT_EQ(std::pair(request.call(record.data()), stat), std::pair(0U, 0U));
        EXPECT_TRUE(contents(record) == std::vector<uint8_t>(request.size, 0x6B));
        EXPECT_TRUE(record.guards_intact());
    }
}

class NativeTransport : public Transport {};
INSTANTIATE_TEST_SUITE_P(, NativeTransport, testing::Values(DriverKind::kron, DriverKind::pyx), driver_name);

TEST_P(NativeTransport, RefusesACommandThatNoRecordCanCarry) {
    const Request request = requests()[4];
    GuardedBytes record = record_for(request);
    dorfc_scsi_cmd& command = command_in(record);
    host.clear_calls();
    for (const auto& [direction, cdb_length, data_length] :
         {std::tuple{0, 17, 0U}, {1, 16, kScsiMaxData + 1}, {2, 16, kScsiMaxData + 1}}) {
        command.direction = static_cast<uint8_t>(direction);
        command.cdb_len = static_cast<uint8_t>(cdb_length), command.data_len = data_length;
        EXPECT_EQ(std::pair(request.call(record.data()), stat),
                  std::pair(1U, uint32_t{DRIVER_STATUS_INVALID}));
    }
    EXPECT_TRUE(host.calls().empty());
    command.direction = 3;
    request.call(record.data());
    EXPECT_EQ(host.calls().size(), 1U) << "a command without a data phase has no length";
}

TEST_P(NativeTransport, FindsTheRecordsOfAPciFunction) {
    const bool kron = GetParam() == DriverKind::kron;
    const auto find_adapter = kron ? trelmnt_get_hw_info_inst : trelm_pyxnt_get_hw_info_inst;
    const auto find_port = kron ? trelmnt_get_parent_port : trelm_pyxnt_get_parent_port;
    const trelm_hw_info& adapter = *pdb->hw_info;
    dorfc_pci_info at{};
    at.domain_num = adapter.pci_domain, at.bus_num = adapter.pci_bus;
    at.device_num = adapter.pci_dev, at.function_num = adapter.pci_func;
    EXPECT_EQ(find_adapter(&at), &adapter);
    EXPECT_EQ(find_port(&at), pdb);
    at.function_num = 0xFFFF;
    EXPECT_EQ(find_adapter(&at), nullptr);
    EXPECT_EQ(find_port(&at), nullptr);
}

TEST_P(NativeTransport, OpensAnAdapterUnderTheNumberAfterItsInstance) {
    const auto open = GetParam() == DriverKind::kron ? trelmnt_open_adapter : trelm_pyxnt_open_adapter;
    uint32_t handle = 0;
    trelm_priv_db without_adapter{};
    for (trelm_priv_db* none : {static_cast<trelm_priv_db*>(nullptr), &without_adapter})
        EXPECT_EQ(open(none, 6, &handle), 1U);
    const auto opened = pdb->hw_info->open_cnt;
    EXPECT_EQ(open(pdb, 6, &handle), 0U);
    EXPECT_EQ(handle, 7U);
    EXPECT_EQ(pdb->hw_info->apihandle, 7U);
    EXPECT_EQ(pdb->hw_info->open_cnt, opened + 1);
}

TEST(LegacyNode, IsACharacterDevice) {
    const hostsim::Host host(hostsim::hosts::legacy_ports(1));
    const std::string directory = host.root(), file = directory + "/file";
    std::ofstream(file) << "text";
    const size_t before = open_descriptors();
    EXPECT_EQ(trelm_charnode_exist("/dev/char/vmkdriver/dorfc"), 0);
    for (const char* other : {file.c_str(), directory.c_str(), "/dev/char/vmkdriver/other"})
        EXPECT_EQ(trelm_charnode_exist(other), 1) << other;
    EXPECT_EQ(open_descriptors(), before);
}

TEST(LegacyNode, TakesRequestsInABlockWithTheAddressOfThePayload) {
    Guarded<dorfc_ioctl> request;
    trelm_priv_db pdb{};
    pdb.drvr_inst = 0x12345;  // 16 bits select a port
    EXPECT_EQ(trelm_setup_ioctl_struct(0xABCD, &pdb, &pdb, request.get()), 0U);
    EXPECT_EQ(contents(request), block(0xABCD, 0x2345, &pdb));
    EXPECT_TRUE(request.guards_intact());
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, nullptr), 1U);
}

}  // namespace
