// trelmctl_test.cpp - the command-line tool as people and scripts meet it: the real tool, started by the real
// launcher on hosts that are described here, read by its exit status, its text and its JSON.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

const std::string kTool = TRELM_BINARY_DIR "/bin/trelmctl";
const std::string kLauncher = TRELM_BINARY_DIR "/bin/trelm-hostsim";

struct Result {
    int exit_status = -1;
    std::string out;
    std::string err;

    json document() const { return json::parse(out); }
};

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

Words lines_of(const std::string& text) {
    Words lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

class TrelmctlTest : public testing::Test {
  protected:
    TrelmctlTest() {
        std::string pattern = testing::TempDir() + "trelmctl-XXXXXX";
        directory_ = mkdtemp(pattern.data());
    }
    ~TrelmctlTest() override { std::filesystem::remove_all(directory_); }

    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    // Runs a command with its output in files, so that neither stream can block the other.
    Result execute(const Words& words, const std::string& out = "") const {
        const std::string out_path = out.empty() ? path("out") : out;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        std::vector<char*> arguments;
        for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        pid_t process = 0;
        EXPECT_EQ(posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        waitpid(process, &status, 0);
        const std::string printed = out.empty() ? contents(out_path) : "";
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, printed, contents(path("err"))};
    }

    static Words on_file(const std::string& host_file, const Words& arguments) {
        Words words{kLauncher, "run", host_file, "--", kTool};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }
    Words on_host(const Words& arguments) const {
        std::ofstream(path("host.json")) << host;
        return on_file(path("host.json"), arguments);
    }
    Result tool(const Words& arguments) const { return execute(on_host(arguments)); }
    static Words on_sample(const std::string& name, const Words& arguments) {
        return on_file(TRELM_SOURCE_DIR "/hostsim/hosts/" + name, arguments);
    }

    void add_fault(const json& fault) { host["faults"].push_back(fault); }
    json& port(std::size_t index) { return host["adapters"][0]["ports"][index]; }

    // Two ports; the first with a virtual port that comes before it in NPIV indexes, and two targets with a
    // gap.
    json host = json::parse(R"({
      "name": "tool-host",
      "adapters": [{
        "driver": "kron", "model": "Ulvard 8042", "firmware_version": "8.37.30.0", "management_firmware": "08.37.30.00",
        "pci": {"address": "0001:3b:02", "vendor_id": "0x1077", "device_id": "0x8080", "speed": "8 GT/s", "width": 8},
        "ports": [
          {"name": "a", "function": 0, "npiv_index": 3, "hba_name": "vmhba7", "port_id": "0x010200",
           "wwnn": "20:00:00:c0:5a:00:00:01", "wwpn": "20:01:00:c0:5a:00:00:01",
           "supported_speed": ["1 Gbit", "10 Gbit"], "speed": "10 Gbit",
           "counters": {"rx_fcoe_frames": {"start": 18446744073709551615}, "tx_fcoe_frames": {"start": 7, "rate": 1000000}},
           "targets": [
             {"index": 0, "wwnn": "50:00:00:c0:5a:00:00:10", "wwpn": "50:00:00:c0:5a:00:00:11", "port_id": "0x010600",
              "luns": [{"number": 0, "capacity": "64 GiB", "serial_number": "SER0"},
                       {"number": 1, "capacity": "3 TiB", "block_size": 512, "product": "BIG\u001b[31m"},
                       {"number": 300, "capacity": "1 GiB", "block_size": 4096}]},
             {"index": 5, "wwnn": "50:00:00:c0:5a:00:00:10", "wwpn": "50:00:00:c0:5a:00:00:12",
              "luns": [{"number": 2, "capacity": "1536 MiB"}]}],
           "virtual_ports": [{"name": "a-v", "npiv_index": 1, "wwnn": "28:00:00:c0:5a:00:00:01",
                              "wwpn": "28:01:00:c0:5a:00:00:01"}]},
          {"name": "b", "function": 1, "wwnn": "20:00:00:c0:5a:00:00:02", "wwpn": "20:01:00:c0:5a:00:00:02",
           "link": "link_down", "speed": "unknown"}]}],
      "faults": []})");

  private:
    std::string directory_;
};

