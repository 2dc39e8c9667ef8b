// host_file_test.cpp - host files: their contents arrive in the model, and every mistake is reported with its
// place.
#include "host_file.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "host.h"
#include "host_schema.h"
#include "support/programs.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using namespace trelm::test;

// The report for a host file with this text: warnings or mistakes.
std::string report_on(const std::string& text) {
    std::vector<std::string> warnings;
    try {
        hostsim::parse_host(text, "host.json", "/base", &warnings);
    } catch (const hostsim::HostError& error) {
        return error.what();
    }
    std::string all;
    for (const std::string& warning : warnings) all += (all.empty() ? "warning: " : "\nwarning: ") + warning;
    return all.empty() ? "sound" : all;
}

// A valid host with one object of each kind, which tests change at one place.
const char kSound[] = R"({ // with a comment
  "drivers": {"kron": {"order": ["a", "28:00:00:00:00:00:00:02"]}, "legacy": {"state": "no_device"}},
  "adapters": [{"driver": "kron", "management_firmware": "08.37.30.00",
  "pci": {"address": "0001:3b:1f", "vendor_id": "0x1077", "device_id": 32896, "speed": "5 GT/s", "width": 4},
  "ports": [{"name": "a", "wwnn": "20:00:00:00:00:00:00:01", "wwpn": "20:00:00:00:00:00:00:02", "function": 3,
    "supported_speed": ["1 Gbit", "10 Gbit"], "speed": "40 Gbit", "link": "link_down", "host_no": 7, "port_type": "other",
    "counters": {"rx_fcoe_frames": 5, "link_failures": {"start": 18446744073709551615, "rate": 0.5}},
    "fcfs": [{"switch_name": "20:00:00:00:00:00:00:03", "fabric_name": "10:00:00:00:00:00:00:03",
              "fcf_mac": "02:00:00:00:00:01"}],
    "targets": [{"index": 127, "wwnn": "50:00:00:00:00:00:00:01", "wwpn": "50:00:00:00:00:00:00:02",
      "luns": [{"number": 0, "capacity": "2 TiB"}, {"number": 300, "count": 3000, "capacity": 1048576},
               {"number": 256, "block_count": 100, "backing": "file", "directory": "disks/a"},
               {"number": 257, "block_count": 9, "naa": "60:00:00:00:00:00:00:03"}]}],
    "virtual_ports": [{"wwnn": "28:00:00:00:00:00:00:01", "wwpn": "28:00:00:00:00:00:00:02"}]}]}],
  "faults": [{"operation": "scsi", "target": 127, "opcode": "0x28", "count": "always", "errno": "EIO"}]})";

TEST(HostFile, ArrivesInTheModel) {
    const hostsim::Model model = hostsim::parse_host(kSound, "host.json", "/base");
    const hostsim::Adapter& adapter = model.adapters.at(0);
    const hostsim::PhysicalPort& port = adapter.ports.at(0);
    const auto& luns = port.targets.at(0).luns;
    const hostsim::Fault& fault = model.faults.at(0);
    EXPECT_EQ(model.driver(hostsim::DriverKind::legacy).presence, hostsim::Driver::Presence::no_device);
    EXPECT_EQ(std::tuple(adapter.pci_domain, adapter.pci_bus, adapter.pci_device, adapter.device_id),
              std::tuple(1, 0x3b, 0x1f, 0x8080));
    EXPECT_EQ(adapter.management_firmware, 0x08251E00u);
    EXPECT_EQ(std::tuple(port.supported_speed, port.speed, port.link_state, port.host_no, port.port_type),
              std::tuple(5, 0x100, 7u, 7u, 1));
    EXPECT_EQ(port.fcfs.at(0).fcf_mac, (hostsim::MacAddress{2, 0, 0, 0, 0, 1}));
    EXPECT_EQ(std::tuple(port.counters[29].start, port.counters[29].rate), std::tuple(UINT64_MAX, 0.5));
    EXPECT_EQ(std::tuple(luns.at(0).block_count, luns.at(1).block_count),
              std::tuple(uint64_t{1} << 32, 2048u));
    EXPECT_EQ(luns.at(2).directory, "/base/disks/a") << "relative to the host file";
    EXPECT_EQ(std::tuple(fault.opcode, fault.count, fault.error),
              std::tuple(0x28, hostsim::Fault::kAlways, EIO));
}

// The valid host with the value at a JSON pointer changed or removed.
std::string changed(const std::string& place, const std::string& value) {
    json host = json::parse(kSound, nullptr, true, true);
    const json::json_pointer pointer(place);
    if (value == "nothing")
        host[pointer.parent_pointer()].erase(pointer.back());
    else
        host[pointer] = json::parse(value);
    return host.dump();
}

