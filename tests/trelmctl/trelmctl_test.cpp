// trelmctl_test.cpp - the command-line tool as people and scripts meet it: the real tool, started by the real
// launcher on hosts that are described here, read by its exit status, its text and its JSON.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "model.h"
#include "support/programs.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using namespace trelm::test;

const std::string kTool = binary_dir() + "/bin/trelmctl";

class Trelmctl : public Programs {
  protected:
    static Words on_file(const std::string& host_file, const std::string& arguments) {
        return Words{kLauncher, "run", host_file, "--", kTool} + words_of(arguments);
    }
    Words on_host(const std::string& arguments) const {
        write("host.json", host.dump());
        return on_file(at("host.json"), arguments);
    }
    Outcome tool(const std::string& arguments) const { return execute(on_host(arguments)); }
    json document(const std::string& arguments) const { return json::parse(tool("--json " + arguments).out); }
    Outcome on_sample(const std::string& name, const std::string& arguments) const {
        return execute(on_file(source_dir() + "/hostsim/hosts/" + name, arguments));
    }
    json& port() { return host["adapters"][0]["ports"][0]; }

    // Two ports; the first with a virtual port that comes before it in NPIV indexes, and two targets with a
    // gap.
    json host = json::parse(R"({"name": "tool-host", "adapters": [{"driver": "kron",
 "model": "Ulvard 8042", "firmware_version": "8.37.30.0", "management_firmware": "08.37.30.00",
 "pci": {"address": "0001:3b:02", "vendor_id": "0x1077", "device_id": "0x8080", "speed": "8 GT/s", "width": 8},
 "ports": [
   {"name": "a", "npiv_index": 3, "hba_name": "vmhba7", "port_id": "0x010200", "vlan": 20,
    "wwnn": "20:00:00:c0:5a:00:00:01", "wwpn": "20:01:00:c0:5a:00:00:01",
    "supported_speed": ["1 Gbit", "10 Gbit"], "counters": {"tx_fcoe_frames": {"start": 7, "rate": 1000000}},
    "fcfs": [{"switch_name": "20:64:00:c0:5a:00:00:01", "fabric_name": "10:00:00:c0:5a:00:00:01",
              "fcf_mac": "00:c0:5a:0f:00:01"}],
    "targets": [
      {"index": 0, "wwnn": "50:00:00:c0:5a:00:00:10", "wwpn": "50:00:00:c0:5a:00:00:11", "port_id": "0x010600",
       "luns": [{"number": 0, "capacity": "64 GiB", "serial_number": "SER0"},
                {"number": 1, "capacity": "3 TiB", "product": "BIG\u001b[31m"},
                {"number": 300, "capacity": "1 GiB", "block_size": 4096}]},
      {"index": 5, "wwnn": "50:00:00:c0:5a:00:00:10", "wwpn": "50:00:00:c0:5a:00:00:12",
       "luns": [{"number": 2, "capacity": "1536 MiB"}]}],
    "virtual_ports": [{"npiv_index": 1, "wwnn": "28:00:00:c0:5a:00:00:01", "wwpn": "28:01:00:c0:5a:00:00:01"}]},
   {"name": "b", "function": 1, "wwnn": "20:00:00:c0:5a:00:00:02", "wwpn": "20:01:00:c0:5a:00:00:02",
    "link": "link_down", "speed": "unknown"}]}]})");
};

