// inquiry.h - INQUIRY: how a LUN describes itself.
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
    std::vector<std::string> standards;  // that the device claims to follow
    std::vector<uint8_t> data;
};

StandardInquiry decode_inquiry(std::vector<uint8_t> data);
// Throws CommandFailed.
StandardInquiry read_inquiry(const LunAddress& address);

// INQUIRY byte 0: device type, and the qualifier if it is not 'connected'.
std::string device_type_words(uint8_t inquiry_byte);
// INQUIRY byte 2: the version of the primary commands.
std::string version_words(uint8_t version);

}  // namespace trelmctl
