#include "vpd_pages.h"

#include <fmt/format.h>
#include <scsi/sg_lib.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "text.h"

namespace trelmctl {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr std::size_t kPageHeader = 4;

// ---- Pages of numbers ----

// A number in a page. If `bits` is not 0, it is that many bits of the byte, from bit `shift`.
struct NumberField {
    const char* key;
    const char* label;
    std::size_t at;  // from the page's first byte
    std::size_t width;
    unsigned shift = 0;
    unsigned bits = 0;
};

constexpr std::array kBlockLimits{
    NumberField{"max_compare_and_write", "Largest COMPARE AND WRITE, blocks", 5, 1},
    NumberField{"optimal_transfer_granularity", "Optimal transfer granularity, blocks", 6, 2},
    NumberField{"max_transfer_length", "Largest transfer, blocks", 8, 4},
    NumberField{"optimal_transfer_length", "Optimal transfer, blocks", 12, 4},
    NumberField{"max_prefetch_length", "Largest prefetch, blocks", 16, 4},
    NumberField{"max_unmap_blocks", "Largest UNMAP, blocks", 20, 4},
    NumberField{"max_unmap_descriptors", "Most UNMAP descriptors", 24, 4},
    NumberField{"optimal_unmap_granularity", "Optimal UNMAP granularity, blocks", 28, 4},
    NumberField{"max_write_same_blocks", "Largest WRITE SAME, blocks", 36, 8},
};
constexpr std::array kBlockDevice{
    NumberField{"rotation_rate", "Rotation rate, rpm (1: not rotating)", 4, 2},
    NumberField{"product_type", "Product type", 6, 1},
    NumberField{"form_factor", "Form factor", 7, 1, 0, 4},
    NumberField{"zoned", "Zoned", 8, 1, 4, 2},
};
constexpr std::array kProvisioning{
    NumberField{"threshold_exponent", "Threshold exponent", 4, 1},
    NumberField{"unmap", "UNMAP", 5, 1, 7, 1},
    NumberField{"write_same_16_unmaps", "WRITE SAME (16) unmaps", 5, 1, 6, 1},
    NumberField{"write_same_10_unmaps", "WRITE SAME (10) unmaps", 5, 1, 5, 1},
    NumberField{"reads_zeros", "Unmapped blocks read as zeros", 5, 1, 2, 3},
    NumberField{"provisioning_type", "Provisioning type (1: full, 2: thin)", 6, 1, 0, 3},
};

template <std::size_t Count>
std::string decode_numbers(const std::array<NumberField, Count>& fields, Bytes page, Json& json) {
    std::string text;
    for (const NumberField& field : fields) {
        if (field.at + field.width > page.size()) break;
        uint64_t value = big_endian(page, field.at, field.width);
        if (field.bits != 0) value = value >> field.shift & ((1u << field.bits) - 1);
        text += fmt::format("  {:<38}{}\n", field.label, value);
        json[field.key] = value;
    }
    return text;
}

std::string decode_block_limits(Bytes page, Json& json) { return decode_numbers(kBlockLimits, page, json); }
std::string decode_block_device(Bytes page, Json& json) { return decode_numbers(kBlockDevice, page, json); }
std::string decode_provisioning(Bytes page, Json& json) { return decode_numbers(kProvisioning, page, json); }

// ---- Others ----

std::string decode_supported_pages(Bytes page, Json& json) {
    std::string text;
    json["pages"] = Json::array();
    for (const uint8_t number : page.subspan(kPageHeader)) {
        text += fmt::format("  0x{:02x}  {}\n", number, page_title(number));
        json["pages"].push_back(fmt::format("0x{:02x}", number));
    }
    return text;
}

std::string decode_serial_number(Bytes page, Json& json) {
    const std::string serial = padded_text(page, kPageHeader, page.size());
    json["serial_number"] = serial;
    return fmt::format("  Serial number  {}\n", serial);
}

// A designator of a logical unit, port or device.
struct Designator {
    uint8_t kind;
    uint8_t association;
    std::string value;
};

std::vector<Designator> designators_of(Bytes page) {
    std::vector<Designator> found;
    for (Bytes rest = page.subspan(kPageHeader); rest.size() >= 4 && rest.size() - 4 >= rest[3];) {
        const std::size_t length = rest[3];
        const unsigned code_set = rest[0] & 0x0F;
        const bool is_text = code_set == 2 || code_set == 3;
        found.push_back({static_cast<uint8_t>(rest[1] & 0x0F), static_cast<uint8_t>(rest[1] >> 4 & 0x03),
                         is_text ? padded_text(rest, 4, length) : hex_bytes(rest.data() + 4, length, "")});
        rest = rest.subspan(4 + length);
    }
    return found;
}

std::string decode_identification(Bytes page, Json& json) {
    std::string text;
    json["designators"] = Json::array();
    for (const Designator& designator : designators_of(page)) {
        const char* kind = sg_get_desig_type_str(designator.kind);
        const char* association = sg_get_desig_assoc_str(designator.association);
        text += fmt::format("  {}: {}\n    of: {}\n", kind, designator.value, association);
        json["designators"].push_back({{"type", kind},
                                       {"type_raw", designator.kind},
                                       {"association", association},
                                       {"association_raw", designator.association},
                                       {"value", designator.value}});
    }
    return text;
}

// ---- All ----

struct KnownPage {
    uint8_t number;
    std::string_view abbreviation;
    std::string_view title;
    std::string (*decode)(Bytes page, Json& json) = nullptr;
};
constexpr std::array kKnownPages{
    KnownPage{0x00, "sv", "Supported VPD pages", decode_supported_pages},
    KnownPage{0x80, "sn", "Unit serial number", decode_serial_number},
    KnownPage{0x83, "di", "Device identification", decode_identification},
    KnownPage{0x84, "sii", "Software interface identification"},
    KnownPage{0x85, "mna", "Management network addresses"},
    KnownPage{0x86, "ei", "Extended INQUIRY data"},
    KnownPage{0x87, "mpp", "Mode page policy"},
    KnownPage{0x88, "sp", "SCSI ports"},
    KnownPage{0x89, "ai", "ATA information"},
    KnownPage{0x8A, "pc", "Power condition"},
    KnownPage{0x8B, "dc", "Device constituents"},
    KnownPage{0x8D, "psm", "Power consumption"},
    KnownPage{0x8F, "tpc", "Third-party copy"},
    KnownPage{0x90, "pslu", "Protocol-specific logical unit information"},
    KnownPage{0x91, "pspo", "Protocol-specific port information"},
    KnownPage{0x92, "sfs", "SCSI feature sets"},
    KnownPage{0xB0, "bl", "Block limits", decode_block_limits},
    KnownPage{0xB1, "bdc", "Block device characteristics", decode_block_device},
    KnownPage{0xB2, "lbpv", "Logical block provisioning", decode_provisioning},
    KnownPage{0xB3, "ref", "Referrals"},
    KnownPage{0xB6, "zbdc", "Zoned block device characteristics"},
    KnownPage{0xB7, "ble", "Block limits extension"},
};

const KnownPage* find_page(uint8_t number) {
    const auto* found = std::find_if(kKnownPages.begin(), kKnownPages.end(),
                                     [&](const KnownPage& page) { return page.number == number; });
    return found == kKnownPages.end() ? nullptr : found;
}

}  // namespace