// ---- Ports -----------------------------------------------------------------------------------------------

TEST_F(TrelmctlTest, ListsPortsInAlignedColumns) {
    const Result listed = tool({"list"});
    EXPECT_EQ(listed.exit_status, 0) << listed.err;
    EXPECT_EQ(listed.err, "");
    EXPECT_EQ(listed.out,
              "PORT  STATE      WWPN                         SPEED  MODEL        DRIVER  PCI           "
              "VPORTS  TARGETS\n"
              "   0  online     20:01:00:c0:5a:00:00:01  10 Gbit/s  Ulvard 8042  kronfc  0001:3b:02.0       "
              "1        2\n"
              "   1  link down  20:01:00:c0:5a:00:00:02    unknown  Ulvard 8042  kronfc  0001:3b:02.1       "
              "0        0\n");
}

TEST_F(TrelmctlTest, ListsPortsAsJsonWithRawValues) {
    for (const Words& arguments : {Words{"list", "--json"}, Words{"--json", "list"}}) {
        const json document = tool(arguments).document();
        EXPECT_EQ(document["format_version"], 1);
        ASSERT_EQ(document["ports"].size(), 2u);
        EXPECT_EQ(document["ports"][0],
                  json::parse(R"({"instance": 0, "npiv_index": 3, "state": "online", "state_raw": 8,
            "wwpn": "20:01:00:c0:5a:00:00:01", "speed": "10 Gbit/s", "speed_raw": 4, "model": "Ulvard 8042",
            "driver": "kronfc", "pci_address": "0001:3b:02.0", "virtual_ports": 1, "targets": 2, "error": null})"));
        EXPECT_EQ(document["ports"][1]["state_raw"], 4);
        EXPECT_FALSE(document.contains("error"));
    }
}

TEST_F(TrelmctlTest, APortThatFailsHidesNoOther) {
    add_fault(
        {{"operation", "port_info"}, {"port", "a"}, {"status", 6}, {"occurrence", 2}, {"count", "always"}});
    const Result listed = tool({"list"});
    EXPECT_EQ(listed.exit_status, 1);
    ASSERT_EQ(lines_of(listed.out).size(), 3u);
    EXPECT_THAT(lines_of(listed.out)[1], StartsWith("   0  failed     20:01:00:c0:5a:00:00:01"));
    EXPECT_THAT(lines_of(listed.out)[2], StartsWith("   1  link down"));
    EXPECT_THAT(listed.err, AllOf(HasSubstr("port 0/3"), HasSubstr("TRELM_GetVNPortInfo"),
                                  HasSubstr("0x60000006"), HasSubstr("driver failed with its status 6")));

    const Result as_json = tool({"list", "--json"});
    EXPECT_EQ(as_json.exit_status, 1);
    const json document = as_json.document();
    EXPECT_EQ(document["ports"][0]["error"]["code"], "0x60000006");
    EXPECT_EQ(document["ports"][0]["wwpn"], "20:01:00:c0:5a:00:00:01");
    EXPECT_EQ(document["ports"][1]["error"], nullptr);
    EXPECT_EQ(document["error"]["port"], "0/3");
    EXPECT_EQ(document["error"]["exit_status"], 1);
}

