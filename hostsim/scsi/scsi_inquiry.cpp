// scsi_inquiry.cpp - standard INQUIRY data and the vital product data pages, each page a row of one table.
#include "scsi_inquiry.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string_view>

namespace hostsim {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kVendorWidth = 8;
constexpr size_t kProductWidth = 16;
constexpr size_t kRevisionWidth = 4;
constexpr size_t kSerialWidth = 64;

// Text fields are padded with spaces and have no terminator.
void put_text(std::span<uint8_t> field, std::string_view text) {
    std::fill(field.begin(), field.end(), uint8_t{' '});
    std::copy_n(text.begin(), std::min(text.size(), field.size()), field.begin());
}

std::string_view serial_of(const DiskConfig& disk) {
    return std::string_view(disk.serial).substr(0, kSerialWidth);
}

void append_designator(Bytes& page, uint8_t code_set, uint8_t type, const Bytes& identifier) {
    page.insert(page.end(), {code_set, type, 0, static_cast<uint8_t>(identifier.size())});
    page.insert(page.end(), identifier.begin(), identifier.end());
}

Bytes naa_identifier(const DiskConfig& disk) {
    Bytes identifier(8);
    put_be(identifier, 0, 8, disk.naa);
    return identifier;
}

Bytes t10_identifier(const DiskConfig& disk) {
    const std::string_view serial = serial_of(disk);
    Bytes identifier(kVendorWidth + kProductWidth);
    put_text(std::span(identifier).first(kVendorWidth), disk.vendor);
    put_text(std::span(identifier).subspan(kVendorWidth), disk.product);
    identifier.insert(identifier.end(), serial.begin(), serial.end());
    return identifier;
}

// The contents of each page after its header.
Bytes supported_pages(const DiskConfig& disk);

Bytes unit_serial_number(const DiskConfig& disk) {
    const std::string_view serial = serial_of(disk);
    return {serial.begin(), serial.end()};
}

Bytes device_identification(const DiskConfig& disk) {
    constexpr uint8_t kBinary = 1;
    constexpr uint8_t kAscii = 2;
    constexpr uint8_t kT10VendorId = 1;
    constexpr uint8_t kNaa = 3;
    Bytes page;
    if (disk.naa != 0) append_designator(page, kBinary, kNaa, naa_identifier(disk));
    append_designator(page, kAscii, kT10VendorId, t10_identifier(disk));
    return page;
}

// There is no maximum transfer length. The optimal one is the size of the data area in a driver record.
Bytes block_limits(const DiskConfig& disk) {
    constexpr uint32_t kOptimalGranularity = 4096;
    constexpr uint32_t kOptimalTransfer = 262144;
    Bytes page(0x3C);
    put_be(page, 6 - 4, 2, std::max(1u, kOptimalGranularity / disk.block_size));
    put_be(page, 12 - 4, 4, kOptimalTransfer / disk.block_size);
    return page;
}

// A medium that does not rotate.
Bytes block_device_characteristics(const DiskConfig&) {
    Bytes page(0x3C);
    put_be(page, 4 - 4, 2, 1);
    return page;
}

struct Page {
    uint8_t code;
    Bytes (*contents)(const DiskConfig&);
};
constexpr Page kPages[] = {
    {0x00, supported_pages}, {0x80, unit_serial_number},           {0x83, device_identification},
    {0xB0, block_limits},    {0xB1, block_device_characteristics},
};

Bytes supported_pages(const DiskConfig&) {
    Bytes codes;
    std::ranges::transform(kPages, std::back_inserter(codes), &Page::code);
    return codes;
}

}  // namespace

InquiryData standard_inquiry(const DiskConfig& disk) {
    constexpr uint8_t kSpc4 = 0x06;
    constexpr uint8_t kHierarchicalLuns = 0x10;
    constexpr uint8_t kResponseFormat = 0x02;
    constexpr uint8_t kCommandQueuing = 0x02;
    constexpr uint16_t kStandards[] = {0x00A0 /* SAM-5 */, 0x0A40 /* FCP-4 */, 0x0460 /* SPC-4 */,
                                       0x04C0 /* SBC-3 */};
    InquiryData data{};
    data[0] = disk.device_type;
    data[2] = kSpc4;
    data[3] = kHierarchicalLuns | kResponseFormat;
    data[4] = static_cast<uint8_t>(data.size() - 5);
    data[7] = kCommandQueuing;
    put_text(std::span(data).subspan(8, kVendorWidth), disk.vendor);
    put_text(std::span(data).subspan(16, kProductWidth), disk.product);
    put_text(std::span(data).subspan(32, kRevisionWidth), disk.revision);
    for (size_t i = 0; i < std::size(kStandards); ++i) put_be(data, 58 + 2 * i, 2, kStandards[i]);
    return data;
}

std::optional<std::vector<uint8_t>> vital_product_data(const DiskConfig& disk, uint8_t page) {
    const auto* row = std::ranges::find(kPages, page, &Page::code);
    if (row == std::end(kPages)) return std::nullopt;
    const Bytes contents = row->contents(disk);
    Bytes data{disk.device_type, page, 0, 0};
    put_be(data, 2, 2, contents.size());
    data.insert(data.end(), contents.begin(), contents.end());
    return data;
}

}  // namespace hostsim
