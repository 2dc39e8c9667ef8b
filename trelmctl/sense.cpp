#include "sense.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "text.h"

namespace trelmctl {
namespace {

constexpr std::array<std::string_view, 16> kKeys{
    "No sense",       "Recovered error", "Not ready",      "Medium error",
    "Hardware error", "Illegal request", "Unit attention", "Data protect",
    "Blank check",    "Vendor specific", "Copy aborted",   "Aborted command",
    "Sense key 0x0c", "Volume overflow", "Miscompare",     "Completed",
};

struct Additional {
    uint8_t asc;
    uint8_t ascq;
    std::string_view text;
};
constexpr std::array kAdditional{
    Additional{0x00, 0x00, "no additional sense information"},
    Additional{0x00, 0x06, "I/O process terminated"},
    Additional{0x02, 0x00, "no seek complete"},
    Additional{0x03, 0x00, "peripheral device write fault"},
    Additional{0x04, 0x00, "logical unit not ready, cause not reportable"},
    Additional{0x04, 0x01, "logical unit is becoming ready"},
    Additional{0x04, 0x02, "logical unit not ready, initializing command required"},
    Additional{0x04, 0x03, "logical unit not ready, manual intervention required"},
    Additional{0x04, 0x04, "logical unit not ready, format in progress"},
    Additional{0x04, 0x05, "logical unit not ready, rebuild in progress"},
    Additional{0x04, 0x07, "logical unit not ready, operation in progress"},
    Additional{0x04, 0x09, "logical unit not ready, self-test in progress"},
    Additional{0x04, 0x0A, "logical unit not accessible, asymmetric access state transition"},
    Additional{0x04, 0x0B, "logical unit not accessible, target port in standby state"},
    Additional{0x04, 0x0C, "logical unit not accessible, target port in unavailable state"},
    Additional{0x08, 0x00, "logical unit communication failure"},
    Additional{0x0B, 0x00, "warning"},
    Additional{0x0C, 0x00, "write error"},
    Additional{0x10, 0x00, "ID CRC or ECC error"},
    Additional{0x11, 0x00, "unrecovered read error"},
    Additional{0x1A, 0x00, "parameter list length error"},
    Additional{0x1D, 0x00, "miscompare during verify operation"},
    Additional{0x20, 0x00, "invalid command operation code"},
    Additional{0x21, 0x00, "logical block address out of range"},
    Additional{0x24, 0x00, "invalid field in CDB"},
    Additional{0x25, 0x00, "logical unit not supported"},
    Additional{0x26, 0x00, "invalid field in parameter list"},
    Additional{0x27, 0x00, "write protected"},
    Additional{0x27, 0x07, "space allocation failed, write protect"},
    Additional{0x28, 0x00, "not ready to ready change, medium may have changed"},
    Additional{0x29, 0x00, "power on, reset or bus device reset occurred"},
    Additional{0x29, 0x01, "power on occurred"},
    Additional{0x2A, 0x01, "mode parameters changed"},
    Additional{0x2A, 0x03, "reservations preempted"},
    Additional{0x2A, 0x09, "capacity data has changed"},
    Additional{0x2C, 0x00, "command sequence error"},
    Additional{0x2F, 0x00, "commands cleared by another initiator"},
    Additional{0x38, 0x07, "thin provisioning soft threshold reached"},
    Additional{0x3A, 0x00, "medium not present"},
    Additional{0x3F, 0x03, "inquiry data has changed"},
    Additional{0x3F, 0x0E, "reported LUNs data has changed"},
    Additional{0x44, 0x00, "internal target failure"},
    Additional{0x47, 0x00, "SCSI parity error"},
    Additional{0x49, 0x00, "invalid message error"},
    Additional{0x4B, 0x00, "data phase error"},
    Additional{0x4E, 0x00, "overlapped commands attempted"},
    Additional{0x55, 0x00, "system resource failure"},
    Additional{0x5D, 0x00, "failure prediction threshold exceeded"},
};

std::string additional_words(uint8_t asc, uint8_t ascq) {
    for (const Additional& row : kAdditional) {
        if (row.asc == asc && row.ascq == ascq) return std::string(row.text);
    }
    return "additional sense";
}

bool is_descriptor_format(uint8_t response) { return response == 0x72 || response == 0x73; }

}  // namespace

std::optional<Sense> decode_sense(std::span<const uint8_t> bytes) {
    if (bytes.size() < 8) return std::nullopt;
    const uint8_t response = bytes[0] & 0x7F;
    Sense sense;
    sense.deferred = response == 0x71 || response == 0x73;
    if (is_descriptor_format(response)) {
        sense.key = bytes[1] & 0x0F;
        sense.asc = bytes[2];
        sense.ascq = bytes[3];
        return sense;
    }
    if (response != 0x70 && response != 0x71) return std::nullopt;
    sense.key = bytes[2] & 0x0F;
    const std::size_t length = sense_length(bytes);
    if (length > 12) sense.asc = bytes[12];
    if (length > 13) sense.ascq = bytes[13];
    return sense;
}

std::size_t sense_length(std::span<const uint8_t> bytes) {
    // Both formats tell the bytes that follow byte 7 there.
    return bytes.size() < 8 ? bytes.size() : std::min(bytes.size(), std::size_t{8} + bytes[7]);
}

bool Sense::is_failure() const { return key != 0x0 && key != 0x1 && key != 0xF && !deferred; }

std::string Sense::words() const {
    return fmt::format("{}: {} ({:02x}/{:02x}/{:02x}){}", kKeys[key], additional_words(asc, ascq), key, asc,
                       ascq, deferred ? ", of an earlier command" : "");
}

Json sense_to_json(std::span<const uint8_t> bytes) {
    const auto sense = decode_sense(bytes);
    if (!sense) return {};
    return {{"key", kKeys[sense->key]},
            {"key_raw", sense->key},
            {"additional", additional_words(sense->asc, sense->ascq)},
            {"asc_raw", sense->asc},
            {"ascq_raw", sense->ascq},
            {"deferred", sense->deferred},
            {"bytes", hex_bytes(bytes.data(), sense_length(bytes), "")}};
}

}  // namespace trelmctl