TEST_F(TrelmctlTest, ShowsBothRecordsInGroups) {
    const json document = tool({"show", "0", "--json"}).document();
    EXPECT_EQ(document["port"]["npiv_index"], 3);
    EXPECT_EQ(document["port"]["npiv_indexes"], json({1, 3}));
    EXPECT_EQ(document["port"]["hba_name"], "vmhba7");
    EXPECT_EQ(document["port"]["supported_speeds"], "1, 10 Gbit/s");
    EXPECT_EQ(document["port"]["supported_speeds_raw"], 5);
    EXPECT_EQ(document["port"]["port_fcid"], "0x010200");
    EXPECT_EQ(document["adapter"]["management_firmware_version"], "08.37.30.00");
    EXPECT_EQ(document["adapter"]["wwnn"], "20:00:00:c0:5a:00:00:01");
    EXPECT_EQ(document["pci"]["device_id"], "0x8080");
    EXPECT_EQ(document["pci"]["link"], "8.0 GT/s x8");
    EXPECT_EQ(document["driver"]["loaded"], "yes");
    EXPECT_THAT(tool({"show", "0"}).out,
                AllOf(HasSubstr("\n  State                online (8)\n"),
                      HasSubstr("\n  Link                 8.0 GT/s x8\n"), HasSubstr("\nFabric\n")));
}

TEST_F(TrelmctlTest, FindsPortsByInstanceNpivIndexAndWwpn) {
    const auto shown = [&](const std::string& name) {
        return tool({"show", name, "--json"}).document()["port"];
    };
    for (const char* name : {"0", "0/3", "20:01:00:c0:5a:00:00:01", "200100C05A000001/3"}) {
        EXPECT_EQ(shown(name)["port_type"], "physical") << name;
        EXPECT_EQ(shown(name)["instance"], 0) << name;
    }
    for (const char* name : {"0/1", "0x280100c05a000001", "28:01:00:c0:5a:00:00:01"}) {
        EXPECT_EQ(shown(name)["port_type"], "virtual") << name;
        EXPECT_EQ(shown(name)["parent_wwpn"], "20:01:00:c0:5a:00:00:01") << name;
    }
}

TEST_F(TrelmctlTest, TellsWhichPortIsNotThere) {
    const struct {
        std::string port, code, named;
    } cases[]{{"7", "0x60000007", "7"},
              {"0/2", "0x60000001", "0/2"},
              {"20:01:00:c0:5a:00:00:99", "0x60000007", "20:01:00:c0:5a:00:00:99"}};
    for (const auto& missing : cases) {
        const Result result = tool({"stats", missing.port, "--json"});
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.document()["error"]["code"], missing.code);
        EXPECT_EQ(result.document()["error"]["port"], missing.named);
    }
}

// ---- Machines and usage ----------------------------------------------------------------------------------

