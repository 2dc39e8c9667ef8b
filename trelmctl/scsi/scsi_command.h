// scsi_command.h - commands to one LUN, and what came back: data, and sense data where the device sent any.
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
    std::optional<Failure> failure;  // the library's, or the device's CHECK CONDITION
};

// Reads `length` bytes with the command; what the device does not send is zero.
ScsiAnswer read_command(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length);
// Sends data, or nothing where there is none.
ScsiAnswer write_command(const LunAddress& address, std::span<const uint8_t> cdb, std::vector<uint8_t> data);

// What a command needs done right; its failure ends the tool's command.
std::vector<uint8_t> read_or_throw(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length);

// INQUIRY data; a target that has no such LUN answers all the same, and that is a failure.
std::vector<uint8_t> inquire_or_throw(const LunAddress& address, std::span<const uint8_t> cdb,
                                      uint32_t length);

// A big-endian number of `width` bytes; 0 where the data ends before it.
uint64_t big_endian(std::span<const uint8_t> data, std::size_t at, std::size_t width);

// Text that fills a field of a device's answer, without padding, escaped.
std::string padded_text(std::span<const uint8_t> data, std::size_t at, std::size_t width);

// A failure that concerns a LUN and has no code of the library.
Failure lun_failure(const LunAddress& address, std::string name, std::string meaning, std::string advice);

// Port, target and LUN in front of a JSON document about one LUN.
void name_lun(const LunAddress& address, Json& document);

}  // namespace trelmctl
