// inquiry.h - INQUIRY: what a LUN says about itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "scsi_command.h"

namespace trelmctl {

struct StandardInquiry {
    uint8_t device_type = 0;  // byte 0: qualifier and type
    bool removable = false;
    uint8_t version = 0;
    std::string vendor;
    std::string product;
    std::string revision;
    std::vector<std::string> standards;  // that the device says it follows
    std::vector<uint8_t> data;
};

// Throws CommandFailed.
StandardInquiry read_inquiry(const LunAddress& address);

// INQUIRY byte 0: device type, and the qualifier where it is not 'connected'.
std::string device_type_words(uint8_t inquiry_byte);
// INQUIRY byte 2: the version of the primary commands.
std::string version_words(uint8_t version);

}  // namespace trelmctl