TEST_F(TrelmctlTest, NamesTheSimulatedHostWhereThereIsNoHost) {
    const Result result = execute({kTool, "list"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lines_of(result.err).size(), 1u);
    EXPECT_THAT(result.err, AllOf(HasSubstr("not an ESXi host"),
                                  HasSubstr("trelm-hostsim run HOST.json -- trelmctl list")));
    EXPECT_EQ(execute({kTool, "version"}).exit_status, 0) << "the version needs no host";

    host["effective_user"] = 1000;
    EXPECT_THAT(tool({"list"}).err, HasSubstr("run trelmctl as root"));
}

TEST_F(TrelmctlTest, AHostWithoutPortsHasItsOwnExitStatus) {
    const Result result = execute(on_sample("empty.json", {"list"}));
    EXPECT_EQ(result.exit_status, 3);
    EXPECT_THAT(result.err, HasSubstr("no FCoE port was found"));
    const Result as_json = execute(on_sample("empty.json", {"show", "0", "--json"}));
    EXPECT_EQ(as_json.exit_status, 3);
    EXPECT_EQ(as_json.document()["error"]["exit_status"], 3);
}

TEST_F(TrelmctlTest, WrongUsageIsToldInTheFormAskedFor) {
    const struct {
        Words arguments;
        std::string about;
    } cases[]{{{}, "subcommand"},
              {{"lsit"}, "lsit"},
              {{"show"}, "PORT"},
              {{"show", "x"}, "PORT"},
              {{"show", "0/-1"}, "PORT"},
              {{"luns", "0", "128"}, "TARGET"},
              {{"scsi", "0", "0", "0", "1g"}, "CDB"},
              {{"scsi", "0", "0", "0", "123"}, "CDB"},
              {{"scsi", "0", "0", "0", "00112233445566778899aabbccddeeff00"}, "16 bytes"},
              {{"scsi", "0", "0", "0", "00", "--raw"}, "--in"},
              {{"scsi", "0", "0", "0", "00", "--in", "99999999999"}, "--in"},
              {{"stats", "0", "--count", "1"}, "--watch"},
              {{"stats", "0", "--watch", "0"}, "seconds"},
              {{"inquiry", "0", "0", "0", "--page", "100"}, "--page"}};
    for (const auto& wrong : cases) {
        Words words{kTool};
        words.insert(words.end(), wrong.arguments.begin(), wrong.arguments.end());
        const Result as_text = execute(words);
        EXPECT_EQ(as_text.exit_status, 2) << wrong.about;
        EXPECT_EQ(as_text.out, "");
        EXPECT_THAT(as_text.err, HasSubstr(wrong.about));
        words.emplace_back("--json");
        const Result as_json = execute(words);
        EXPECT_EQ(as_json.exit_status, 2) << wrong.about;
        EXPECT_THAT(as_json.document()["error"]["meaning"].get<std::string>(), HasSubstr(wrong.about));
        EXPECT_EQ(as_json.document()["error"]["exit_status"], 2);
    }
    EXPECT_EQ(execute({kTool, "stats", "0", "--watch", "1", "--json"}).exit_status, 2);
}

TEST_F(TrelmctlTest, OutputThatCannotBeWrittenIsAFailure) {
    const Result full = execute(on_host({"list"}), "/dev/full");
    EXPECT_EQ(full.exit_status, 1);
    EXPECT_THAT(full.err, HasSubstr("No space left on device"));

    // A pipe whose reader has gone before the tool begins.
    Words words{"/bin/sh", "-c", "mkfifo \"$0\"; exec 3<>\"$0\"; exec 4>\"$0\"; exec 3<&-; \"$@\" >&4",
                path("pipe")};
    const Words command = on_host({"list"});
    words.insert(words.end(), command.begin(), command.end());
    const Result gone = execute(words);
    EXPECT_EQ(gone.exit_status, 1);
    EXPECT_THAT(gone.err, HasSubstr("Broken pipe"));
}

// ---- Counters --------------------------------------------------------------------------------------------

TEST_F(TrelmctlTest, ShowsEveryCounterWhole) {
    port(0)["counters"] = json::object();
    const Words names{"rx_fcoe_frames", "seq_dropped", "read_req", "link_failures"};
    for (std::size_t i = 0; i < names.size(); ++i) port(0)["counters"][names[i]] = UINT64_MAX - i;
    const json document = tool({"stats", "0", "--json"}).document();
    EXPECT_EQ(document["frames"]["rx_fcoe_frames"], UINT64_MAX);
    EXPECT_EQ(document["errors"]["sequences_dropped"], UINT64_MAX - 1);
    EXPECT_EQ(document["requests"]["read_requests"], UINT64_MAX - 2);
    EXPECT_EQ(document["errors"]["link_failures"], UINT64_MAX - 3);
    std::size_t counters = 0;
    for (const char* group : {"frames", "requests", "fabric", "errors", "recovery"})
        counters += document[group].size();
    EXPECT_EQ(counters, 30u);
    EXPECT_THAT(tool({"stats", "0"}).out,
                HasSubstr("\n  Link failures                   18446744073709551612\n"));
}

TEST_F(TrelmctlTest, WatchesRatesForTheWantedNumberOfTimes) {
    const json document = tool({"stats", "0", "--watch", "0.05", "--count", "2", "--json"}).document();
    ASSERT_EQ(document["samples"].size(), 2u);
    for (const json& sample : document["samples"]) {
        EXPECT_GE(sample["seconds"], 0.05);
        EXPECT_GT(sample["rates_per_second"]["tx_fcoe_frames"], 0);
        EXPECT_EQ(sample["rates_per_second"]["read_requests"], 0);
    }
    EXPECT_GT(document["samples"][1]["totals"]["tx_fcoe_frames"],
              document["samples"][0]["totals"]["tx_fcoe_frames"]);

    const Words lines = lines_of(tool({"stats", "0", "--watch", "0.05", "--count", "3"}).out);
    ASSERT_EQ(lines.size(), 4u) << "one line of titles, one a sample, none rewritten in a pipe";
    EXPECT_EQ(lines[0].size(), lines[3].size());
}

// ---- Targets and LUNs ------------------------------------------------------------------------------------

TEST_F(TrelmctlTest, ListsTargetsAndLuns) {
    EXPECT_EQ(tool({"targets", "0"}).out,
              "TARGET  STATE   WWPN                     WWNN                     PORT ID   LUNS\n"
              "     0  online  50:00:00:c0:5a:00:00:11  50:00:00:c0:5a:00:00:10  0x010600     3\n"
              "     5  online  50:00:00:c0:5a:00:00:12  50:00:00:c0:5a:00:00:10  0x000000     1\n");
    EXPECT_EQ(tool({"luns", "0", "0"}).out,
              "   LUN  TYPE  VENDOR   PRODUCT        REV   CAPACITY\n"
              "     0  disk  CALVEXA  ULVARD VOLUME  0500    64 GiB\n"
              "     1  disk  CALVEXA  BIG\\x1b[31m    0500     3 TiB\n"
              "0x412c  disk  CALVEXA  ULVARD VOLUME  0500     1 GiB\n");
    const json lun = tool({"luns", "0", "0", "--json"}).document()["luns"][2];
    EXPECT_EQ(lun["lun"], 0x412C);
    EXPECT_EQ(lun["capacity_bytes"], 1 << 30);
    EXPECT_EQ(tool({"targets", "0/1"}).exit_status, 0);
}

TEST_F(TrelmctlTest, DrawsTheTreeInTheCharactersOfTheLocale) {
    const auto tree = [&](const std::string& locale) {
        Words words = on_host({"tree"});
        words.insert(words.begin(), {"/usr/bin/env", "LC_ALL=" + locale});
        return execute(words).out;
    };
    const std::string expected =
        "port 0  vmhba7  20:01:00:c0:5a:00:00:01  online  10 Gbit/s  Ulvard 8042\n"
        "|-- target  0  50:00:00:c0:5a:00:00:11  online\n"
        "|   |-- LUN       0  disk  CALVEXA  ULVARD VOLUME  0500  64 GiB\n"
        "|   |-- LUN       1  disk  CALVEXA  BIG\\x1b[31m    0500   3 TiB\n"
        "|   `-- LUN  0x412c  disk  CALVEXA  ULVARD VOLUME  0500   1 GiB\n"
        "|-- target  5  50:00:00:c0:5a:00:00:12  online\n"
        "|   `-- LUN  2  disk  CALVEXA  ULVARD VOLUME  0500  1.5 GiB\n"
        "`-- virtual port 0/1  ";
    EXPECT_THAT(tree("C"), StartsWith(expected));
    EXPECT_THAT(tree("C.UTF-8"), AllOf(HasSubstr("│   └── LUN  0x412c"), Not(HasSubstr("`--"))));
}

TEST_F(TrelmctlTest, ShowsWhatFailsInTheTreeAtItsPlace) {
    port(0)["targets"][0]["luns"][1]["not_ready"] = true;
    add_fault({{"operation", "scsi"},
               {"port", "a"},
               {"target", 5},
               {"opcode", "0x12"},
               {"errno", "EIO"},
               {"count", "always"}});
    const Result result = tool({"tree", "--json"});
    EXPECT_EQ(result.exit_status, 1);
    const json targets = result.document()["ports"][0]["targets"];
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[0]["luns"][0]["capacity"], "64 GiB");
    EXPECT_THAT(targets[0]["luns"][1]["error"]["meaning"].get<std::string>(), HasSubstr("Not ready"));
    EXPECT_EQ(targets[0]["luns"][2]["error"], nullptr);
    EXPECT_EQ(targets[1]["luns"][0]["error"]["code"], "0x6000000B");
    EXPECT_EQ(result.document()["ports"][0]["virtual_ports"][0]["npiv_index"], 1);
    EXPECT_EQ(result.document()["ports"][1]["instance"], 1);
    EXPECT_THAT(lines_of(tool({"tree"}).out)[4],
                HasSubstr("[failed: target 0 LUN 1 refused the command: Not ready"));
}

