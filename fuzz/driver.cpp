// driver.cpp - hostile drivers: whatever the three drivers answer, every public function stays within the
// buffers of the caller and within its documented return codes.
#include "../tests/support/guarded.h"
#include "hostile_host.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_mgmt.h"

namespace {

using trelm::fuzz::Input;
using trelm::test::Guarded;
using trelm::test::GuardedBytes;

constexpr int kMostCalls = 64;
constexpr uint32_t kTraceAndErrors = 6;

void check_code(uint32_t code) { REQUIRE(code == 0 || (code > TRELM_STATUS_BASE && code <= 0x6000000Du)); }
// Opening and closing a node may also return a system error number.
void check_code_or_errno(uint32_t code) { check_code(code < 256 ? 0 : code); }

// Fails and leaves the record untouched, or fills it.
template <typename Record, typename Call>
void ask(Input& input, const Call& call) {
    Guarded<Record> record;
    record->Version = input.below(3);
    const uint32_t version = record->Version;
    const Guarded<Record> before = record;
    const uint32_t code = call(record.get());
    check_code(code);
    REQUIRE(record.guards_intact() && record->Version == version);
    REQUIRE(code == 0 || memcmp(before.data(), record.data(), record.size()) == 0);
}

void open_port(Input& input) {
    Guarded<uint32_t> handle;
    const uint32_t code = TRELM_OpenAdapter(input.below(8), handle.get());
    check_code_or_errno(code);
    REQUIRE(handle.guards_intact());
    REQUIRE(code == 0 ? *handle.get() != 0 : bool(handle.untouched()));
}

void list_targets(Input& input, uint32_t handle, uint32_t npiv) {
    const uint32_t room = input.below(16);
    GuardedBytes array(room * sizeof(TRELM_TGT_INFO));
    auto* targets = reinterpret_cast<TRELM_TGT_INFO*>(array.data());
    uint32_t count = room;
    const uint32_t code = TRELM_GetTgtInfo(handle, npiv, &count, &targets);
    check_code(code);
    REQUIRE(array.guards_intact());
    REQUIRE(code != TRELM_STATUS_INSUFFICIENT_BUFFER || (count > room && array.untouched()));
}

void list_luns(Input& input, uint32_t handle, uint32_t npiv) {
    const uint32_t version = input.below(3);
    const uint32_t room = 1 + input.below(16);
    // Big enough to set the version: an array of one element of the earlier layout is smaller than the
    // record.
    GuardedBytes array(room * TRELM_LUN_INFO_STRIDE(version));
    memcpy(array.data(), &version, sizeof version);
    auto* luns = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
    uint32_t count = room;
    const uint32_t code = TRELM_GetLunInfo(handle, npiv, input.below(130), &count, &luns);
    check_code(code);
    REQUIRE(array.guards_intact());
    REQUIRE(code == TRELM_STATUS_INSUFFICIENT_BUFFER ? count > room : count == room);
}

void send_command(Input& input, uint32_t handle, uint32_t npiv) {
    Guarded<TRELM_SCSI_CMND> command;
    command->Direction = static_cast<uint8_t>(input.below(4));
    command->CDBLength = static_cast<uint8_t>(input.below(18));
    command->SenseLength = input.take<uint16_t>();
    uint32_t length = input.take<uint16_t>() % 1024;
    if (length > 1020)
        length += TRELM_SCSI_MAX_NATIVE_DATA - 1022;  // around the limit; rarely, because it takes time
    const uint32_t announced = length;
    GuardedBytes data(length);
    const Guarded<TRELM_SCSI_CMND> before = command;
    check_code(TRELM_SendScsiCommand(handle, npiv, command.get(), &length, data.data()));
    REQUIRE(length == announced);
    REQUIRE(command->Direction == TRELM_SCSI_DATA_IN ? bool(data.guards_intact()) : bool(data.untouched()));
    const size_t sense = offsetof(TRELM_SCSI_CMND, Sense);
    const size_t room = std::min<size_t>(command->SenseLength, sizeof command->Sense);
    REQUIRE(memcmp(before.data(), command.data(), sense) == 0);
    memcpy(command.data() + sense, before.data() + sense, room);
    REQUIRE(memcmp(before.data(), command.data(), command.size()) == 0 && command.guards_intact());
}

void call_something(Input& input) {
    const uint32_t call = input.below(10);
    const uint32_t handle = 1 + input.below(8), npiv = input.below(4);
    if (call < 2) return open_port(input);
    if (call == 2) return check_code_or_errno(TRELM_CloseAdapter(handle));
    if (call == 3)
        return ask<TRELM_FCOE_INFO>(input, [&](auto* info) { return TRELM_GetFcoeInfo(handle, info); });
    if (call == 4)
        return ask<TRELM_VNPORT_INFO>(input,
                                      [&](auto* info) { return TRELM_GetVNPortInfo(handle, npiv, info); });
    if (call == 5)
        return ask<TRELM_PORT_STATS>(input,
                                     [&](auto* stats) { return TRELM_GetPortStats(handle, npiv, stats); });
    if (call == 6) return list_targets(input, handle, npiv);
    if (call == 7) return list_luns(input, handle, npiv);
    if (call == 8) return send_command(input, handle, npiv);
    REQUIRE(TRELM_FreeLibrary() == TRELM_STATUS_OK);
    check_code(TRELM_LoadLibrary());
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto choices = input.take<uint8_t>();
    const trelm::fuzz::HostileHost host(input, (choices & 2) == 0);
    trelm_debug = choices & 1 ? kTraceAndErrors : 0;
    check_code(TRELM_LoadLibrary());
    uint32_t count = 0;
    check_code(TRELM_GetPortCount(&count));
    for (int calls = 0; calls < kMostCalls && !input.empty(); ++calls) call_something(input);
    REQUIRE(TRELM_FreeLibrary() == TRELM_STATUS_OK);
    REQUIRE(!trelm_priv_database && !trelm_phy_info && !trelm_shared_data);
    return 0;
}
