// inquiry.h - INQUIRY: what a LUN says about itself.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace trelmctl {

inline constexpr uint32_t kStandardInquiryLength = 96;

struct StandardInquiry {
    uint8_t device_type = 0;  // byte 0: qualifier and type
    bool removable = false;
    uint8_t version = 0;
    std::string vendor;
    std::string product;
    std::string revision;
};
StandardInquiry parse_inquiry(std::span<const uint8_t> data);

}  // namespace trelmctl
