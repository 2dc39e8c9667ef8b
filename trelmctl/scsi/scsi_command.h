// scsi_command.h - commands to one LUN and their results: data and sense data.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "failure.h"
#include "json.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

struct LunAddress {
    const trelm::Adapter& adapter;
    uint32_t npiv_index;
    uint32_t target;
    uint64_t lun;
};

struct ScsiAnswer {
    std::vector<uint8_t> data;
    std::vector<uint8_t> sense;      // all 256 bytes
    std::optional<Failure> failure;  // of the library, or a CHECK CONDITION of the device
};

// Reads `length` bytes with the command. Bytes that the device does not send are zero.
ScsiAnswer read_command(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length);
// Sends data, if there is any.
ScsiAnswer write_command(const LunAddress& address, std::span<const uint8_t> cdb, std::vector<uint8_t> data);

// For a SCSI command that must succeed: its failure ends the command of the tool.
std::vector<uint8_t> read_or_throw(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length);

// INQUIRY data. A target answers INQUIRY for a LUN that it does not have, too; that is a failure here.
std::vector<uint8_t> inquire_or_throw(const LunAddress& address, std::span<const uint8_t> cdb,
                                      uint32_t length);

// A big-endian number of `width` bytes; 0 if the data ends before it.
uint64_t big_endian(std::span<const uint8_t> data, std::size_t at, std::size_t width);

// Text in a field of an answer, without padding, escaped.
std::string padded_text(std::span<const uint8_t> data, std::size_t at, std::size_t width);

// A failure of a LUN without a code of the library.
Failure lun_failure(const LunAddress& address, std::string name, std::string meaning, std::string advice);

// Adds port, target and LUN at the start of a JSON document about one LUN.
void name_lun(const LunAddress& address, Json& document);

}  // namespace trelmctl
