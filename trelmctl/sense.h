// sense.h - sense data in words: the sense key and the additional sense, from the fixed and the descriptor
// format.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "json.h"

namespace trelmctl {

struct Sense {
    uint8_t key = 0;
    uint8_t asc = 0;        // additional sense code
    uint8_t ascq = 0;       // and its qualifier
    bool deferred = false;  // of an earlier command

    // Whether the command was not done: anything but 'no sense', 'recovered' and 'completed'.
    bool is_failure() const;
    std::string words() const;
};

// None where the bytes are no sense data.
std::optional<Sense> decode_sense(std::span<const uint8_t> bytes);

// How many of the bytes are sense data, by their own length field.
std::size_t sense_length(std::span<const uint8_t> bytes);

// Null where the bytes are no sense data.
Json sense_to_json(std::span<const uint8_t> bytes);

}  // namespace trelmctl