std::string page_title(uint8_t number) {
    constexpr uint8_t kFirstOfVendor = 0xC0;
    if (const KnownPage* page = find_page(number)) return std::string(page->title);
    return number >= kFirstOfVendor ? "Vendor specific" : "Page without a known name";
}

std::optional<uint8_t> page_by_abbreviation(std::string_view abbreviation) {
    for (const KnownPage& page : kKnownPages) {
        if (page.abbreviation == abbreviation) return page.number;
    }
    return std::nullopt;
}

std::string page_abbreviations() {
    std::string list;
    for (const KnownPage& page : kKnownPages)
        list += fmt::format("{}{}", list.empty() ? "" : ", ", page.abbreviation);
    return list;
}

// The first request asks for less than 256 bytes: on devices with a one-byte ALLOCATION LENGTH the upper byte
// is reserved.
std::vector<uint8_t> read_page(const LunAddress& address, uint8_t number) {
    uint16_t room = 252;
    while (true) {
        const std::array<uint8_t, 6> cdb{
            0x12, 0x01, number, static_cast<uint8_t>(room >> 8), static_cast<uint8_t>(room), 0};
        std::vector<uint8_t> page = inquire_or_throw(address, cdb, room);
        if (page[1] != number) {
            throw CommandFailed(lun_failure(
                address, "WRONG_PAGE",
                fmt::format("target {} LUN {} was asked for page 0x{:02x} and answered with page 0x{:02x}",
                            address.target, lun_text(address.lun), number, page[1]),
                "the device may not know vital product data pages; ask without --page"));
        }
        const std::size_t length = kPageHeader + big_endian(page, 2, 2);
        if (length <= room || room == UINT16_MAX) {
            page.resize(std::min<std::size_t>(length, room));
            return page;
        }
        room = static_cast<uint16_t>(std::min<std::size_t>(length, UINT16_MAX));
    }
}

std::string decode_page(std::span<const uint8_t> page, Json& json) {
    const KnownPage* known = find_page(page[1]);
    return known != nullptr && known->decode != nullptr ? known->decode(page, json) : std::string();
}

std::string lun_name(Bytes identification) {
    struct Scheme {
        uint8_t kind;
        std::string_view prefix;
    };
    static constexpr std::array kSchemes{Scheme{3, "naa."}, Scheme{2, "eui."}, Scheme{1, "t10."}};
    constexpr uint8_t kOfLogicalUnit = 0;
    const std::vector<Designator> designators = designators_of(identification);
    for (const Scheme& scheme : kSchemes) {
        for (const Designator& designator : designators) {
            if (designator.kind == scheme.kind && designator.association == kOfLogicalUnit)
                return fmt::format("{}{}", scheme.prefix, designator.value);
        }
    }
    return {};
}

std::string lun_name(const LunAddress& address) { return lun_name(read_page(address, 0x83)); }

}  // namespace trelmctl