TEST_F(TrelmctlTest, TakesAListingUpLunByLunWhereTheLibraryEndsIt) {
    // The second INQUIRY ends the library's listing; the third, of the first LUN asked alone, fails again.
    add_fault({{"operation", "scsi"},
               {"port", "a"},
               {"opcode", "0x12"},
               {"status", 9},
               {"occurrence", 2},
               {"count", 2}});
    const Result result = tool({"luns", "0", "0", "--json"});
    EXPECT_EQ(result.exit_status, 1);
    const json luns = result.document()["luns"];
    ASSERT_EQ(luns.size(), 3u);
    EXPECT_EQ(luns[0]["error"]["code"], "0x60000009");
    EXPECT_EQ(luns[1]["capacity"], "3 TiB");
    EXPECT_EQ(luns[2]["lun"], 0x412C);
    EXPECT_EQ(luns[2]["vendor"], "CALVEXA");
}

TEST_F(TrelmctlTest, ListsAsManyLunsAsATargetCanHave) {
    port(0)["targets"][0]["luns"] = {{{"number", 0}, {"count", 2047}, {"capacity", "1 GiB"}}};
    const Words lines = lines_of(tool({"luns", "0", "0"}).out);
    ASSERT_EQ(lines.size(), 2048u);
    EXPECT_EQ(lines.back(), "0x47fe  disk  CALVEXA  ULVARD VOLUME  0500     1 GiB");
}

