// hostile_host.cpp - the answers of the drivers, and replacements for functions of libc that would start a
// process, wait for a disk or print the log.
#include "hostile_host.h"

#include "../tests/support/libc_replacements.h"
#include "host_builders.h"
#include "own_calls.h"
#include "trelm_driver_records.h"

namespace trelm::fuzz {
namespace {

using hostsim::Operation;

Input* input = nullptr;
HostileHost* current = nullptr;
std::optional<hostsim::OwnCalls> fuzzers_own;  // the fuzzer reads its inputs from files of the machine

// Checks that a native command holds zeros after the data that it sends. The legacy driver fills the rest of
// the buffer of the caller.
void take_command(const hostsim::DriverAnswer& given, bool native) {
    const auto& command = given.as<dorfc_scsi_cmd>();
    REQUIRE(command.cdb_len <= kScsiMaxCdb && command.sense_len <= kScsiMaxSense);
    REQUIRE(command.direction <= SCSI_DIRECTION_OUT);
    REQUIRE(command.direction != SCSI_DIRECTION_NONE || command.data_len == 0);
    const size_t sent = command.direction == SCSI_DIRECTION_OUT ? command.data_len : 0;
    const std::span<uint8_t> rest =
        given.data.subspan(sent);  // room in the caller's buffer for data to be read
    if (rest.empty()) return;
    if (native) return REQUIRE(rest[0] == 0 && memcmp(&rest[0], &rest[1], rest.size() - 1) == 0);
    memset(rest.data(), 0, rest.size());
    std::ranges::copy(input->bytes(std::min<size_t>(rest.size(), 64)), rest.begin());
}

// Sets values without which the library would not use the port any further.
void suggest(const hostsim::DriverAnswer& given) {
    constexpr uint16_t kDevices[]{0x8080, 0x16A1, 0x168E};
    const auto operation = given.call.operation;
    if (operation == Operation::hba_count) given.payload[0] = static_cast<uint8_t>(input->below(8));
    if (operation == Operation::port_info) given.as<dorfc_port_info>().tgt_cnt = 2;
    if (operation == Operation::pci_info)
        given.as<dorfc_pci_info>().device_id = kDevices[static_cast<size_t>(given.call.driver)];
}

// An answer in the input: its form, then what the form requires. The payload is that of the request, filled
// with one byte, patched, or unchanged. For a native SCSI command only the command and the beginning of its
// data are changed.
void answer(hostsim::DriverAnswer& given) {
    if (given.call.operation == Operation::scsi)
        take_command(given, given.call.driver != hostsim::DriverKind::legacy);
    suggest(given);
    given.status = 1, given.result = 0;
    if (input->empty()) return;
    const auto shape = input->take<uint8_t>();
    const size_t size = std::min(given.payload.size(), offsetof(kronfc_scsi_cmd, data_buffer) + 128);
    given.status = (shape & 1) == 0 ? 0 : shape & 2 ? input->take<uint32_t>() : input->take<uint8_t>();
    if (shape & 4) memset(given.payload.data(), input->take<uint8_t>(), size);
    for (int patches = shape >> 4; patches > 0; --patches) {
        const size_t at = input->take<uint16_t>() % size;
        const auto patch = input->bytes(std::min<size_t>(input->below(33), size - at));
        std::ranges::copy(patch, given.payload.data() + at);
    }
    // The library asks for each announced port, up to 65,536.
    if (given.call.operation == Operation::hba_count) memset(&given.payload[1], 0, 3);
    if (shape & 8) given.result = -1, given.error = input->take<uint8_t>();
}

}  // namespace

REPLACES_LIBC(int, vmk_MgmtUserInit, (vmk_MgmtApiSignature * api, uint64_t cookie, uint64_t* handle)) {
    const int refusal = input->empty() ? ENOENT : input->take<uint8_t>() & 0x3;
    return refusal ? refusal : NEXT_OF(vmk_MgmtUserInit)(api, cookie, handle);
}

REPLACES_LIBC(FILE*, popen, (const char* command, const char* mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(popen)(command, mode);
    return fmemopen(current->listing.data(), current->listing.size(), "r");
}

REPLACES_LIBC(int, pclose, (FILE * stream)) {
    return CALLED_BY_LIBRARY() ? fclose(stream) : NEXT_OF(pclose)(stream);
}

// sync() is not needed here.
REPLACES_LIBC(int, fsync, (int)) { return 0; }
REPLACES_LIBC(int, msync, (void*, size_t, int)) { return 0; }

// Reads a line of the log to its end and does not print it.
REPLACES_LIBC(int, fputs, (const char* text, FILE* stream)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(fputs)(text, stream);
    REQUIRE(strlen(text) < 256);
    return 0;
}

HostileHost::HostileHost(Input& answers, bool legacy_node) {
    static hostsim::Host host(
        hostsim::hosts::empty());  // kept, because creating a host takes longer than most inputs
    REQUIRE(test::find_library());
    input = &answers, current = this;
    host.model() = hostsim::hosts::empty(legacy_node);
    host.clear_calls();
    host.tamper = answer;
    fuzzers_own.reset();
}

HostileHost::~HostileHost() { fuzzers_own.emplace(); }

}  // namespace trelm::fuzz
