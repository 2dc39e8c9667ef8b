// scsi.cpp - `trelmctl scsi`, and the sending of commands that others build on.
#include "scsi.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.h"
#include "hexdump.h"
#include "sense.h"
#include "text.h"

namespace trelmctl {
namespace {

constexpr uint8_t kUnitAttention = 6;

std::string place(const LunAddress& address) {
    return port_label(address.adapter.instance(), address.npiv_index);
}

// The device's own refusal, which the library leaves for the caller to see.
std::optional<Failure> refusal(const LunAddress& address, std::span<const uint8_t> sense) {
    const auto decoded = decode_sense(sense);
    if (!decoded || !decoded->is_failure()) return std::nullopt;
    return Failure{.code = {},
                   .name = "CHECK_CONDITION",
                   .meaning = fmt::format("target {} LUN {} refused the command: {}", address.target,
                                          lun_text(address.lun), decoded->words()),
                   .advice = {},
                   .operation = "TRELM_SendScsiCommand",
                   .port = place(address)};
}

ScsiAnswer send(const LunAddress& address, std::span<const uint8_t> cdb, uint8_t direction,
                std::vector<uint8_t> data) {
    TRELM_SCSI_CMND command = trelm::scsi_command(address.target, address.lun, cdb, direction);
    ScsiAnswer answer;
    answer.data = std::move(data);
    try {
        address.adapter.send(address.npiv_index, command, answer.data.data(),
                             static_cast<uint32_t>(answer.data.size()));
    } catch (const trelm::Error& error) {
        answer.failure = explain(error);
    }
    answer.sense.assign(std::begin(command.Sense), std::end(command.Sense));
    if (!answer.failure) answer.failure = refusal(address, answer.sense);
    return answer;
}

[[noreturn]] void file_failed(const std::string& path) {
    const int error = errno;
    const char* name = strerrorname_np(error);
    throw CommandFailed(Failure{.code = static_cast<uint32_t>(error),
                                .name = name != nullptr ? name : "UNKNOWN",
                                .meaning = fmt::format("{}: {}", escaped(path), std::strerror(error)),
                                .advice = "name a file that can be read",
                                .operation = "reading the file",
                                .port = {}});
}

// The data to send, at most what one command can be given.
std::vector<uint8_t> file_contents(const std::string& path) {
    const bool standard = path == "-";
    const std::unique_ptr<FILE, int (*)(FILE*)> file(standard ? stdin : std::fopen(path.c_str(), "rb"),
                                                     [](FILE* f) { return f == stdin ? 0 : std::fclose(f); });
    if (!file) file_failed(path);
    std::vector<uint8_t> contents;
    std::array<uint8_t, 65536> piece{};
    while (contents.size() <= kMostData) {
        const std::size_t got = std::fread(piece.data(), 1, piece.size(), file.get());
        if (got == 0) break;
        contents.insert(contents.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got));
    }
    if (std::ferror(file.get()) != 0) file_failed(path);
    if (contents.size() > kMostData) {
        throw CommandFailed(
            usage_failure(fmt::format("{} holds more than {} bytes", escaped(path), kMostData)));
    }
    return contents;
}

void print_answer(const Options& options, const ScsiAnswer& answer, Output& output) {
    const bool has_data = options.data_in > 0 && !answer.failure;
    if (has_data && options.raw) {
        output.print({reinterpret_cast<const char*>(answer.data.data()), answer.data.size()});
    } else if (has_data) {
        output.print(hexdump(answer.data));
    }
    if (options.raw) return;
    if (const auto sense = decode_sense(answer.sense)) {
        output.print(fmt::format("Sense: {}\n{}", sense->words(),
                                 hexdump(std::span(answer.sense).first(sense_length(answer.sense)))));
    } else if (!has_data && !answer.failure) {
        output.print("Done, without sense data.\n");
    }
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
    // A unit attention tells of an event, once, in place of the answer.
    const auto sense = decode_sense(answer.sense);
    if (answer.failure && sense && sense->key == kUnitAttention) answer = read_command(address, cdb, length);
    if (answer.failure) throw CommandFailed(*answer.failure);
    return std::move(answer.data);
}

uint64_t big_endian(std::span<const uint8_t> data, std::size_t at, std::size_t width) {
    if (at + width > data.size()) return 0;
    uint64_t value = 0;
    for (const uint8_t byte : data.subspan(at, width)) value = value << 8 | byte;
    return value;
}

void name_lun(const LunAddress& address, Json& document) {
    document["instance"] = address.adapter.instance();
    document["npiv_index"] = address.npiv_index;
    document["target"] = address.target;
    document["lun"] = address.lun;
    document["lun_text"] = lun_text(address.lun);
}

void run_scsi(const Options& options, Output& output) {
    std::vector<uint8_t> to_send;
    if (!options.data_out.empty()) to_send = file_contents(options.data_out);
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const LunAddress address{port.adapter, port.npiv_index, options.target, options.lun};
    const ScsiAnswer answer = options.data_in > 0 ? read_command(address, options.cdb, options.data_in)
                                                  : write_command(address, options.cdb, std::move(to_send));
    if (output.json()) {
        Json& document = output.document();
        name_lun(address, document);
        document["cdb"] = hex_bytes(options.cdb.data(), options.cdb.size(), "");
        const bool has_data = options.data_in > 0 && !answer.failure;
        document["data"] = has_data ? Json(hex_bytes(answer.data.data(), answer.data.size(), "")) : Json();
        document["sense"] = sense_to_json(answer.sense);
    } else {
        print_answer(options, answer, output);
    }
    if (answer.failure) output.fail(*answer.failure);
}

}  // namespace trelmctl
