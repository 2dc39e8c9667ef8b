// SCSI commands, and target and LUN listings.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

constexpr uint32_t kMost = TRELM_SCSI_MAX_NATIVE_DATA;

struct Command {
    const char* name;
    uint8_t direction;
    uint8_t operation_code;
    uint32_t length;
};
constexpr Command kCommands[] = {{"no data", 0, 0x00, 0},
                                 {"36 bytes in", TRELM_SCSI_DATA_IN, 0x12, 36},
                                 {"256 KiB in", TRELM_SCSI_DATA_IN, 0x88, kMost},
                                 {"256 KiB out", TRELM_SCSI_DATA_OUT, 0x8A, kMost}};

TRELM_SCSI_CMND record_of(const Command& command) {
    TRELM_SCSI_CMND record = {};
    record.Direction = command.direction;
    record.CDBLength = 16;
    record.CDB[0] = command.operation_code;
    record.SenseLength = 256;
    return record;
}

void send(const LoadedLibrary& host, TRELM_SCSI_CMND& record, uint32_t length, uint8_t* data) {
    expect_ok(TRELM_SendScsiCommand(host.handle(), 0, &record, &length, data), "TRELM_SendScsiCommand");
}

void warm(benchmark::State& state, Kind kind, const Command& command) {
    const LoadedLibrary host({.kind = kind});
    std::vector<uint8_t> data(kMost, 1);
    std::vector<uint8_t> floor_data(kMost, 1);
    TRELM_SCSI_CMND record = record_of(command);
    ScsiPayload payload(kind, command.direction, command.operation_code, floor_data.data(), command.length);
    compare(
        state, [&] { send(host, record, command.length, data.data()); }, [&] { payload.send(); });
}

// The floor allocates a new payload, as the first command of the library does.
void cold(benchmark::State& state, Kind kind, const Command& command) {
    const LoadedLibrary host({.kind = kind});
    std::vector<uint8_t> data(kMost, 1);
    TRELM_SCSI_CMND record = record_of(command);
    compare_cold(
        state,
        [&] {
            touch_kernel_memory();
            memset(data.data(), 2, data.size());
        },
        [&] { send(host, record, command.length, data.data()); },
        [&] {
            ScsiPayload(kind, command.direction, command.operation_code, data.data(), command.length).send();
        });
}

constexpr uint8_t kReportLuns = 0xA0;
constexpr uint32_t kReportLunsRoom = 16384;

void targets(benchmark::State& state, Kind kind) {
    constexpr uint32_t kTargets = 128;
    const LoadedLibrary host({.kind = kind, .targets = kTargets, .luns = 8});
    TRELM_VNPORT_INFO port = {};
    port.Version = 2;
    expect_ok(TRELM_GetVNPortInfo(host.handle(), 0, &port), "TRELM_GetVNPortInfo");
    std::vector<TRELM_TGT_INFO> found(kTargets);
    std::vector<uint8_t> list(kReportLunsRoom);
    Payload target(kind, RequestNumber::tgt_info);
    ScsiPayload report(kind, SCSI_DIRECTION_IN, kReportLuns, list.data(), kReportLunsRoom);
    compare(
        state,
        [&] {
            uint32_t count = kTargets;
            TRELM_TGT_INFO* array = found.data();
            expect_ok(TRELM_GetTgtInfo(host.handle(), 0, &count, &array), "TRELM_GetTgtInfo");
        },
        [&] {
            for (uint32_t i = 0; i < kTargets; ++i) {
                target.send();
                report.send();
            }
        });
    if (found.back().LunCount != 8) state.SkipWithError("the last target was not listed with its 8 LUNs");
}

void luns(benchmark::State& state, Kind kind, uint32_t count) {
    const LoadedLibrary host({.kind = kind, .targets = 1, .luns = count});
    std::vector<TRELM_LUN_INFO> found(count);
    found[0].Version = 2;
    std::vector<uint8_t> data(kReportLunsRoom);
    ScsiPayload report(kind, SCSI_DIRECTION_IN, kReportLuns, data.data(), kReportLunsRoom);
    ScsiPayload inquiry(kind, SCSI_DIRECTION_IN, 0x12, data.data(), 256);
    ScsiPayload capacity(kind, SCSI_DIRECTION_IN, 0x25, data.data(), 32);
    compare(
        state,
        [&] {
            uint32_t room = count;
            TRELM_LUN_INFO* array = found.data();
            expect_ok(TRELM_GetLunInfo(host.handle(), 0, 0, &room, &array), "TRELM_GetLunInfo");
        },
        [&] {
            report.send();
            for (uint32_t i = 0; i < count; ++i) {
                inquiry.send();
                capacity.send();
            }
        });
    if (found.back().ScsiLunNum == 0) state.SkipWithError("the last LUN was not listed");
}

}  // namespace

void add_scsi_rows() {
    for (const Kind kind : kKinds) {
        for (const Command& command : kCommands) {
            const std::string name =
                std::string("TRELM_SendScsiCommand ") + command.name + ", " + name_of(kind);
            add_row(name + ", warm", kPairs, [=](benchmark::State& state) { warm(state, kind, command); });
            add_row(name + ", cold", kColdPairs,
                    [=](benchmark::State& state) { cold(state, kind, command); });
        }
        const std::string driver = name_of(kind);
        add_row("TRELM_GetTgtInfo 128 targets, " + driver, 31,
                [=](benchmark::State& state) { targets(state, kind); });
        add_row("TRELM_GetLunInfo 8 LUNs, " + driver, 101,
                [=](benchmark::State& state) { luns(state, kind, 8); });
        add_row("TRELM_GetLunInfo 2047 LUNs, " + driver, 15,
                [=](benchmark::State& state) { luns(state, kind, 2047); });
    }
}

}  // namespace bench
