// scsi.h - the interface between a host and a simulated SCSI device: the request with its data buffers, the
// reply with its status and fixed-format sense data, and the sense codes of the devices.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "hostsim_api.h"

namespace hostsim {

enum class ScsiStatus : uint8_t { good = 0x00, check_condition = 0x02, reservation_conflict = 0x18 };

// Sense key, additional sense code and its qualifier.
struct SenseCode {
    uint8_t key = 0;
    uint8_t asc = 0;
    uint8_t ascq = 0;
    friend bool operator==(const SenseCode&, const SenseCode&) = default;
};

namespace sense {
inline constexpr SenseCode kNone{0x00, 0x00, 0x00};
inline constexpr SenseCode kBecomingReady{0x02, 0x04, 0x01};
inline constexpr SenseCode kNeedsStart{0x02, 0x04, 0x02};
inline constexpr SenseCode kNeedsIntervention{0x02, 0x04, 0x03};
inline constexpr SenseCode kNoMedium{0x02, 0x3A, 0x00};
inline constexpr SenseCode kWriteError{0x03, 0x0C, 0x00};
inline constexpr SenseCode kReadError{0x03, 0x11, 0x00};
inline constexpr SenseCode kInvalidOpcode{0x05, 0x20, 0x00};
inline constexpr SenseCode kLbaOutOfRange{0x05, 0x21, 0x00};
inline constexpr SenseCode kInvalidField{0x05, 0x24, 0x00};
inline constexpr SenseCode kLunNotSupported{0x05, 0x25, 0x00};
inline constexpr SenseCode kNoSavedParameters{0x05, 0x39, 0x00};
inline constexpr SenseCode kPowerOnReset{0x06, 0x29, 0x00};
inline constexpr SenseCode kDataPhaseError{0x0B, 0x4B, 0x00};
}  // namespace sense

inline constexpr uint8_t kUnitAttention = 0x06;  // the sense key

using SenseData = std::array<uint8_t, 18>;

// A request has data in at most one direction. If a command needs data and the span is empty, the data phase
// is missing.
struct ScsiRequest {
    std::array<uint8_t, 16> cdb{};        // zeros follow the bytes that the host sent
    std::span<uint8_t> data_in{};         // receives the data of the device
    std::span<const uint8_t> data_out{};  // the data of the host
};

struct ScsiReply {
    ScsiStatus status = ScsiStatus::good;
    size_t transferred = 0;  // bytes that were put into data_in or taken from data_out
    SenseData sense{};       // on CHECK CONDITION; zeros otherwise
};

HOSTSIM_API SenseData fixed_sense(SenseCode code);

HOSTSIM_API ScsiReply check_condition(SenseCode code);

// An invalid field of the CDB. The sense data points at its first byte and, where given, its highest bit.
ScsiReply invalid_field(uint8_t byte);
ScsiReply invalid_field(uint8_t byte, uint8_t bit);

// A medium error at a block. The sense data names the block if its 32-bit information field can hold it.
ScsiReply medium_error(SenseCode code, uint64_t lba);

// Sends `data` to the host, cut to the command's allocation length and to the host's buffer.
ScsiReply deliver(const ScsiRequest& request, std::span<const uint8_t> data, uint64_t allocation_length);

// Numbers in SCSI are big-endian and have any width up to eight bytes.
HOSTSIM_API uint64_t get_be(std::span<const uint8_t> bytes, size_t at, size_t width);
HOSTSIM_API void put_be(std::span<uint8_t> bytes, size_t at, size_t width, uint64_t value);

}  // namespace hostsim
