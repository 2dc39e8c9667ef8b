// golden_test.cpp - the output of the tool. Each file in golden/ has command lines and their output:
//
//     $ lab.json: trelmctl list          the host, from hosts/ or from the samples of the simulator, or '-'
//                                        for the machine itself; then a shell command, which finds the file
//                                        of the host as host.json and may edit it
//     (standard output)
//     ! (a line of standard error)
//     => 0                               the exit status
//
// In place of a host, `bytes: KIND BYTES` is what the tool makes of data that no simulated device returns.
#include <fmt/ranges.h>

#include <nlohmann/json.hpp>

#include "inquiry.h"
#include "sense.h"
#include "support/programs.h"
#include "vpd_pages.h"

namespace {

using namespace trelm::test;
namespace fs = std::filesystem;

const fs::path kHere = source_dir() + "/tests/trelmctl";

std::string decoded_sense(const std::vector<uint8_t>& bytes) {
    const auto sense = trelmctl::decode_sense(bytes);
    if (!sense) return "no sense data\n";
    return fmt::format("{}: {}\n{}\n{}\n", sense->is_failure() ? "failure" : "no failure", sense->words(),
                       fmt::join(sense->details(), "\n"), trelmctl::sense_to_json(bytes).dump());
}

std::string decoded_page(const std::vector<uint8_t>& bytes) {
    trelmctl::Json json;
    const std::string text = trelmctl::decode_page(bytes, json);
    return fmt::format("{}\n{}{}\n", trelmctl::page_title(bytes[1]), text, json.dump());
}

std::string decoded_inquiry(const std::vector<uint8_t>& bytes) {
    const trelmctl::StandardInquiry inquiry = trelmctl::decode_inquiry(bytes);
    return fmt::format("{}, {}removable, {}, follows {}\n", trelmctl::device_type_words(inquiry.device_type),
                       inquiry.removable ? "" : "not ", trelmctl::version_words(inquiry.version),
                       fmt::join(inquiry.standards, ", "));
}

std::string decoded(const std::string& line) {
    const Words words = words_of(line);
    std::vector<uint8_t> bytes;
    for (std::size_t i = 1; i < words.size(); ++i)
        bytes.push_back(static_cast<uint8_t>(std::stoul(words[i], nullptr, 16)));
    if (words[0] == "sense") return decoded_sense(bytes);
    if (words[0] == "page") return decoded_page(bytes);
    if (words[0] == "inquiry") return decoded_inquiry(bytes);
    return trelmctl::lun_name(bytes) + "\n";
}

class Golden : public Programs, public testing::WithParamInterface<std::string> {
  protected:
    // The lines for the command line `$ HOST: COMMAND`.
    std::string run(const std::string& line) const {
        const std::size_t colon = line.find(": ");
        const std::string host = line.substr(2, colon - 2);
        if (host == "bytes") return line + "\n" + decoded(line.substr(colon + 2));
        Words words{"/usr/bin/env", "LC_ALL=C.UTF-8", "PATH=" + binary_dir() + "/bin:/usr/bin:/bin"};
        if (host != "-") {
            const fs::path own = kHere / "hosts" / host;
            write("host.json",
                  text_of(fs::exists(own) ? own : fs::path(source_dir()) / "hostsim/hosts" / host));
            words = words + Words{kLauncher, "run", at("host.json"), "--"};
        }
        const ProgramResult outcome =
            execute(words + Words{"/bin/sh", "-c", "cd " + at("") + "; " + line.substr(colon + 2)});

        std::string lines = line + "\n" + outcome.out;
        std::istringstream errors(outcome.errors);
        for (std::string error; std::getline(errors, error);) lines += "! " + error + "\n";
        return lines + "=> " + std::to_string(outcome.status) + "\n";
    }
};

TEST_P(Golden, CommandsPrintWhatTheFileHolds) {
    expect_told_commands(kHere / "golden" / (GetParam() + ".txt"),
                         [this](const std::string& line) { return run(line); });
}

INSTANTIATE_TEST_SUITE_P(Trelmctl, Golden, testing::ValuesIn(golden_names(kHere / "golden")),
                         [](const auto& name) { return name.param; });

}  // namespace
