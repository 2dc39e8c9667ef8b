// scsi_target.cpp - finds the logical unit of a command, and answers if there is none.
#include "scsi_target.h"

#include <algorithm>

#include "scsi_inquiry.h"

namespace hostsim {

namespace {

constexpr uint8_t kRequestSense = 0x03;
constexpr uint8_t kInquiry = 0x12;
constexpr uint8_t kReportLuns = 0xA0;
constexpr uint16_t kFlat = 0x4000;

// The reply for an address that has no logical unit.
ScsiReply reply_without_unit(const ScsiRequest& request) {
    const auto& cdb = request.cdb;
    if (cdb[0] == kRequestSense) return deliver(request, fixed_sense(sense::kLunNotSupported), cdb[4]);
    const bool wants_standard_data = cdb[0] == kInquiry && (cdb[1] & 0x03) == 0 && cdb[2] == 0;
    if (!wants_standard_data) return check_condition(sense::kLunNotSupported);
    DiskConfig none;
    none.device_type = kNoDevice;
    return deliver(request, standard_inquiry(none), get_be(cdb, 3, 2));
}

}  // namespace

std::optional<uint16_t> lun_number(uint32_t lun, uint32_t lun_ext) {
    if (lun_ext != 0) return std::nullopt;
    if (lun >> 14 == 1) return static_cast<uint16_t>(lun & kMaxLunNumber);
    if (lun <= 0xFF) return static_cast<uint16_t>(lun);
    return std::nullopt;
}

uint32_t lun_address(uint16_t number, LunAddressing addressing) {
    const bool is_flat = addressing == LunAddressing::flat || number > 0xFF;
    return is_flat ? kFlat | uint32_t{number} : number;
}

std::array<uint8_t, 8> lun_entry(uint16_t number, LunAddressing addressing) {
    std::array<uint8_t, 8> entry{};
    put_be(entry, 0, 2, lun_address(number, addressing));
    return entry;
}

ScsiTarget::ScsiTarget(std::vector<ScsiLun> luns) : luns_(std::move(luns)) {
    std::ranges::stable_sort(luns_, {}, &ScsiLun::number);
}

const ScsiLun* ScsiTarget::find(uint16_t number) const {
    const auto lun = std::ranges::lower_bound(luns_, number, {}, &ScsiLun::number);
    return lun == luns_.end() || lun->number != number ? nullptr : &*lun;
}

ScsiReply ScsiTarget::run(uint32_t lun, uint32_t lun_ext, const ScsiRequest& request) const {
    const auto number = lun_number(lun, lun_ext);
    const ScsiLun* const unit = number ? find(*number) : nullptr;
    const bool answers_for_target = unit != nullptr || number == 0;
    if (request.cdb[0] == kReportLuns && answers_for_target) return report_luns(request);
    return unit != nullptr ? unit->disk.run(request) : reply_without_unit(request);
}

// The header counts all logical units, even if the list does not fit the host's buffer.
ScsiReply ScsiTarget::report_luns(const ScsiRequest& request) const {
    enum Select : uint8_t { kAddressed = 0, kWellKnown = 1, kAll = 2 };
    const uint8_t select = request.cdb[2];
    if (select > kAll) return invalid_field(2);
    std::vector<uint8_t> data(8);
    for (const ScsiLun& lun : luns_) {
        if (select == kWellKnown) break;  // there are none
        const auto entry = lun_entry(lun.number, lun.addressing);
        data.insert(data.end(), entry.begin(), entry.end());
    }
    put_be(data, 0, 4, data.size() - 8);
    return deliver(request, data, get_be(request.cdb, 6, 4));
}

}  // namespace hostsim
