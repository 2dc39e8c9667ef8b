// The results of calls with invalid arguments and of failed requests. The golden logs hold their lines, and
// exhausted memory.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

struct PublicCall {
    const char* text;
    std::function<uint32_t()> make;
};
#define CALL(...) (PublicCall{#__VA_ARGS__, [&] { return __VA_ARGS__; }})

TRELM_SCSI_CMND scsi_command(uint8_t direction, uint8_t cdb_length) {
    TRELM_SCSI_CMND command{};
    command.Direction = direction, command.CDBLength = cdb_length;
    return command;
}

class Calls : public OnEachDriver {
  protected:
    Calls() { open_port(); }

    const bool native = GetParam() != DriverKind::legacy;
    Guarded<TRELM_VNPORT_INFO> port;
    Guarded<TRELM_PORT_STATS> stats;
    Guarded<std::array<TRELM_TGT_INFO, 2>> targets;
    std::array<TRELM_LUN_INFO, 2> luns{};
    TRELM_SCSI_CMND read = scsi_command(1, 6);
    std::array<uint8_t, 96> data{};
    uint32_t length = 96, one = 1, two = 2, zero = 0;
    TRELM_TGT_INFO *tgts = targets->data(), *no_tgts = nullptr;
    TRELM_LUN_INFO *lun_array = luns.data(), *no_luns = nullptr;
    const PublicCall get_port = CALL(TRELM_GetVNPortInfo(1, 0, port.get()));
    const PublicCall get_stats = CALL(TRELM_GetPortStats(1, 0, stats.get()));
    const PublicCall send = CALL(TRELM_SendScsiCommand(1, 0, &read, &length, data.data()));
    const PublicCall get_targets = CALL(TRELM_GetTgtInfo(1, 0, &two, &tgts));
};
TRELM_ON_EACH_DRIVER(Calls);

TEST_P(Calls, RefuseInvalidArgumentsInOrder) {
    TRELM_SCSI_CMND long_cdb = scsi_command(0, 17), write = scsi_command(2, 6), none = scsi_command(255, 6);
    uint32_t too_long = 262145;
    std::vector<PublicCall> invalid{CALL(TRELM_GetFcoeInfo(1, nullptr)),
                                    CALL(TRELM_GetVNPortInfo(9, 0, nullptr)),
                                    CALL(TRELM_GetPortStats(9, 0, nullptr)),
                                    CALL(TRELM_SendScsiCommand(9, 0, nullptr, &length, data.data())),
                                    CALL(TRELM_SendScsiCommand(9, 0, &long_cdb, &length, data.data())),
                                    CALL(TRELM_SendScsiCommand(9, 0, &write, nullptr, data.data())),
                                    CALL(TRELM_SendScsiCommand(9, 0, &read, &length, nullptr)),
                                    CALL(TRELM_GetTgtInfo(9, 0, nullptr, &tgts)),
                                    CALL(TRELM_GetTgtInfo(1, 0, &two, &no_tgts)),
                                    CALL(TRELM_GetTgtInfo(1, 0, &two, nullptr)),
                                    CALL(TRELM_GetLunInfo(9, 0, 128, &two, &lun_array)),
                                    CALL(TRELM_GetLunInfo(9, 0, 3, &zero, &lun_array)),
                                    CALL(TRELM_GetLunInfo(9, 0, 3, nullptr, &lun_array)),
                                    CALL(TRELM_GetLunInfo(9, 0, 3, &two, &no_luns)),
                                    CALL(TRELM_GetLunInfo(9, 0, 3, &two, nullptr))};
    if (native) invalid.push_back(CALL(TRELM_SendScsiCommand(1, 0, &write, &too_long, data.data())));
    std::vector<PublicCall> nowhere{CALL(TRELM_GetFcoeInfo(9, nullptr)),
                                    CALL(TRELM_GetVNPortInfo(1, 78, port.get())),
                                    CALL(TRELM_GetPortStats(1, 3, stats.get())),
                                    CALL(TRELM_SendScsiCommand(9, 0, &write, &too_long, data.data())),
                                    CALL(TRELM_SendScsiCommand(9, 0, &read, &zero, nullptr)),
                                    CALL(TRELM_SendScsiCommand(9, 0, &none, nullptr, nullptr)),
                                    CALL(TRELM_GetTgtInfo(9, 0, &zero, &no_tgts))};
    std::vector<PublicCall> too_small{CALL(TRELM_GetTgtInfo(1, 0, &one, &tgts))};
    host.clear_calls();
    for (const auto& [calls, code] : {std::pair{&invalid, TRELM_STATUS_INVALID_PARAMETER},
                                      {&nowhere, TRELM_STATUS_FAILED},
                                      {&too_small, TRELM_STATUS_INSUFFICIENT_BUFFER}}) {
        for (const PublicCall& call : *calls) EXPECT_EQ(call.make(), code) << call.text;
    }
    EXPECT_TRUE(host.calls().empty() && port.untouched() && stats.untouched() && targets.untouched());
    EXPECT_EQ(std::pair(one, zero), std::pair(2U, 0U)) << "as many targets as there are";
}

// The status of the driver takes precedence over the result of the call. Golden files hold the lines.
TEST_P(Calls, TranslateFailuresOfTheDriverAndLeaveTheirRecordsAlone) {
    std::vector<DriverFailure> failures{{0, EIO}, {5, EIO},        {99, EIO},
                                        {255, 0}, {0x80000000, 0}, {0xFFFFFFFF, 0}};
    for (uint32_t status = 1; status <= 14; ++status) failures.push_back({status, 0});
    for (const auto& [operation, call] : {std::pair{Operation::port_info, &get_port},
                                          {Operation::fcf_info, &get_port},
                                          {Operation::port_stats, &get_stats},
                                          {Operation::scsi, &send},
                                          {Operation::tgt_info, &get_targets}}) {
        for (const auto& [status, error] : failures) {
            if (status == 13 && operation == Operation::tgt_info) continue;  // ends the list
            DriverFailure{status, error}.of(host, operation);
            EXPECT_EQ(call->make(), 0x60000000 + (status >= 1 && status <= 13 ? status : 11))
                << fmt::format("{}: status {}, errno {}", call->text, status, error);
            EXPECT_TRUE(port.untouched() && stats.untouched() && targets.untouched());
        }
    }
}

}  // namespace