// Each line "JSON-POINTER = VALUE" of the file is a change, followed by the report for it.
TEST(HostFile, ReportsEachMistakeWithItsPlaceAndWhatIsAllowed) {
    const std::string expected = text_of(source_dir() + "/tests/hostsim/host_file_mistakes.txt");
    std::istringstream lines(expected);
    std::string actual;
    for (std::string line; std::getline(lines, line);) {
        const size_t sign = line.find(" = ");
        if (line.starts_with(' ') || sign == std::string::npos) continue;
        const std::string report = report_on(changed(line.substr(0, sign), line.substr(sign + 3)));
        const std::string placeless = Pattern("host.json:1:\\d+: ").replaced_in(report, "");
        actual += line + "\n  " + Pattern("\n").replaced_in(placeless, "\n  ") + "\n";
    }
    EXPECT_EQ(actual, expected);
}

TEST(HostFile, ReportsLineAndColumnInItsOwnWords) {
    EXPECT_EQ(report_on(kSound), "sound");
    const std::string deep(100'000, '[');
    const std::pair<std::string, std::string> rows[]{
        {"{\n  \"adapters\": [],\n  \"name\" \"h\"\n}",
         "3:12: this is not expected here; \"name\" needs a \":\" and a value"},
        {"{\"adapters\": []", "1:16: the file ends here; \"}\" or \",\" and a key in quotes is allowed"},
        {"{\"adapters\": [],\n }", "2:2: this is not expected here; a key in quotes must follow the \",\""},
        {"{\"adapters\": [1 2", "1:17: this is not expected here; \"]\" or \",\" and a value is allowed"},
        {"{]", "1:2: this is not expected here; \"}\" or a key in quotes is allowed"},
        {"[}", "1:2: this is not expected here; \"]\" or a value is allowed"},
        {"", "1:1: the file ends here; a host file is an object {…}"},
        {"{} {}", "1:4: this is not expected here; nothing may follow the host"},
        {"5", "1:1: a host file is an object {…}"},
        {"{\"name\": \"a\nb\"}",
         "1:12: control characters, bytes that are not UTF-8 and unknown escapes are not "
         "allowed in a text; \\n, \\t, \\\", \\\\ and \\u0000 to \\uffff are"},
        {"{ / }", "1:4: this is no comment; \"// …\" and \"/* … */\" are allowed"},
        {"{\"adapters\":\n [1e999]}", "2:3: 1e999 is out of range, a number below 1.8e308 is allowed"},
        {"{\"name\": " + deep, "1:41: the nesting is too deep, 32 levels are allowed"},
        {"{\"adapters\": [], \"\\\"\\\\\": 1,\n \"\\\"\\\\\": 1}", "2:2: duplicate key \"\"\\\""},
        {"{\"adapters\": [],\n  \"name\": 5}", "2:11: /name: 5 is not allowed here; a text \"…\" is allowed"},
        {"{\"adapters\": [],\n \"ad\\u001b[1m\xc2\x9b\": 5}",
         "2:2: /ad\\x1b[1m\\xc2\\x9b: this key is not known here; allowed are name, system_name, release, "
         "version, machine, "
         "effective_user, drivers, adapters and faults"},
        {"{\"adapters\": [],\n \"mac\": [true, null, -1], \"name\": [",
         "2:36: the file ends here; \"]\" or a value is allowed"},
    };
    for (const auto& [text, report] : rows)
        EXPECT_THAT(report_on(text), testing::StartsWith("host.json:" + report));
}

TEST(HostFile, ShowsTenMistakesAndCutsWhatIsLong) {
    json host = {{"adapters", json::array()}};
    for (int i = 0; i < 12; ++i) host["adapters"].push_back(std::string(100, 'x'));
    const std::string report = report_on(host.dump(1));
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 10);
    EXPECT_THAT(report, HasSubstr("host.json:12:3: /adapters/9: "));
    EXPECT_THAT(report, testing::EndsWith("\nhost.json: there are more mistakes"));
    EXPECT_EQ(report_on(R"({"adapters": [], "name": )" + std::string(100, '7') + "}"),
              "host.json:1:26: /name: 7777777777777777777777777777777777777777… is not allowed here; a text "
              "\"…\" is allowed");
}

TEST(HostFile, SchemaIsMadeFromTheTablesOfTheReader) {
    EXPECT_EQ(hostsim::host_schema(), text_of(source_dir() + "/hostsim/hostfile/host.schema.json"));
}

}  // namespace
