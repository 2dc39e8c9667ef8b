// scsi_disk.cpp - the commands of a disk. One table says in which conditions each runs, and one function
// checks them.
#include "scsi_disk.h"

#include <algorithm>
#include <iterator>

#include "scsi_inquiry.h"
#include "scsi_mode_pages.h"

namespace hostsim {

struct Disk::Command {
    // Conditions that do not keep a command from running.
    enum Despite : uint8_t { kNothing = 0, kNotReady = 1, kReservation = 2, kAnything = 7 };

    uint8_t opcode;
    uint8_t length;  // of the CDB; its last byte is the control byte
    uint8_t despite;
    ScsiReply (Disk::*run)(const ScsiRequest&) const;
};

const Disk::Command* Disk::find_command(uint8_t opcode) {
    static constexpr Command kCommands[] = {
        {0x00, 6, Command::kReservation, &Disk::test_unit_ready},
        {0x03, 6, Command::kAnything, &Disk::request_sense},
        {0x08, 6, Command::kNothing, &Disk::read},
        {0x0A, 6, Command::kNothing, &Disk::write},
        {0x12, 6, Command::kAnything, &Disk::inquiry},
        {0x1A, 6, Command::kNotReady, &Disk::mode_sense},
        {0x25, 10, Command::kReservation, &Disk::read_capacity_10},
        {0x28, 10, Command::kNothing, &Disk::read},
        {0x2A, 10, Command::kNothing, &Disk::write},
        {0x35, 10, Command::kNothing, &Disk::synchronize_cache},
        {0x5A, 10, Command::kNotReady, &Disk::mode_sense},
        {0x88, 16, Command::kNothing, &Disk::read},
        {0x8A, 16, Command::kNothing, &Disk::write},
        {0x91, 16, Command::kNothing, &Disk::synchronize_cache},
        {0x9E, 16, Command::kReservation, &Disk::service_action_in},
        {0xA8, 12, Command::kNothing, &Disk::read},
        {0xAA, 12, Command::kNothing, &Disk::write},
    };
    const auto* row = std::ranges::find(kCommands, opcode, &Command::opcode);
    return row == std::end(kCommands) ? nullptr : row;
}

namespace {

constexpr uint8_t kNaca = 0x04;  // normal auto contingent allegiance, which these disks do not support

// The blocks that a command addresses. The group of its opcode determines where the CDB holds them.
struct Extent {
    uint64_t lba;
    uint64_t blocks;
};

Extent extent_of(const std::array<uint8_t, 16>& cdb) {
    switch (cdb[0] >> 5) {
        case 0:
            return {get_be(cdb, 1, 3) & 0x1FFFFF, cdb[4] == 0 ? 256u : cdb[4]};
        case 4:
            return {get_be(cdb, 2, 8), get_be(cdb, 10, 4)};
        case 5:
            return {get_be(cdb, 2, 4), get_be(cdb, 6, 4)};
        default:
            return {get_be(cdb, 2, 4), get_be(cdb, 7, 2)};
    }
}

bool is_within(const Extent& extent, const DiskConfig& disk) {
    return extent.lba < disk.block_count && extent.blocks <= disk.block_count - extent.lba;
}

// The reason to refuse a read or write before a byte moves. Six-byte commands have no protection field.
std::optional<ScsiReply> objection(const ScsiRequest& request, const Extent& extent, const DiskConfig& disk) {
    const bool wants_protection = request.cdb[0] >> 5 != 0 && (request.cdb[1] & 0xE0) != 0;
    if (wants_protection) return invalid_field(1, 7);
    if (!is_within(extent, disk)) return check_condition(sense::kLbaOutOfRange);
    return std::nullopt;
}

}  // namespace

ScsiReply Disk::run(const ScsiRequest& request) const {
    const Command* command = find_command(request.cdb[0]);
    if (command == nullptr) return check_condition(sense::kInvalidOpcode);
    if ((request.cdb[command->length - 1] & kNaca) != 0) {
        return invalid_field(static_cast<uint8_t>(command->length - 1), 2);
    }
    if (config_.reserved && (command->despite & Command::kReservation) == 0) {
        return {ScsiStatus::reservation_conflict, 0, {}};
    }
    const auto in_the_way = condition();
    if (!in_the_way || command->despite == Command::kAnything) return (this->*command->run)(request);
    const bool passes = (command->despite & Command::kNotReady) != 0 && in_the_way->key != kUnitAttention;
    return passes ? (this->*command->run)(request) : check_condition(*in_the_way);
}

std::optional<SenseCode> Disk::condition() const {
    if (config_.condition || config_.block_count != 0) return config_.condition;
    return sense::kNoMedium;
}

ScsiReply Disk::test_unit_ready(const ScsiRequest&) const { return {}; }

// Sense data goes with each reply, so none is pending. The current condition is reported.
ScsiReply Disk::request_sense(const ScsiRequest& request) const {
    if ((request.cdb[1] & 0x01) != 0) return invalid_field(1, 0);
    return deliver(request, fixed_sense(condition().value_or(sense::kNone)), request.cdb[4]);
}

ScsiReply Disk::inquiry(const ScsiRequest& request) const {
    const bool wants_page = (request.cdb[1] & 0x01) != 0;
    const uint64_t allocation = get_be(request.cdb, 3, 2);
    if ((request.cdb[1] & 0x02) != 0) return invalid_field(1, 1);
    if (!wants_page && request.cdb[2] != 0) return invalid_field(2);
    if (!wants_page) return deliver(request, standard_inquiry(config_), allocation);
    const auto page = vital_product_data(config_, request.cdb[2]);
    return page ? deliver(request, *page, allocation) : invalid_field(2);
}

// All ones if 32 bits cannot hold the last block: the host must then use READ CAPACITY (16).
ScsiReply Disk::read_capacity_10(const ScsiRequest& request) const {
    const bool asks_at_address = (request.cdb[8] & 0x01) != 0;
    if (!asks_at_address && get_be(request.cdb, 2, 4) != 0) return invalid_field(2);
    std::array<uint8_t, 8> data{};
    put_be(data, 0, 4, std::min<uint64_t>(config_.block_count - 1, UINT32_MAX));
    put_be(data, 4, 4, config_.block_size);
    return deliver(request, data, data.size());
}

ScsiReply Disk::service_action_in(const ScsiRequest& request) const {
    constexpr uint8_t kReadCapacity16 = 0x10;
    if ((request.cdb[1] & 0x1F) != kReadCapacity16) return invalid_field(1, 4);
    std::array<uint8_t, 32> data{};
    put_be(data, 0, 8, config_.block_count - 1);
    put_be(data, 8, 4, config_.block_size);
    return deliver(request, data, get_be(request.cdb, 10, 4));
}

ScsiReply Disk::mode_sense(const ScsiRequest& request) const { return mode_sense_reply(config_, request); }

// If the buffer of the host is smaller than the request, as much as fits is sent.
ScsiReply Disk::read(const ScsiRequest& request) const {
    const Extent extent = extent_of(request.cdb);
    if (auto reply = objection(request, extent, config_)) return *reply;
    const uint64_t wanted = extent.blocks * config_.block_size;
    const auto data = request.data_in.first(std::min<uint64_t>(wanted, request.data_in.size()));
    const size_t done = store_->read(extent.lba, data);
    if (done == data.size()) return {ScsiStatus::good, done, {}};
    ScsiReply reply = medium_error(sense::kReadError, extent.lba + done / config_.block_size);
    reply.transferred = done;
    return reply;
}

// If the host sends less than it announced, nothing is written.
ScsiReply Disk::write(const ScsiRequest& request) const {
    const Extent extent = extent_of(request.cdb);
    if (auto reply = objection(request, extent, config_)) return *reply;
    const uint64_t wanted = extent.blocks * config_.block_size;
    if (request.data_out.size() < wanted) return check_condition(sense::kDataPhaseError);
    const size_t done = store_->write(extent.lba, request.data_out.first(wanted));
    if (done == wanted) return {ScsiStatus::good, done, {}};
    ScsiReply reply = medium_error(sense::kWriteError, extent.lba + done / config_.block_size);
    reply.transferred = done;
    return reply;
}

// There is no write cache. 0 blocks means all up to the last one.
ScsiReply Disk::synchronize_cache(const ScsiRequest& request) const {
    return is_within(extent_of(request.cdb), config_) ? ScsiReply{} : check_condition(sense::kLbaOutOfRange);
}

}  // namespace hostsim
