// scsi.cpp - builds sense data and replies for all commands.
#include "scsi.h"

#include <algorithm>

namespace hostsim {

namespace {

// Offsets and bits of fixed-format sense data.
constexpr uint8_t kCurrentError = 0x70;
constexpr uint8_t kInformationValid = 0x80;
constexpr uint8_t kSenseKeySpecificValid = 0x80;
constexpr uint8_t kErrorInCdb = 0x40;
constexpr uint8_t kBitPointerValid = 0x08;

ScsiReply field_reply(uint8_t byte, uint8_t flags) {
    ScsiReply reply = check_condition(sense::kInvalidField);
    reply.sense[15] = static_cast<uint8_t>(kSenseKeySpecificValid | kErrorInCdb | flags);
    put_be(reply.sense, 16, 2, byte);
    return reply;
}

}  // namespace

SenseData fixed_sense(SenseCode code) {
    SenseData data{};
    data[0] = kCurrentError;
    data[2] = code.key;
    data[7] = static_cast<uint8_t>(data.size() - 8);
    data[12] = code.asc;
    data[13] = code.ascq;
    return data;
}

ScsiReply check_condition(SenseCode code) { return {ScsiStatus::check_condition, 0, fixed_sense(code)}; }

ScsiReply invalid_field(uint8_t byte) { return field_reply(byte, 0); }

ScsiReply invalid_field(uint8_t byte, uint8_t bit) {
    return field_reply(byte, static_cast<uint8_t>(kBitPointerValid | bit));
}

ScsiReply medium_error(SenseCode code, uint64_t lba) {
    ScsiReply reply = check_condition(code);
    if (lba > UINT32_MAX) return reply;
    reply.sense[0] |= kInformationValid;
    put_be(reply.sense, 3, 4, lba);
    return reply;
}

ScsiReply deliver(const ScsiRequest& request, std::span<const uint8_t> data, uint64_t allocation_length) {
    ScsiReply reply;
    reply.transferred = std::min<uint64_t>({data.size(), allocation_length, request.data_in.size()});
    std::copy_n(data.begin(), reply.transferred, request.data_in.begin());
    return reply;
}

uint64_t get_be(std::span<const uint8_t> bytes, size_t at, size_t width) {
    uint64_t value = 0;
    for (uint8_t byte : bytes.subspan(at, width)) value = value << 8 | byte;
    return value;
}

void put_be(std::span<uint8_t> bytes, size_t at, size_t width, uint64_t value) {
    for (size_t i = width; i-- > 0; value >>= 8) bytes[at + i] = static_cast<uint8_t>(value);
}

}  // namespace hostsim