TEST_F(Trelmctl, PrintsAlignedTextAndDrawsTheTreeInTheCharactersOfTheLocale) {
    const auto expect = [this](const char* arguments, const std::string& expected) {
        const Outcome outcome = execute(Words{"/usr/bin/env", "LC_ALL=C"} + on_host(arguments));
        EXPECT_EQ("\n" + outcome.out, expected);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
    };
    expect("list", R"(
PORT  STATE      WWPN                         SPEED  MODEL        DRIVER  PCI           VPORTS  TARGETS
   0  online     20:01:00:c0:5a:00:00:01  10 Gbit/s  Ulvard 8042  kronfc  0001:3b:02.0       1        2
   1  link down  20:01:00:c0:5a:00:00:02    unknown  Ulvard 8042  kronfc  0001:3b:02.1       0        0
)");
    expect("scsi 0 5 2 12 00 00 00 24 00 --in 40", R"(
00000000  00 00 06 12 5b 00 00 02  43 41 4c 56 45 58 41 20  |....[...CALVEXA |
00000010  55 4c 56 41 52 44 20 56  4f 4c 55 4d 45 20 20 20  |ULVARD VOLUME   |
00000020  30 35 30 30 00 00 00 00                           |0500....|
)");
    expect("tree", R"(
port 0  vmhba7  20:01:00:c0:5a:00:00:01  online  10 Gbit/s  Ulvard 8042
|-- target  0  50:00:00:c0:5a:00:00:11  online
|   |-- LUN       0  disk  CALVEXA  ULVARD VOLUME  0500  64 GiB
|   |-- LUN       1  disk  CALVEXA  BIG\x1b[31m    0500   3 TiB
|   `-- LUN  0x412c  disk  CALVEXA  ULVARD VOLUME  0500   1 GiB
|-- target  5  50:00:00:c0:5a:00:00:12  online
|   `-- LUN  2  disk  CALVEXA  ULVARD VOLUME  0500  1.5 GiB
`-- virtual port 0/1  vmhba3  28:01:00:c0:5a:00:00:01  online  10 Gbit/s
port 1  vmhba4  20:01:00:c0:5a:00:00:02  link down  unknown  Ulvard 8042
)");
    EXPECT_THAT(execute(Words{"/usr/bin/env", "LC_ALL=C.UTF-8"} + on_host("tree")).out,
                HasSubstr("\n│   └── LUN  0x412c"));
}

// What JSON documents hold: whole, or at a place.
TEST_F(Trelmctl, SpeaksJsonWithRawValuesBesideWordedOnes) {
    const struct {
        const char *arguments, *place, *expected;
    } rows[]{
        {"list", "/ports/0", R"({"instance": 0, "npiv_index": 3, "state": "online", "state_raw": 8,
          "wwpn": "20:01:00:c0:5a:00:00:01", "speed": "10 Gbit/s", "speed_raw": 4, "model": "Ulvard 8042",
          "driver": "kronfc", "pci_address": "0001:3b:02.0", "virtual_ports": 1, "targets": 2,
          "error": null})"},
        {"show 0", "", R"({"format_version": 1, "port": {"instance": 0, "npiv_index": 3, "hba_name": "vmhba7",
          "port_type": "physical", "port_type_raw": 0, "state": "online", "state_raw": 8,
          "speed": "10 Gbit/s", "speed_raw": 4, "supported_speeds": "1, 10 Gbit/s", "supported_speeds_raw": 5,
          "wwpn": "20:01:00:c0:5a:00:00:01", "wwnn": "20:00:00:c0:5a:00:00:01",
          "parent_wwpn": "20:01:00:c0:5a:00:00:01", "port_fcid": "0x010200", "port_fcid_raw": 66048,
          "targets": 2, "fcf_count": 1, "npiv_indexes": [1, 3]},
          "fabric": {"fabric_name": "10:00:00:c0:5a:00:00:01", "switch_name": "20:64:00:c0:5a:00:00:01",
          "fcf_mac": "00:c0:5a:0f:00:01", "fc_map": "0x0efc00", "fc_map_raw": 982016, "fabric_vlan": 20,
          "fabric_priority": 128, "keep_alive_timeout": 8000}, "adapter": {"model": "Ulvard 8042",
          "description": "Calvexa Ulvard 8042", "physical_port_number": 1, "wwpn": "20:01:00:c0:5a:00:00:01",
          "wwnn": "20:00:00:c0:5a:00:00:01", "mac": "00:c0:5a:00:00:01", "mtu": 2500, "vlan": 20,
          "virtual_ports": 1, "media_type": 4, "firmware_version": "8.37.30.0",
          "management_firmware_version": "08.37.30.00"}, "driver": {"name": "kronfc", "version": "1.0.24.0",
          "date": "Mar 12 2019", "loaded": "yes", "loaded_raw": 1}, "pci": {"address": "0001:3b:02.0",
          "vendor_id": "0x1077", "vendor_id_raw": 4215, "device_id": "0x8080", "device_id_raw": 32896,
          "subsystem_vendor_id": "0x0000", "subsystem_vendor_id_raw": 0, "subsystem_id": "0x0000",
          "subsystem_id_raw": 0, "revision": "0x0000", "revision_raw": 0, "chip_revision": 0,
          "link": "8.0 GT/s x8", "link_raw": {"speed": 80, "width": 6}}})"},
        {"show 200100C05A000001/3", "/port/port_type", "\"physical\""},
        {"luns 0 0", "/luns/2",
         R"({"lun": 16684, "lun_text": "0x412c", "scsi_lun_num": 16684, "scsi_lun_num_ext": 0,
          "device_type": "disk", "device_type_raw": 0, "vendor": "CALVEXA", "product": "ULVARD VOLUME",
          "revision": "0500", "capacity": "1 GiB", "capacity_bytes": 1073741824, "error": null})"},
        {"capacity 0 5 2", "", R"({"format_version": 1, "instance": 0, "npiv_index": 3, "target": 5, "lun": 2,
          "lun_text": "2", "capacity": "1.5 GiB", "capacity_bytes": 1610612736, "blocks": 3145728,
          "last_block": 3145727, "block_size": 512, "blocks_per_physical_block": null,
          "thin_provisioned": null})"},
        {"inquiry 0 0 0 --page 83", "/designators",
         R"([{"type": "NAA", "type_raw": 3, "association": "logical unit", "association_raw": 0,
          "value": "30c05a0000110000"}, {"type": "T10 vendor id", "type_raw": 1,
          "association": "logical unit", "association_raw": 0, "value": "CALVEXA ULVARD VOLUME   SER0"}])"},
        {"inquiry 0 0 0 --page b1", "/page", "\"0xb1\""},
        {"scsi 0 0 0 ff0000000000", "",
         R"x({"format_version": 1, "instance": 0, "npiv_index": 3, "target": 0, "lun": 0, "lun_text": "0",
          "cdb": "ff0000000000", "data": null, "sense": {"key": "Illegal request", "key_raw": 5,
          "additional": "invalid command operation code", "asc_raw": 32, "ascq_raw": 0, "deferred": false,
          "bytes": "700005000000000a00000000200000000000"}, "error": {"code": null, "name": "CHECK_CONDITION",
          "advice": null, "operation": "TRELM_SendScsiCommand",
          "meaning": "target 0 LUN 0 refused the command: Illegal request: invalid command operation code (05/20/00)",
          "port": "0/3", "exit_status": 1}})x"}};
    for (const auto& [arguments, place, expected] : rows)
        EXPECT_EQ(document(arguments)[json::json_pointer(place)], json::parse(expected)) << arguments;
    EXPECT_EQ(tool("--json list").out, tool("list --json").out);
}

TEST_F(Trelmctl, TellsEachErrorInTheFormAskedForAndByItsExitStatus) {
    const struct {
        const char* arguments;
        int status;
        const char* message;
    } rows[]{{"stats 0/2", 1, "0x60000001"},
             {"stats 7", 1, "TRELM_OpenAdapter"},
             {"capacity 0 0 9", 1, "target 0 LUN 9 refused the command: Illegal request"},
             {"scsi 0 0 0 28 00 ff ff ff f0 00 00 01 00 --in 512", 1, "(05/21/00)"},
             {"", 2, "no command was given"},
             {"show 0/-1", 2, "an instance number or a WWPN"},
             {"luns 0 128", 2, "TARGET"},
             {"scsi 0 0 0 00112233445566778899aabbccddeeff00", 2, "at most 16 bytes"},
             {"scsi 0 0 0 00 --raw", 2, "--raw requires --in"},
             {"stats 0 --watch 0", 2, "from 0.01 to 86400 seconds"},
             {"scsi 0 0 0 00 --in", 2, "--in requires a value"},
             {"list --json=1", 2, "--json takes no value"},
             {"luns 0 \xff", 2, R"(TARGET "\xff" is not valid)"},
             {"list \xff", 2, R"("\xff" is one too many)"},
             {"scsi 0 0 0 00 --out \xff", 1, R"(\xff: No such file)"}};
    for (const auto& [arguments, status, message] : rows) {
        const Outcome text = tool(arguments);
        EXPECT_EQ(text.status, status) << arguments;
        EXPECT_THAT(text.errors, HasSubstr(message)) << arguments;
        const json error = document(arguments)["error"];
        EXPECT_EQ(error["exit_status"], status) << arguments;
        EXPECT_THAT(error["meaning"].get<std::string>() + error.dump(), HasSubstr(message)) << arguments;
    }
    EXPECT_EQ(tool("stats 0 --watch 1 --json").status, 2) << "a document has an end";
    EXPECT_EQ(on_sample("empty.json", "list").status, 3);
    write("bare.json", R"({"name": "no-driver", "adapters": []})");
    EXPECT_EQ(execute(on_file(at("bare.json"), "list")).status, 3);
    EXPECT_THAT(on_sample("empty.json", "show 0").errors, HasSubstr("no FCoE port was found"));
    EXPECT_THAT(execute({kTool, "list"}).errors, HasSubstr("trelm-hostsim run HOST.json -- trelmctl list"));
    EXPECT_EQ(execute({kTool, "version"}).status, 0) << "the version needs no host";
    host["effective_user"] = 1000;
    EXPECT_THAT(tool("list").errors, HasSubstr("run trelmctl as root"));
}

TEST_F(Trelmctl, EndsWithADocumentedStatusWhateverItsStandardStreamsAre) {
    const auto expect = [this](const std::string& script, int status, const std::string& errors) {
        write("host.json", host.dump());
        const Outcome outcome = execute({kLauncher, "run", at("host.json"), "--", "/bin/sh", "-c",
                                         "cd \"$1\"; tool=$0; " + script, kTool, at("")});
        EXPECT_EQ(outcome.status, status) << script;
        EXPECT_THAT("|" + outcome.errors,
                    errors.empty() ? testing::Matcher<std::string>("|") : HasSubstr(errors))
            << script;
    };
    expect("$tool list --json >/dev/full", 1, "No space left on device");
    expect("$tool --help >/dev/full", 1, "No space left on device");
    expect("$tool list >&- 2>&-", 1, "");
    expect("$tool show 2>/dev/full", 2, "");
    expect("$tool show 2>&-", 2, "");
    expect("mkfifo pipe; exec 3<>pipe 4>pipe 3<&-; $tool tree >&4", 1, "");
    // Its text must not go to the file that the library opens next.
    expect("$tool tree <&- >&-", 1, "Bad file descriptor");
    expect("$tool tree <&- >&- 2>&-", 1, "");
}

TEST_F(Trelmctl, WhatFailsHidesNothingElse) {
    const auto expect = [this](const char* arguments, const char* faults, const std::string& out,
                               const char* error) {
        host["faults"] = json::parse(faults);
        const Outcome outcome = tool(arguments);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT("\n" + outcome.out, HasSubstr(out));
        EXPECT_THAT(outcome.errors, HasSubstr(error));
    };
    expect("list",
           R"([{"operation": "port_info", "port": "a", "status": 6, "occurrence": 2, "count": "always"}])",
           R"(
   0  failed     20:01:00:c0:5a:00:00:01        -  Ulvard 8042  kronfc  0001:3b:02.0       1        -
   1  link down  20:01:00:c0:5a:00:00:02  unknown  Ulvard 8042  kronfc  0001:3b:02.1       0        0
)",
           "port 0/3: TRELM_GetVNPortInfo failed with 0x60000006 (DRIVER_STATUS_6)");
    // The second INQUIRY ends the library's listing; the third, of the first LUN asked alone, fails again.
    expect("luns 0 0",
           R"([{"operation": "scsi", "opcode": "0x12", "status": 9, "occurrence": 2, "count": 2}])", R"(
     0  disk                                       -
     1  disk  CALVEXA  BIG\x1b[31m    0500     3 TiB
0x412c  disk  CALVEXA  ULVARD VOLUME  0500     1 GiB
)",
           "0x60000009");
    port()["targets"][0]["luns"][1]["not_ready"] = true;
    expect("tree",
           R"([{"operation": "scsi", "target": 5, "opcode": "0x12", "errno": "EIO", "count": "always"}])",
           "[failed: the driver failed the request without a known status (0x6000000B)]",
           "target 0 LUN 1 refused the command: Not ready");
}

TEST_F(Trelmctl, ShowsEveryCounterWholeAndWatchesRates) {
    json& counters = port()["virtual_ports"][0]["counters"];
    for (size_t i = 0; i < hostsim::kCounters; ++i)
        counters[hostsim::kCounterNames[i].data()] = UINT64_MAX - i;
    json document = this->document("stats 0/1");
    for (json& group : document) {
        if (!group.is_object()) continue;
        for (json& value : group) value = UINT64_MAX - value.get<uint64_t>();
    }
    EXPECT_EQ(document, json::parse(R"({"format_version": 1, "instance": 0, "npiv_index": 1,
          "frames": {"rx_fcoe_frames": 0, "rx_fcoe_bytes": 1, "rx_fcp_frames": 2, "tx_fcoe_frames": 3,
          "tx_fcoe_bytes": 4, "tx_fcp_frames": 5}, "requests": {"read_requests": 13, "write_requests": 14,
          "control_requests": 15, "read_megabytes": 16, "write_megabytes": 17},
          "fabric": {"fip_vlan_negotiations": 18, "fip_fabric_discoveries": 19, "flogi_count": 20,
          "fdisc_count": 21}, "errors": {"fcoe_dropped_frames": 6, "sequences_dropped": 7,
          "fc_crc_error_frames": 8, "wrong_fcoe_version_frames": 9, "eofa_frames": 10, "missing_frames": 11,
          "sequence_timeouts": 12, "link_failures": 29}, "recovery": {"ulp_tov_expirations": 22,
          "rec_expirations": 23, "abts_count": 24, "srr_count": 25, "reset_lun_count": 26,
          "reset_target_count": 27, "session_level_recovery_count": 28}})"));

    const json samples = this->document("stats 0 --watch 0.05 --count 2")["samples"];
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_GT(samples[1]["rates_per_second"]["tx_fcoe_frames"], 0);
    const std::string lines = tool("stats 0 --watch 0.05 --count 3").out;
    EXPECT_EQ(std::ranges::count(lines, '\n'), 4)
        << "one line of titles, one a sample, none rewritten in a pipe";
}

TEST_F(Trelmctl, WhatIsWrittenIsReadAgain) {
    std::string block(1024, '\0');
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 7);
    write("block", block);
    write("host.json", host.dump());
    // One launch for both commands: what a simulated host keeps in memory ends with it. It keeps a tebibyte a
    // file, so these blocks lie in two.
    const Outcome outcome =
        execute({kLauncher, "run", at("host.json"), "--", "/bin/sh", "-c",
                 "\"$0\" scsi 0 0 1 8a00 000000007fffffff 00000002 0000 --out \"$1\" > \"$1.told\" && "
                 "\"$0\" scsi 0 0 1 8800 000000007fffffff 00000002 0000 --in 1024 --raw",
                 kTool, at("block")});
    EXPECT_EQ(outcome.out, block) << outcome.errors;
    EXPECT_EQ(text_of(at("block.told")), "Done, without sense data.\n");
}

TEST_F(Trelmctl, ListsALegacyHostAndAsManyLunsAsATargetCanHave) {
    EXPECT_EQ("\n" + on_sample("legacy.json", "list").out, R"(
PORT  STATE      WWPN                         SPEED  MODEL                DRIVER  PCI           VPORTS  TARGETS
   0  online     20:01:02:ca:1e:02:01:00  10 Gbit/s  Calvexa Ulvard 2010  dorfc   0000:04:00.0       2        2
   1  link down  20:01:02:ca:1e:02:01:01    unknown  Calvexa Ulvard 2010  dorfc   0000:04:00.1       1        0
)");
    // Every sample host is sound, and its ports are listed.
    for (const auto& file : std::filesystem::directory_iterator(source_dir() + "/hostsim/hosts")) {
        const Outcome sound = execute({kLauncher, "check", file.path()});
        EXPECT_EQ(sound.status, 0) << sound.errors;
        const bool empty = file.path().stem() == "empty";
        const json list = json::parse(on_sample(file.path().filename(), "list --json").out);
        EXPECT_EQ(list.contains("ports"), !empty) << list;
    }
    port()["targets"][0]["luns"] = {{{"number", 0}, {"count", 2047}, {"capacity", "1 GiB"}}};
    const std::string luns = tool("luns 0 0").out;
    EXPECT_EQ(std::ranges::count(luns, '\n'), 2048);
    EXPECT_THAT(luns, testing::EndsWith("\n0x47fe  disk  CALVEXA  ULVARD VOLUME  0500     1 GiB\n"));
}

}  // namespace
