// The transports to the three drivers, called directly: the result of each request. Tests of SCSI commands,
// targets and port information check what is sent. The golden logs hold their lines.
#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

// A request that is made by calling an exported function with a record.
struct Request {
    Operation operation;
    size_t size;
    std::function<uint32_t(void*)> call;
};

class Transport : public OnEachDriver {
  protected:
    Transport() {
        open_port(1);
        pdb = trelm_get_pdb_from_user_handle(2);
    }
    template <typename Record>
    Request request(Operation operation, uint32_t (*function)(trelm_priv_db*, Record*, uint32_t*)) {
        return {operation, sizeof(Record),
                [=, this](void* to) { return function(pdb, static_cast<Record*>(to), &stat); }};
    }
    template <typename Record>
    Request request(Operation operation, uint32_t (*function)(int32_t, trelm_priv_db*, Record*, uint32_t*)) {
        return {operation, sizeof(Record), [=, this](void* to) {
                    return function(pdb->hw_info->oshandle, pdb, static_cast<Record*>(to), &stat);
                }};
    }
    std::vector<Request> requests() {
        const bool kron = GetParam() == DriverKind::kron;
        if (native)
            return {
                kron ? request(Operation::port_info, trelmnt_get_port_info)
                     : request(Operation::port_info, trelm_pyxnt_get_port_info),
                request(Operation::port_stats, kron ? trelmnt_get_port_stats : trelm_pyxnt_get_port_stats),
                request(Operation::tgt_info, kron ? trelmnt_get_tgt_info : trelm_pyxnt_get_tgt_info),
                request(Operation::fcf_info, kron ? trelmnt_get_fcf_info : trelm_pyxnt_get_fcf_info),
                request(Operation::scsi, kron ? trelmnt_send_scsi_cmd : trelm_pyxnt_send_scsi_cmd)};
        return {request(Operation::pci_info, trelm_get_pci_info),
                request(Operation::port_info, trelm_get_port_info),
                request(Operation::port_stats, trelm_get_port_stats),
                request(Operation::tgt_info, trelm_get_tgt_info),
                request(Operation::fcf_info, trelm_get_fcf_info),
                request(Operation::scsi, trelm_send_scsi_cmd)};
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

TEST_P(Transport, ReturnsTheStatusAndTheWholeAnswerOfASuccess) {
    for (const Request& request : requests()) {
        SCOPED_TRACE(hostsim::kOperationNames.at(static_cast<size_t>(request.operation)));
        GuardedBytes record = record_for(request);
        const std::vector<uint8_t> before = contents(record);
        DriverFailure{.status = 20, .error = EIO}.of(host, request.operation);
        EXPECT_EQ(std::pair(request.call(record.data()), stat), std::pair(1U, 20U));
        EXPECT_TRUE(contents(record) == before);
        host.tamper = [](DriverAnswer& answer) {
            answer.status = 0, answer.result = 0;
            std::fill(answer.payload.begin(), answer.payload.end(), 0x6B);
        };
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
    const trelm_hw_info& adapter = *pdb->hw_info;
    dorfc_pci_info at{};
    at.domain_num = adapter.pci_domain, at.bus_num = adapter.pci_bus;
    at.device_num = adapter.pci_dev, at.function_num = adapter.pci_func;
    EXPECT_EQ(kron ? trelmnt_get_hw_info_inst(&at) : trelm_pyxnt_get_hw_info_inst(&at), &adapter);
    EXPECT_EQ(kron ? trelmnt_get_parent_port(&at) : trelm_pyxnt_get_parent_port(&at), pdb);
}

// Requests of the library contain the subcode 0. The simulated driver refuses blocks with other contents.
TEST(LegacyNode, TakesRequestsInABlockWithTheAddressOfThePayload) {
    Guarded<dorfc_ioctl> block;
    trelm_priv_db pdb{};
    pdb.drvr_inst = 0x12345;  // 16 bits select a port
    dorfc_ioctl expected{};
    memcpy(expected.signature, "DORFC", 5);
    expected.addrmode = 2, expected.version = 1, expected.subcode = 0xABCD, expected.hbaselect = 0x2345;
    expected.ioctlstructaddr = trelm_ptr_to_64bit(&pdb);
    EXPECT_EQ(trelm_setup_ioctl_struct(0xABCD, &pdb, &pdb, block.get()), 0U);
    EXPECT_EQ(memcmp(block.get(), &expected, sizeof expected), 0);
    EXPECT_TRUE(block.guards_intact());
    EXPECT_EQ(trelm_64bit_to_ptr(block->ioctlstructaddr), &pdb);
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, block.get()), 0U);
    EXPECT_EQ(+block->hbaselect, 0) << "of a request to no port";
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, nullptr), 1U);
}

}  // namespace