TEST_F(TrelmctlTest, TheSampleHostsAreListedWhole) {
    const Result lab = execute(on_sample("lab.json", {"tree", "--json"}));
    EXPECT_EQ(lab.exit_status, 0) << lab.err;
    EXPECT_EQ(lab.document()["ports"].size(), 3u);
    const Result degraded = execute(on_sample("degraded.json", {"list"}));
    EXPECT_THAT(degraded.out, HasSubstr("link down"));
}

// ---- SCSI ------------------------------------------------------------------------------------------------

TEST_F(TrelmctlTest, WhatIsWrittenIsReadAgain) {
    std::string block(512, '\0');
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 7);
    std::ofstream(path("block"), std::ios::binary) << block;
    // One launch for both commands: what a simulated host keeps in memory ends with it.
    std::ofstream(path("host.json")) << host;
    const Result result = execute({kLauncher, "run", path("host.json"), "--", "/bin/sh", "-c",
                                   "\"$0\" scsi 0 0 0 2a0000000005 00 00 01 00 --out \"$1\" > \"$1.told\" && "
                                   "\"$0\" scsi 0 0 0 28 0 0 0 0 5 0 0 1 0 --in 512 --raw",
                                   kTool, path("block")});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, block);
    EXPECT_EQ(contents(path("block.told")), "Done, without sense data.\n");
}

