#include "scsi_command.h"

#include <fmt/format.h>
#include <scsi/sg_lib.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "requests.h"
#include "sense.h"
#include "text.h"

namespace trelmctl {
namespace {

constexpr uint8_t kUnitAttention = 6;
constexpr uint32_t kDeviceOffline = TRELM_STATUS_BASE + 13;

std::string port_of(const LunAddress& address) {
    return port_label(address.adapter.instance(), address.npiv_index);
}

void note(const LunAddress& address, std::span<const uint8_t> cdb, std::size_t length) {
    std::array<char, 80> name{};
    sg_get_command_name(cdb.data(), 0, static_cast<int>(name.size()), name.data());
    note_request(
        fmt::format("TRELM_SendScsiCommand target {} LUN {}: {} [{}], {} bytes of data", address.target,
                    lun_text(address.lun), name.data(), hex_bytes(cdb.data(), cdb.size(), " "), length),
        address.adapter.instance(), address.npiv_index);
}

Failure no_such_lun(const LunAddress& address, const std::string& why) {
    return lun_failure(address, "NO_SUCH_LUN",
                       fmt::format("target {} has no LUN {}: {}", address.target, lun_text(address.lun), why),
                       fmt::format("'trelmctl luns {} {}' lists its LUNs", port_of(address), address.target));
}

// A CHECK CONDITION of the device, which the library does not treat as a failure.
std::optional<Failure> refusal(const LunAddress& address, std::span<const uint8_t> bytes) {
    const auto sense = decode_sense(bytes);
    if (!sense || !sense->is_failure()) return std::nullopt;
    if (sense->is_no_such_lun()) return no_such_lun(address, sense->words());
    return lun_failure(address, "CHECK_CONDITION",
                       fmt::format("target {} LUN {} refused the command: {}", address.target,
                                   lun_text(address.lun), sense->words()),
                       {});
}

// A driver answers alike for a target that does not exist and one that went offline. The target list of the
// port tells them apart.
void name_missing_target(const LunAddress& address, Failure& failure) {
    std::vector<TRELM_TGT_INFO> targets;
    note_request("TRELM_GetTgtInfo", address.adapter.instance(), address.npiv_index);
    if (address.adapter.list_targets(address.npiv_index, targets) != TRELM_STATUS_OK) return;
    const bool listed = std::any_of(targets.begin(), targets.end(), [&](const TRELM_TGT_INFO& target) {
        return number(target.ScsiTgtNum) == address.target;
    });
    if (listed) return;
    failure.name = "NO_SUCH_TARGET";
    failure.meaning = fmt::format("the port sees no target {}", address.target);
    failure.advice = fmt::format("'trelmctl targets {}' lists the targets that it sees", port_of(address));
}

ScsiAnswer send(const LunAddress& address, std::span<const uint8_t> cdb, uint8_t direction,
                std::vector<uint8_t> data) {
    TRELM_SCSI_CMND command = trelm::scsi_command(address.target, address.lun, cdb, direction);
    ScsiAnswer answer;
    answer.data = std::move(data);
    note(address, cdb, answer.data.size());
    try {
        address.adapter.send(address.npiv_index, command, answer.data.data(),
                             static_cast<uint32_t>(answer.data.size()));
    } catch (const trelm::Error& error) {
        answer.failure = explain(error);
        if (error.code() == kDeviceOffline) name_missing_target(address, *answer.failure);
    }
    answer.sense.assign(std::begin(command.Sense), std::end(command.Sense));
    if (!answer.failure) answer.failure = refusal(address, answer.sense);
    return answer;
}

}  // namespace

ScsiAnswer read_command(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length) {
    return send(address, cdb, TRELM_SCSI_DATA_IN, std::vector<uint8_t>(length));
}

ScsiAnswer write_command(const LunAddress& address, std::span<const uint8_t> cdb, std::vector<uint8_t> data) {
    const uint8_t direction = data.empty() ? 0 : TRELM_SCSI_DATA_OUT;
    return send(address, cdb, direction, std::move(data));
}

std::vector<uint8_t> read_or_throw(const LunAddress& address, std::span<const uint8_t> cdb, uint32_t length) {
    ScsiAnswer answer = read_command(address, cdb, length);
    // A unit attention reports an event once, in place of the answer.
    const auto sense = decode_sense(answer.sense);
    if (answer.failure && sense && sense->key == kUnitAttention) answer = read_command(address, cdb, length);
    if (answer.failure) throw CommandFailed(*answer.failure);
    return std::move(answer.data);
}

std::vector<uint8_t> inquire_or_throw(const LunAddress& address, std::span<const uint8_t> cdb,
                                      uint32_t length) {
    constexpr uint8_t kNoDevice = 0x7F;
    std::vector<uint8_t> data = read_or_throw(address, cdb, length);
    if (data.front() == kNoDevice)
        throw CommandFailed(no_such_lun(address, "it answers INQUIRY with 'no device' (0x7f)"));
    return data;
}

uint64_t big_endian(std::span<const uint8_t> data, std::size_t at, std::size_t width) {
    if (at + width > data.size()) return 0;
    uint64_t value = 0;
    for (const uint8_t byte : data.subspan(at, width)) value = value << 8 | byte;
    return value;
}

std::string padded_text(std::span<const uint8_t> data, std::size_t at, std::size_t width) {
    if (at >= data.size()) return {};
    const auto bytes = data.subspan(at, std::min(width, data.size() - at));
    std::string text(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
    text.resize(text.find_last_not_of(' ') + 1);
    text.erase(0, text.find_first_not_of(' '));
    return escaped(text);
}

Failure lun_failure(const LunAddress& address, std::string name, std::string meaning, std::string advice) {
    return {.code = {},
            .name = std::move(name),
            .meaning = std::move(meaning),
            .advice = std::move(advice),
            .operation = "TRELM_SendScsiCommand",
            .port = port_of(address)};
}

void name_lun(const LunAddress& address, Json& document) {
    document["instance"] = address.adapter.instance();
    document["npiv_index"] = address.npiv_index;
    document["target"] = address.target;
    document["lun"] = address.lun;
    document["lun_text"] = lun_text(address.lun);
}

}  // namespace trelmctl
