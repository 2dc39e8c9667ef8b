// legacy_node.cpp - checks the whole request block before the driver accesses the payload at the address in
// the block.
#include "legacy_node.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "failed_call.h"
#include "trelm_driver_records.h"

namespace hostsim {
namespace {

struct Ioctl {
    uint32_t number;
    Operation operation;
    size_t size;  // of its payload record
};

constexpr std::array kIoctls{
    Ioctl{DORFC_GET_HBA_COUNT, Operation::hba_count, sizeof(dorfc_hba_cnt)},
    Ioctl{DORFC_GET_HOSTNO, Operation::hostno, sizeof(dorfc_hostno)},
    Ioctl{DORFC_GET_PCI_INFO, Operation::pci_info, sizeof(dorfc_pci_info)},
    Ioctl{DORFC_GET_PORT_INFO, Operation::port_info, sizeof(dorfc_port_info)},
    Ioctl{DORFC_GET_PORT_STATS, Operation::port_stats, sizeof(dorfc_port_stats)},
    Ioctl{DORFC_GET_TGT_INFO, Operation::tgt_info, sizeof(dorfc_tgt_info)},
    Ioctl{DORFC_GET_FCF_INFO, Operation::fcf_info, sizeof(dorfc_fcf_info)},
    Ioctl{DORFC_SEND_SCSI_CMD, Operation::scsi, sizeof(dorfc_scsi_cmd)},
};
constexpr size_t kLargestPayload = 512;

const Ioctl* find_ioctl(unsigned long number) {
    for (const Ioctl& ioctl : kIoctls) {
        if (ioctl.number == number) return &ioctl;
    }
    return nullptr;
}

bool is_sound(const dorfc_ioctl& block) {
    constexpr std::array<char, sizeof block.signature> kSignature{'D', 'O', 'R', 'F', 'C'};
    return std::memcmp(block.signature, kSignature.data(), kSignature.size()) == 0 && block.addrmode == 2 &&
           block.version == 1 && block.subcode == 0;
}

void* at_address(uint64_t address) { return reinterpret_cast<void*>(static_cast<uintptr_t>(address)); }

// Finds the data of a SCSI command in the memory of the caller. False if the command has data but no valid
// address.
bool find_data(const Ioctl& ioctl, const uint8_t* payload, std::span<uint8_t>& data) {
    if (ioctl.operation != Operation::scsi) return true;
    const auto& command = *reinterpret_cast<const dorfc_scsi_cmd*>(payload);
    if (command.direction != SCSI_DIRECTION_IN && command.direction != SCSI_DIRECTION_OUT) return true;
    if (command.data_addr == 0) return command.data_len == 0;
    data = {static_cast<uint8_t*>(at_address(command.data_addr)), command.data_len};
    return true;
}

}  // namespace

int legacy_ioctl(RequestPipeline& pipeline, unsigned long number, void* argument) {
    const Ioctl* const ioctl = find_ioctl(number);
    if (!ioctl) return fail_with(ENOTTY);
    if (!argument) return fail_with(EFAULT);
    dorfc_ioctl block;
    std::memcpy(&block, argument, sizeof block);
    if (!is_sound(block)) return fail_with(EINVAL);
    void* const caller = at_address(block.ioctlstructaddr);
    alignas(uint64_t) std::array<uint8_t, kLargestPayload> payload{};
    std::span<uint8_t> data;
    if (!caller) return fail_with(EFAULT);
    std::memcpy(payload.data(), caller, ioctl->size);
    if (!find_data(*ioctl, payload.data(), data)) return fail_with(EFAULT);

    const Completion completion = pipeline.serve({
        .driver = DriverKind::legacy,
        .operation = ioctl->operation,
        .number = number,
        .port = block.hbaselect,
        .port_is_index = true,
        .block = {reinterpret_cast<const uint8_t*>(&block), sizeof block},
        .record = {payload.data(), ioctl->size},
        .payload = std::span(payload).first(payload_size(DriverKind::legacy, ioctl->operation)),
        .data = data,
    });
    block.status = completion.status;
    if (completion.result == 0) std::memcpy(caller, payload.data(), ioctl->size);
    if (completion.result == 0 || completion.status != 0) std::memcpy(argument, &block, sizeof block);
    if (completion.result != 0) errno = completion.error;
    return completion.result;
}

}  // namespace hostsim
