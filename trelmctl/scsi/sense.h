// sense.h - sense data in words and as fields, from the fixed and the descriptor format.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "json.h"

namespace trelmctl {

// The place in the CDB or in the parameter data that the device refused.
struct FieldPointer {
    bool in_cdb;
    uint16_t byte;
    std::optional<uint8_t> bit;
};

struct Sense {
    bool descriptor_format = false;
    bool deferred = false;  // for an earlier command
    uint8_t key = 0;
    uint8_t asc = 0;   // additional sense code
    uint8_t ascq = 0;  // and its qualifier
    std::optional<uint64_t> information;
    std::optional<uint64_t> command_specific;
    std::optional<FieldPointer> field_pointer;
    std::optional<double> progress;  // percent
    std::optional<uint16_t> retries;
    std::vector<uint8_t> bytes;  // as many as the length field says

    // Whether the command failed: any key except 'no sense', 'recovered' and 'completed'.
    bool is_failure() const;
    bool is_no_such_lun() const { return key == 5 && asc == 0x25; }
    // The key and the additional sense.
    std::string words() const;
    // A line for each further field in the data.
    std::vector<std::string> details() const;
};

// None if the bytes are no sense data.
std::optional<Sense> decode_sense(std::span<const uint8_t> bytes);

// Null if the bytes are no sense data.
Json sense_to_json(std::span<const uint8_t> bytes);

}  // namespace trelmctl