TEST_F(TrelmctlTest, PutsSenseDataIntoWords) {
    const Result past_the_end = tool({"scsi", "0", "0", "2", "28", "00", "ff", "ff", "ff", "f0", "00", "00",
                                      "01", "00", "--in", "512", "--json"});
    EXPECT_EQ(past_the_end.exit_status, 1);
    const Result refused = tool({"scsi", "0", "0", "0", "ff0000000000", "--json"});
    EXPECT_EQ(refused.exit_status, 1);
    const json document = refused.document();
    EXPECT_EQ(document["sense"]["key"], "Illegal request");
    EXPECT_EQ(document["sense"]["key_raw"], 5);
    EXPECT_EQ(document["sense"]["additional"], "invalid command operation code");
    EXPECT_EQ(document["sense"]["asc_raw"], 0x20);
    EXPECT_EQ(document["error"]["name"], "CHECK_CONDITION");
    EXPECT_EQ(document["data"], nullptr);
    const Result as_text = tool({"scsi", "0", "0", "0", "ff0000000000"});
    EXPECT_THAT(
        as_text.out,
        StartsWith("Sense: Illegal request: invalid command operation code (05/20/00)\n00000000  70 "));
    EXPECT_THAT(as_text.err, HasSubstr("target 0 LUN 0 refused the command"));
}

TEST_F(TrelmctlTest, DumpsWhatItReads) {
    const Result result = tool({"scsi", "0", "5", "2", "12", "00", "00", "00", "24", "00", "--in", "64"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const Words lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0], AllOf(StartsWith("00000000  00 "), EndsWith("CALVEXA |")));
    EXPECT_EQ(lines[1], "00000010  55 4c 56 41 52 44 20 56  4f 4c 55 4d 45 20 20 20  |ULVARD VOLUME   |");
    EXPECT_EQ(lines[3], "00000030  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|");
}

TEST_F(TrelmctlTest, AsksALunWhatItIs) {
    const json standard = tool({"inquiry", "0", "0", "1", "--json"}).document();
    EXPECT_EQ(standard["device_type"], "disk");
    EXPECT_EQ(standard["vendor"], "CALVEXA");
    EXPECT_EQ(standard["product"], "BIG\\x1b[31m");
    EXPECT_EQ(tool({"inquiry", "0", "0", "0", "--page", "80", "--json"}).document()["serial_number"], "SER0");
    const json pages = tool({"inquiry", "0", "0", "0", "--page", "0", "--json"}).document()["pages"];
    EXPECT_THAT(pages.get<Words>(), ElementsAre("0x00", "0x80", "0x83", "0xb0"));
    const json names = tool({"inquiry", "0", "0", "0", "--page", "83", "--json"}).document()["designators"];
    EXPECT_THAT(names.dump(), AllOf(HasSubstr("\"NAA\""), HasSubstr("\"T10 vendor id\"")));
    EXPECT_EQ(tool({"inquiry", "0", "0", "0", "--page", "c7"}).exit_status, 1);
}

TEST_F(TrelmctlTest, AsksALunForItsSize) {
    const struct {
        Words arguments;
        uint64_t bytes, block_size;
        json thin;
    } cases[]{{{"capacity", "0", "5", "2"}, 1536ull << 20, 512, nullptr},
              {{"capacity", "0", "5", "2", "--16"}, 1536ull << 20, 512, false},
              {{"capacity", "0", "0", "1"}, 3ull << 40, 512, false},
              {{"capacity", "0", "0", "0x412c"}, 1ull << 30, 4096, nullptr}};
    for (const auto& asked : cases) {
        Words arguments = asked.arguments;
        arguments.emplace_back("--json");
        const json document = tool(arguments).document();
        EXPECT_EQ(document["capacity_bytes"], asked.bytes);
        EXPECT_EQ(document["block_size"], asked.block_size);
        EXPECT_EQ(document["blocks"], asked.bytes / asked.block_size);
        EXPECT_EQ(document["thin_provisioned"], asked.thin);
    }
    EXPECT_THAT(tool({"capacity", "0", "0", "9"}).err, HasSubstr("logical unit not supported"));
}

}  // namespace
