#include "inquiry.h"

#include <fmt/format.h>
#include <scsi/sg_lib.h>

#include <array>
#include <string_view>
#include <utility>

namespace trelmctl {
namespace {

constexpr uint8_t kLength = 96;

struct Standard {
    uint16_t code;
    std::string_view name;
};
constexpr std::array kStandards{
    Standard{0x0040, "SAM-2"}, Standard{0x0060, "SAM-3"}, Standard{0x0080, "SAM-4"},
    Standard{0x00A0, "SAM-5"}, Standard{0x0260, "SPC-2"}, Standard{0x0300, "SPC-3"},
    Standard{0x0460, "SPC-4"}, Standard{0x05C0, "SPC-5"}, Standard{0x0320, "SBC-2"},
    Standard{0x04C0, "SBC-3"}, Standard{0x0600, "SBC-4"}, Standard{0x08C0, "FCP"},
    Standard{0x0900, "FCP-2"}, Standard{0x0A00, "FCP-3"}, Standard{0x0A40, "FCP-4"},
};

// The lowest five bits of a version descriptor name a draft of the standard.
std::string standard_words(uint16_t code) {
    for (const Standard& standard : kStandards) {
        if (standard.code == (code & 0xFFE0)) return std::string(standard.name);
    }
    return fmt::format("0x{:04x}", code);
}

std::vector<std::string> standards_of(std::span<const uint8_t> data) {
    std::vector<std::string> standards;
    for (std::size_t at = 58; at < 74; at += 2) {
        const auto code = static_cast<uint16_t>(big_endian(data, at, 2));
        if (code != 0) standards.push_back(standard_words(code));
    }
    return standards;
}

}  // namespace

StandardInquiry decode_inquiry(std::vector<uint8_t> data) {
    StandardInquiry inquiry;
    inquiry.data = std::move(data);
    inquiry.device_type = inquiry.data[0];
    inquiry.removable = (inquiry.data[1] & 0x80) != 0;
    inquiry.version = inquiry.data[2];
    inquiry.vendor = padded_text(inquiry.data, 8, 8);
    inquiry.product = padded_text(inquiry.data, 16, 16);
    inquiry.revision = padded_text(inquiry.data, 32, 4);
    inquiry.standards = standards_of(inquiry.data);
    return inquiry;
}

StandardInquiry read_inquiry(const LunAddress& address) {
    return decode_inquiry(
        inquire_or_throw(address, std::array<uint8_t, 6>{0x12, 0, 0, 0, kLength, 0}, kLength));
}

std::string device_type_words(uint8_t inquiry_byte) {
    constexpr int kNoDevice = 0x1F;
    const int type = inquiry_byte & 0x1F;
    const unsigned qualifier = inquiry_byte >> 5;
    if (type == kNoDevice) return "no device";
    std::array<char, 64> text{};
    sg_get_pdt_str(type, static_cast<int>(text.size()), text.data());
    return qualifier == 0 ? std::string(text.data())
                          : fmt::format("{}, not connected ({})", text.data(), qualifier);
}

std::string version_words(uint8_t version) {
    static constexpr std::array<std::string_view, 8> kWords{"none",  "SPC-0", "SPC-0", "SPC",
                                                            "SPC-2", "SPC-3", "SPC-4", "SPC-5"};
    return version < kWords.size() ? std::string(kWords[version])
                                   : fmt::format("unknown (0x{:02x})", version);
}

}  // namespace trelmctl
