#include "sense.h"

#include <fmt/format.h>
#include <scsi/sg_lib.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "text.h"

namespace trelmctl {
namespace {

enum class Key : uint8_t {
    no_sense = 0,
    recovered = 1,
    not_ready = 2,
    hardware_error = 4,
    medium_error = 3,
    illegal_request = 5,
    completed = 15
};

constexpr std::size_t kSenseHeader = 8;  // in both formats; its last byte is the length of the rest

std::string key_words(uint8_t key) {
    std::array<char, 64> text{};
    sg_get_sense_key_str(key, static_cast<int>(text.size()), text.data());
    return text.data();
}

std::string additional_words(uint8_t asc, uint8_t ascq) {
    std::array<char, 128> text{};
    sg_get_asc_ascq_str(asc, ascq, static_cast<int>(text.size()), text.data());
    std::string_view words = text.data();
    constexpr std::string_view kLead = "Additional sense: ";
    if (words.starts_with(kLead)) words.remove_prefix(kLead.size());
    return std::string(words);
}

// The three sense-key specific bytes.
std::span<const uint8_t> key_specific(const Sense& sense) {
    constexpr std::size_t kBytes = 3;
    constexpr uint8_t kValid = 0x80;
    std::span<const uint8_t> bytes = sense.bytes;
    if (sense.descriptor_format) {
        constexpr int kType = 2;
        const uint8_t* found = sg_scsi_sense_desc_find(bytes.data(), static_cast<int>(bytes.size()), kType);
        if (found == nullptr) return {};
        bytes = bytes.subspan(static_cast<std::size_t>(found - bytes.data()));
        if (bytes.size() < 4 + kBytes) return {};
        bytes = bytes.subspan(4, kBytes);
    } else {
        if (bytes.size() < 15 + kBytes) return {};
        bytes = bytes.subspan(15, kBytes);
    }
    return (bytes[0] & kValid) != 0 ? bytes : std::span<const uint8_t>{};
}

void decode_key_specific(Sense& sense) {
    const auto bytes = key_specific(sense);
    if (bytes.empty()) return;
    const auto value = static_cast<uint16_t>(bytes[1] << 8 | bytes[2]);
    switch (static_cast<Key>(sense.key)) {
        case Key::illegal_request: {
            constexpr uint8_t kCommand = 0x40;
            constexpr uint8_t kBitValid = 0x08;
            FieldPointer pointer{(bytes[0] & kCommand) != 0, value, {}};
            if ((bytes[0] & kBitValid) != 0) pointer.bit = bytes[0] & 0x07;
            sense.field_pointer = pointer;
            break;
        }
        case Key::no_sense:
        case Key::not_ready:
            sense.progress = value * 100.0 / 65536;
            break;
        case Key::recovered:
        case Key::medium_error:
        case Key::hardware_error:
            sense.retries = value;
            break;
        default:
            break;
    }
}

void decode_numbers(Sense& sense) {
    const int length = static_cast<int>(sense.bytes.size());
    uint64_t value = 0;
    if (sg_get_sense_info_fld(sense.bytes.data(), length, &value)) sense.information = value;
    value = 0;
    if (sg_get_sense_cmd_spec_fld(sense.bytes.data(), length, &value) && value != 0)
        sense.command_specific = value;
}

}  // namespace

std::optional<Sense> decode_sense(std::span<const uint8_t> bytes) {
    sg_scsi_sense_hdr header{};
    if (bytes.size() < kSenseHeader) return std::nullopt;
    bytes = bytes.first(std::min(bytes.size(), kSenseHeader + bytes[kSenseHeader - 1]));
    if (!sg_scsi_normalize_sense(bytes.data(), static_cast<int>(bytes.size()), &header)) return std::nullopt;
    Sense sense;
    sense.descriptor_format = header.response_code >= 0x72;
    sense.deferred = header.response_code % 2 != 0;
    sense.key = header.sense_key;
    sense.asc = header.asc;
    sense.ascq = header.ascq;
    sense.bytes.assign(bytes.begin(), bytes.end());
    decode_numbers(sense);
    decode_key_specific(sense);
    return sense;
}

bool Sense::is_failure() const {
    const auto of = static_cast<Key>(key);
    return !deferred && of != Key::no_sense && of != Key::recovered && of != Key::completed;
}

std::string Sense::words() const {
    return fmt::format("{}: {} ({:02x}/{:02x}/{:02x}){}", key_words(key), additional_words(asc, ascq), key,
                       asc, ascq, deferred ? ", of an earlier command" : "");
}

std::vector<std::string> Sense::details() const {
    std::vector<std::string> lines;
    if (information) lines.push_back(fmt::format("Information: {0} (0x{0:x})", *information));
    if (command_specific)
        lines.push_back(fmt::format("Command-specific information: {0} (0x{0:x})", *command_specific));
    if (field_pointer) {
        lines.push_back(fmt::format("Field in error: byte {}{} of the {}", field_pointer->byte,
                                    field_pointer->bit ? fmt::format(", bit {},", *field_pointer->bit) : "",
                                    field_pointer->in_cdb ? "CDB" : "data sent"));
    }
    if (progress) lines.push_back(fmt::format("Progress: {:.1f} %", *progress));
    if (retries) lines.push_back(fmt::format("Retries: {}", *retries));
    return lines;
}

Json sense_to_json(std::span<const uint8_t> bytes) {
    const auto sense = decode_sense(bytes);
    if (!sense) return {};
    const auto or_null = [](const auto& value) { return value ? Json(*value) : Json(); };
    Json pointer;
    if (const auto& field = sense->field_pointer) {
        pointer = {
            {"in", field->in_cdb ? "cdb" : "data"}, {"byte", field->byte}, {"bit", or_null(field->bit)}};
    }
    return {{"format", sense->descriptor_format ? "descriptor" : "fixed"},
            {"deferred", sense->deferred},
            {"key", key_words(sense->key)},
            {"key_raw", sense->key},
            {"additional", additional_words(sense->asc, sense->ascq)},
            {"asc_raw", sense->asc},
            {"ascq_raw", sense->ascq},
            {"information", or_null(sense->information)},
            {"command_specific", or_null(sense->command_specific)},
            {"field_pointer", pointer},
            {"progress_percent", or_null(sense->progress)},
            {"retries", or_null(sense->retries)},
            {"bytes", hex_bytes(sense->bytes.data(), sense->bytes.size(), "")}};
}

}  // namespace trelmctl
