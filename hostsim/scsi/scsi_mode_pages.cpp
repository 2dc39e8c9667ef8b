// scsi_mode_pages.cpp - the mode pages of a disk and the two layouts of MODE SENSE data. There is no MODE
// SELECT: nothing is changeable, and defaults are the current values.
#include "scsi_mode_pages.h"

#include <algorithm>
#include <vector>

namespace hostsim {

namespace {

using Bytes = std::vector<uint8_t>;

enum class PageControl : uint8_t { current = 0, changeable = 1, defaults = 2, saved = 3 };

constexpr uint8_t kAllPages = 0x3F;
constexpr uint8_t kAllSubpages = 0xFF;
constexpr uint8_t kDpoAndFuaTaken = 0x10;

// Each page begins with its code and the length of the rest.
struct ModePage {
    uint8_t code;
    uint8_t size;
    uint8_t bytes[20];
};
constexpr ModePage kModePages[] = {
    {0x08, 20, {0x08, 18}},  // caching: no write cache
    {0x0A,
     12,
     {0x0A, 10, 0, 0x10, 0, 0, 0, 0, 0xFF, 0xFF}},  // control: any order, fixed-format sense, no time-out
};

// The fields of both CDBs and the form of their answers.
struct Layout {
    size_t header_size;
    size_t length_width;  // of the mode data length at the start of the answer, and of the allocation length
    size_t allocation_at;
};
constexpr Layout kModeSense6{4, 1, 4};
constexpr Layout kModeSense10{8, 2, 7};

// MODE SENSE (10) may ask for the long descriptor, which holds every size. The short one has all ones for a
// size that it cannot hold.
Bytes block_descriptor(const DiskConfig& disk, bool is_long) {
    Bytes descriptor(is_long ? 16 : 8);
    if (is_long) {
        put_be(descriptor, 0, 8, disk.block_count);
        put_be(descriptor, 12, 4, disk.block_size);
    } else {
        put_be(descriptor, 0, 4, std::min<uint64_t>(disk.block_count, UINT32_MAX));
        put_be(descriptor, 5, 3, disk.block_size);
    }
    return descriptor;
}

Bytes selected_pages(uint8_t code, PageControl control) {
    Bytes data;
    for (const ModePage& page : kModePages) {
        if (code != kAllPages && code != page.code) continue;
        const size_t start = data.size();
        data.insert(data.end(), page.bytes, page.bytes + page.size);
        if (control == PageControl::changeable)
            std::fill(data.begin() + static_cast<std::ptrdiff_t>(start) + 2, data.end(), 0);
    }
    return data;
}

Bytes mode_data(const Layout& layout, const Bytes& descriptor, bool is_long, const Bytes& pages) {
    const bool is_six = layout.header_size == kModeSense6.header_size;
    Bytes data(layout.header_size);
    data[is_six ? 2 : 3] = kDpoAndFuaTaken;
    if (is_long) data[4] = 0x01;
    put_be(data, is_six ? 3 : 6, layout.length_width, descriptor.size());
    data.insert(data.end(), descriptor.begin(), descriptor.end());
    data.insert(data.end(), pages.begin(), pages.end());
    put_be(data, 0, layout.length_width, data.size() - layout.length_width);
    return data;
}

}  // namespace

ScsiReply mode_sense_reply(const DiskConfig& disk, const ScsiRequest& request) {
    const auto& cdb = request.cdb;
    const Layout& layout = cdb[0] == 0x1A ? kModeSense6 : kModeSense10;
    const auto control = static_cast<PageControl>(cdb[2] >> 6);
    const bool without_descriptor = (cdb[1] & 0x08) != 0;
    const bool is_long = !without_descriptor && cdb[0] != 0x1A && (cdb[1] & 0x10) != 0;
    const Bytes pages = selected_pages(cdb[2] & 0x3F, control);
    if (pages.empty()) return invalid_field(2, 5);
    if (cdb[3] != 0 && cdb[3] != kAllSubpages) return invalid_field(3);
    if (control == PageControl::saved) return check_condition(sense::kNoSavedParameters);
    const Bytes descriptor = without_descriptor ? Bytes{} : block_descriptor(disk, is_long);
    return deliver(request, mode_data(layout, descriptor, is_long, pages),
                   get_be(cdb, layout.allocation_at, layout.length_width));
}

}  // namespace hostsim
