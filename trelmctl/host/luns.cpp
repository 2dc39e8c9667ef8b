#include "luns.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "capacity.h"
#include "inquiry.h"
#include "requests.h"
#include "scsi_command.h"
#include "text.h"
#include "vpd_pages.h"

namespace trelmctl {
namespace {

constexpr uint32_t kReportRoom = 16384;
constexpr uint8_t kConnectedDisk = 0;

// Runs a step that may fail for one LUN. The first failure of the LUN is kept.
template <typename Ask>
void ask(ListedLun& listed, Ask ask_device) {
    try {
        ask_device();
    } catch (const CommandFailed& failed) {
        if (!listed.failure) listed.failure = failed.failure();
    }
}

void take_capacity(const LunAddress& address, ListedLun& listed) {
    ask(listed, [&] {
        const Capacity capacity = read_capacity(address);
        listed.capacity = capacity.bytes();
        listed.block_size = capacity.block_size;
    });
}

// The library lists a disk that refuses READ CAPACITY without a capacity. The tool sends the command again to
// get the reason.
void ask_more(const LunAddress& address, LunDetail detail, ListedLun& listed) {
    if (listed.failure) return;
    const bool named = detail == LunDetail::named;
    if (listed.device_type == kConnectedDisk && (named || listed.capacity == 0))
        take_capacity(address, listed);
    if (named) ask(listed, [&] { listed.name = lun_name(address); });
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

// An entry of a LUN list has four levels, first to last. In the number the first level is the lowest.
uint64_t lun_of_entry(std::span<const uint8_t> entry) {
    uint64_t lun = 0;
    for (std::size_t level = 4; level-- > 0;) lun = lun << 16 | big_endian(entry, 2 * level, 2);
    return lun;
}

ListedLun ask_lun(const LunAddress& address) {
    ListedLun listed;
    listed.lun = address.lun;
    ask(listed, [&] {
        const StandardInquiry inquiry = read_inquiry(address);
        listed.device_type = inquiry.device_type;
        listed.vendor = inquiry.vendor;
        listed.product = inquiry.product;
        listed.revision = inquiry.revision;
    });
    return listed;
}

// The list of the library. If that fails, each LUN is asked separately.
std::vector<ListedLun> list(const LunAddress& any, Progress& progress) {
    std::vector<ListedLun> listed;
    try {
        note_request(fmt::format("TRELM_GetLunInfo target {}", any.target), any.adapter.instance(),
                     any.npiv_index);
        for (const TRELM_LUN_INFO& record : any.adapter.luns(any.npiv_index, any.target))
            listed.push_back(from_record(record));
    } catch (const trelm::Error&) {
        for (const uint64_t lun : report_luns(any.adapter, any.npiv_index, any.target)) {
            progress.say(fmt::format("port {}, target {}: LUN {}",
                                     port_label(any.adapter.instance(), any.npiv_index), any.target,
                                     lun_text(lun)));
            listed.push_back(ask_lun({any.adapter, any.npiv_index, any.target, lun}));
        }
    }
    return listed;
}

}  // namespace

std::vector<ListedLun> list_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                 LunDetail detail, Progress& progress) {
    const std::string place =
        fmt::format("port {}, target {}", port_label(adapter.instance(), npiv_index), target);
    progress.say(place + ": listing its LUNs");
    std::vector<ListedLun> listed = list({adapter, npiv_index, target, 0}, progress);
    for (std::size_t i = 0; i < listed.size(); ++i) {
        progress.say(fmt::format("{}: LUN {} of {}", place, i + 1, listed.size()));
        ask_more({adapter, npiv_index, target, listed[i].lun}, detail, listed[i]);
    }
    return listed;
}

std::vector<uint64_t> report_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target) {
    const std::array<uint8_t, 12> cdb{0xA0, 0, 0, 0, 0, 0, 0, 0, kReportRoom >> 8, kReportRoom & 0xFF};
    const std::vector<uint8_t> report = read_or_throw({adapter, npiv_index, target, 0}, cdb, kReportRoom);
    const std::size_t count = std::min<std::size_t>(big_endian(report, 0, 4), kReportRoom - 8) / 8;
    std::vector<uint64_t> luns;
    for (std::size_t i = 0; i < count; ++i)
        luns.push_back(lun_of_entry(std::span(report).subspan(8 + 8 * i, 8)));
    return luns;
}

std::string type_text(const ListedLun& lun) {
    return lun.device_type ? device_type_words(*lun.device_type) : "-";
}

std::string capacity_text(const ListedLun& lun) { return lun.capacity == 0 ? "-" : human_size(lun.capacity); }

std::string block_size_text(const ListedLun& lun) {
    return lun.block_size == 0 ? "-" : fmt::format("{} B", lun.block_size);
}

Json to_json(const ListedLun& lun) {
    return {{"lun", lun.lun},
            {"lun_text", lun_text(lun.lun)},
            {"scsi_lun_num", static_cast<uint32_t>(lun.lun)},
            {"scsi_lun_num_ext", static_cast<uint32_t>(lun.lun >> 32)},
            {"device_type", lun.device_type ? Json(type_text(lun)) : Json()},
            {"device_type_raw", lun.device_type ? Json(*lun.device_type) : Json()},
            {"vendor", lun.vendor},
            {"product", lun.product},
            {"revision", lun.revision},
            {"capacity", lun.capacity ? Json(human_size(lun.capacity)) : Json()},
            {"capacity_bytes", lun.capacity},
            {"block_size", lun.block_size ? Json(lun.block_size) : Json()},
            {"name", lun.name.empty() ? Json() : Json(lun.name)},
            {"error", lun.failure ? to_json(*lun.failure) : Json()}};
}

}  // namespace trelmctl
