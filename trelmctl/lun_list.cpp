#include "lun_list.h"

#include <fmt/format.h>

#include <array>

#include "capacity.h"
#include "inquiry.h"
#include "scsi.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr uint32_t kReportRoom = 16384;

// A disk that refuses to tell its capacity comes out of the library's listing with none: asked again, it says
// why.
void ask_missing_capacity(const LunAddress& address, ListedLun& listed) {
    constexpr uint8_t connected_disk = 0;
    if (listed.capacity != 0 || listed.device_type != connected_disk) return;
    try {
        listed.capacity = read_capacity(address).bytes();
    } catch (const CommandFailed& failed) {
        listed.failure = failed.failure();
    }
}

ListedLun from_record(const TRELM_LUN_INFO& record) {
    ListedLun listed;
    listed.lun = trelm::lun_number(record.ScsiLunNum, record.ScsiLunNumExt);
    listed.device_type = record.DeviceType;
    listed.capacity = record.Capacity;
    listed.vendor = field_text(record.VendorName);
    listed.product = field_text(record.ProductName);
    listed.revision = field_text(record.ProductRevision);
    return listed;
}

// An entry of a LUN list holds four levels, the first in front; as a number the first is the lowest.
uint64_t lun_of_entry(std::span<const uint8_t> entry) {
    uint64_t lun = 0;
    for (std::size_t level = 4; level-- > 0;) lun = lun << 16 | big_endian(entry, 2 * level, 2);
    return lun;
}

ListedLun ask_lun(const LunAddress& address) {
    ListedLun listed;
    listed.lun = address.lun;
    try {
        const std::array<uint8_t, 6> cdb{0x12, 0, 0, 0, kStandardInquiryLength, 0};
        const StandardInquiry inquiry = parse_inquiry(read_or_throw(address, cdb, kStandardInquiryLength));
        listed.device_type = inquiry.device_type;
        listed.vendor = inquiry.vendor;
        listed.product = inquiry.product;
        listed.revision = inquiry.revision;
        ask_missing_capacity(address, listed);
    } catch (const CommandFailed& failed) {
        listed.failure = failed.failure();
    }
    return listed;
}

std::vector<ListedLun> ask_each(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                Progress& progress) {
    const std::array<uint8_t, 12> cdb{0xA0, 0, 0, 0, 0, 0, 0, 0, kReportRoom >> 8, kReportRoom & 0xFF};
    const std::vector<uint8_t> report = read_or_throw({adapter, npiv_index, target, 0}, cdb, kReportRoom);
    const std::size_t count = std::min<std::size_t>(big_endian(report, 0, 4), kReportRoom - 8) / 8;
    std::vector<ListedLun> listed;
    for (std::size_t i = 0; i < count; ++i) {
        progress.say(fmt::format("port {}, target {}: LUN {} of {}",
                                 port_label(adapter.instance(), npiv_index), target, i + 1, count));
        const uint64_t lun = lun_of_entry(std::span(report).subspan(8 + 8 * i, 8));
        listed.push_back(ask_lun({adapter, npiv_index, target, lun}));
    }
    return listed;
}

}  // namespace

std::vector<ListedLun> list_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                 Progress& progress) {
    progress.say(fmt::format("port {}, target {}: listing its LUNs",
                             port_label(adapter.instance(), npiv_index), target));
    try {
        std::vector<ListedLun> listed;
        for (const TRELM_LUN_INFO& record : adapter.luns(npiv_index, target)) {
            listed.push_back(from_record(record));
            ask_missing_capacity({adapter, npiv_index, target, listed.back().lun}, listed.back());
        }
        return listed;
    } catch (const trelm::Error&) {
        return ask_each(adapter, npiv_index, target, progress);
    }
}

std::string capacity_text(const ListedLun& lun) { return lun.capacity == 0 ? "-" : human_size(lun.capacity); }

Json to_json(const ListedLun& lun) {
    return {{"lun", lun.lun},
            {"lun_text", lun_text(lun.lun)},
            {"scsi_lun_num", static_cast<uint32_t>(lun.lun)},
            {"scsi_lun_num_ext", static_cast<uint32_t>(lun.lun >> 32)},
            {"device_type", device_type_words(lun.device_type)},
            {"device_type_raw", lun.device_type},
            {"vendor", lun.vendor},
            {"product", lun.product},
            {"revision", lun.revision},
            {"capacity", lun.capacity ? Json(human_size(lun.capacity)) : Json()},
            {"capacity_bytes", lun.capacity},
            {"error", lun.failure ? to_json(*lun.failure) : Json()}};
}

}  // namespace trelmctl
