// scsi.cpp - `trelmctl scsi`: any command to a LUN.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "files.h"
#include "hexdump.h"
#include "ports.h"
#include "scsi_command.h"
#include "sense.h"
#include "text.h"

namespace trelmctl {
namespace {

void print_sense(const Sense& sense, Output& output) {
    output.print_lines(fmt::format("Sense: {}\n", sense.words()), 4);
    for (const std::string& detail : sense.details()) output.print_lines(fmt::format("  {}\n", detail), 4);
    output.print(hexdump(sense.bytes, Output::width()));
}

void print_answer(const Options& options, const ScsiAnswer& answer, Output& output) {
    const bool has_data = options.data_in > 0 && !answer.failure;
    if (has_data && options.raw) {
        output.print({reinterpret_cast<const char*>(answer.data.data()), answer.data.size()});
    } else if (has_data && options.out_file.empty()) {
        output.print(hexdump(answer.data, Output::width()));
    }
    if (options.raw) return;
    if (const auto sense = decode_sense(answer.sense)) {
        print_sense(*sense, output);
    } else if (!answer.failure && (!has_data || !options.out_file.empty())) {
        output.print("Done, without sense data.\n");
    }
}

}  // namespace

void run_scsi(const Options& options, Output& output) {
    std::vector<uint8_t> to_send;
    if (!options.data_out.empty()) to_send = file_contents(options.data_out);
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const LunAddress address{port.adapter, port.npiv_index, options.target, options.lun};
    const ScsiAnswer answer = options.data_in > 0 ? read_command(address, options.cdb, options.data_in)
                                                  : write_command(address, options.cdb, std::move(to_send));
    const bool has_data = options.data_in > 0 && !answer.failure;
    if (has_data && !options.out_file.empty()) write_file(options.out_file, answer.data);
    if (output.json()) {
        Json& document = output.document();
        name_lun(address, document);
        document["cdb"] = hex_bytes(options.cdb.data(), options.cdb.size(), "");
        document["data"] = has_data ? Json(hex_bytes(answer.data.data(), answer.data.size(), "")) : Json();
        document["sense"] = sense_to_json(answer.sense);
    } else {
        print_answer(options, answer, output);
    }
    if (answer.failure) output.fail(*answer.failure);
}

}  // namespace trelmctl
