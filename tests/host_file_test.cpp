// host_file_test.cpp - host files: what they describe arrives in the model, and every mistake is told with
// its place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host.h"
#include "host_file.h"
#include "values.h"

namespace {

using hostsim::Model;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

Model parse(const std::string& text) { return hostsim::parse_host(text, "host.json", "/base"); }

template <typename Read>
std::string mistake(const Read& read) {
    try {
        read();
    } catch (const hostsim::HostError& error) {
        return error.what();
    }
    return "no mistake";
}
std::string mistake_in(const std::string& text) {
    return mistake([&] { parse(text); });
}

// A sound host with one of everything, to be changed at one place.
json sound() {
    return json::parse(R"({
        "name": "h",
        "drivers": {"kron": {"version": "1.2", "order": ["a", "28:00:00:00:00:00:00:02"]}, "legacy": {"state": "no_device"}},
        "adapters": [{
            "driver": "kron",
            "pci": {"address": "0001:3b:1f", "vendor_id": "0x1077", "device_id": 32896, "speed": "5 GT/s", "width": 4},
            "management_firmware": "08.37.30.00",
            "ports": [{
                "name": "a", "wwnn": "20:00:00:00:00:00:00:01", "wwpn": "20:00:00:00:00:00:00:02", "function": 3,
                "supported_speed": ["1 Gbit", "10 Gbit"], "speed": "40 Gbit", "link": "link_down", "host_no": 7,
                "counters": {"rx_fcoe_frames": 5, "link_failures": {"start": 18446744073709551615, "rate": 0.5}},
                "fcfs": [{"switch_name": "20:00:00:00:00:00:00:03", "fabric_name": "10:00:00:00:00:00:00:03",
                          "fcf_mac": "02:00:00:00:00:01"}],
                "targets": [{"index": 127, "wwnn": "50:00:00:00:00:00:00:01", "wwpn": "50:00:00:00:00:00:00:02",
                             "luns": [{"number": 0, "capacity": "2 TiB"},
                                      {"number": 256, "block_count": 100, "block_size": 4096, "backing": "file",
                                       "directory": "disks/a"},
                                      {"number": 300, "count": 3000, "capacity": 1048576}]}],
                "virtual_ports": [{"wwnn": "28:00:00:00:00:00:00:01", "wwpn": "28:00:00:00:00:00:00:02"}]
            }]
        }],
        "faults": [{"operation": "scsi", "port": "a", "target": 127, "opcode": "0x28", "occurrence": 3, "count": "always",
                    "errno": "EIO"}]
    })");
}

TEST(HostFile, ArrivesInTheModel) {
    const Model model = parse("// with a comment\n" + sound().dump() + "/* and another */");
    EXPECT_EQ(model.driver(hostsim::DriverKind::legacy).presence, hostsim::Driver::Presence::no_device);
    const hostsim::Adapter& adapter = model.adapters.at(0);
    EXPECT_EQ(adapter.pci_domain, 1);
    EXPECT_EQ(adapter.pci_bus, 0x3b);
    EXPECT_EQ(adapter.pci_device, 0x1f);
    EXPECT_EQ(adapter.device_id, 0x8080);
    EXPECT_EQ(adapter.pcie_speed, 21u);
    EXPECT_EQ(adapter.management_firmware, 0x08251E00u);
    const hostsim::PhysicalPort& port = adapter.ports.at(0);
    EXPECT_EQ(port.wwpn, 0x2000000000000002u);
    EXPECT_EQ(port.pci_function, 3);
    EXPECT_EQ(port.supported_speed, 5);
    EXPECT_EQ(port.speed, 0x100);
    EXPECT_EQ(port.link_state, 7u);
    EXPECT_EQ(port.host_no, 7u);
    EXPECT_EQ(port.counters[0].start, 5u);
    EXPECT_EQ(port.counters[29].start, UINT64_MAX);
    EXPECT_EQ(port.counters[29].rate, 0.5);
    EXPECT_EQ(port.fcfs.at(0).fcf_mac[0], 2);
    EXPECT_EQ(port.virtual_ports.at(0).wwpn, 0x2800000000000002u);
    const auto& luns = port.targets.at(0).luns;
    EXPECT_EQ(luns.at(0).block_count, uint64_t{1} << 32);
    EXPECT_EQ(luns.at(1).block_count, 100u);
    EXPECT_EQ(luns.at(1).directory, "/base/disks/a") << "relative to the host file";
    EXPECT_EQ(luns.at(2).count, 3000u);
    const hostsim::Fault& fault = model.faults.at(0);
    EXPECT_EQ(fault.operation, hostsim::Operation::scsi);
    EXPECT_EQ(fault.opcode, 0x28);
    EXPECT_EQ(fault.count, hostsim::Fault::kAlways);
    EXPECT_EQ(fault.error, EIO);
}

// Where the sound host is changed, to what JSON, and what is told; the place told where it is another one.
// A stands for the adapter, P for its port, L for the LUNs of the port's target.
struct Mistake {
    std::string pointer, value, reason, place = pointer;
};

std::string whole(const std::string& place) {
    const std::map<char, std::string> starts{
        {'A', "/adapters/0/"}, {'P', "/adapters/0/ports/0/"}, {'L', "/adapters/0/ports/0/targets/0/luns/"}};
    const auto start = starts.find(place[0]);
    return start == starts.end() ? place : start->second + place.substr(1);
}

TEST(HostFile, TellsEachMistakeWithItsPlaceAndWhatIsAllowed) {
    const std::vector<Mistake> mistakes{
        {"/colour", "1", "not known here; allowed are name, system_name"},
        {"/adapters", "{}", "a list"},
        {"/adapters/0", "[]", "an object"},
        {"/name", "5", "a text"},
        {"Ptargets/0/offline", "1", "true or false"},
        {"Apci", "{}", "\"address\" is missing"},
        {"/effective_user", "-1", "0 to 4294967295"},
        {"/effective_user", "1.5", "0 to 4294967295"},
        {"Apci/device_id", "65536", "65535"},
        {"Apci/device_id", "\"0xG\"", "whole number"},
        {"Pfunction", "8", "0 to 7"},
        {"Pvlan", "4095", "4094"},
        {"Pcounters/read_req", "{\"rate\": -1}", "0 to 1e15", "Pcounters/read_req/rate"},
        {"Pcounters/reads", "1", "rx_fcoe_frames"},
        {"Pwwpn", "\"20:00:00:00:00:00:00\"", "eight bytes"},
        {"Pwwpn", "\"00:00:00:00:00:00:00:00\"", "eight bytes"},
        {"Pmac", "\"02:00:00:00:00:0g\"", "six bytes"},
        {"Pmac", "\"02-00-00-00-00-01\"", "six bytes"},
        {"Plink", "\"up\"", "\"link_down\""},
        {"Pspeed", "\"3 Gbit\"", "\"10 Gbit\""},
        {"Adriver", "\"nfs\"", "\"kron\", \"pyx\" and \"legacy\""},
        {"Apci/address", "\"00:3b:00.0\"", "0000:3b:00"},
        {"Amanagement_firmware", "\"8.37.256.0\"", "four numbers"},
        {"L0/capacity", "\"2 TiBs\"", "2 TiB"},
        {"L0/capacity", "\"99999999 EiB\"", "no size"},
        {"L0/capacity", "1000", "blocks of 512"},
        {"L0/block_count", "1", "either", "L0"},
        {"L0/block_size", "520", "520", "L0/capacity"},
        {"L1/block_size", "520", "512 and 4096"},
        {"L1/addressing", "\"peripheral\"", "255", "L1/number"},
        {"L0/directory", "\"x\"", "\"file\""},
        {"Ptargets/0/index", "128", "0 to 127"},
        {"Amodel", "\"123456789012345678901234567890123\"", "33 bytes, at most 32"},
        {"/drivers/kron/name", "\"12345678901234567\"", "at most 16"},
        {"L0/vendor", "\"123456789\"", "at most 8"},
        {"/name", "\"a\\u0000b\"", "zero byte"},
        {"Pvirtual_ports/0/wwpn", "\"20:00:00:00:00:00:00:02\"", "taken by /adapters/0/ports/0,"},
        {"Pvirtual_ports/0/host_no", "7", "taken by"},
        {"Pvirtual_ports/0/name", "\"a\"", "taken by"},
        {"Pvirtual_ports/0/npiv_index", "0", "taken by"},
        {"L2/number", "255", "LUN 256 stands twice"},
        {"L2/count", "16384", "16383", "L2/number"},
        {"L2/naa", "\"50:00:00:00:00:00:00:09\"", "3000"},
        {"/drivers/kron/order/0", "\"b\"", "no port \"b\""},
        {"/drivers/kron/order/0", "\"28:00:00:00:00:00:00:02\"", "stands twice", "/drivers/kron/order/1"},
        {"/drivers/pyx", "{\"state\": \"no_device\"}", "only the legacy driver", "/drivers/pyx/state"},
        {"/faults/0/port", "\"b\"", "no port \"b\""},
        {"/faults/0/operation", "\"format\"", "\"port_info\""},
        {"/faults/0/operation", "\"port_info\"", "only \"tgt_info\" and \"scsi\"", "/faults/0/target"},
        {"/faults/0", "{\"operation\": \"port_info\"}", "\"status\""},
        {"/faults/0", "{\"operation\": \"open\", \"status\": 3}", "\"errno\" only", "/faults/0/status"},
        {"/faults/0", "{\"operation\": \"init\", \"driver\": \"legacy\", \"status\": 3}", "legacy",
         "/faults/0/driver"},
        {"/faults/0/errno", "\"EOOPS\"", "\"EIO\""},
        {"/faults/0/status", "0", "1 to"},
        {"/faults/0/occurrence", "0", "1 to"},
        {"/faults/0/count", "\"never\"", "\"always\""},
    };
    ASSERT_EQ(mistake_in(sound().dump()), "no mistake");
    for (const Mistake& mistake : mistakes) {
        json host = sound();
        host[json::json_pointer(whole(mistake.pointer))] = json::parse(mistake.value);
        EXPECT_THAT(mistake_in(host.dump()),
                    AllOf(StartsWith("host.json: " + whole(mistake.place) + ": "), HasSubstr(mistake.reason)))
            << mistake.value;
    }
}

TEST(HostFile, PathsToOneDiskMustAgree) {
    json host = sound();
    json& luns = host[json::json_pointer("/adapters/0/ports/0/targets/0/luns")];
    luns = json::parse(R"([{"number": 0, "capacity": 1024, "naa": "50:00:00:00:00:00:00:09"},
                           {"number": 1, "capacity": 1024, "naa": "50:00:00:00:00:00:00:09"}])");
    EXPECT_EQ(mistake_in(host.dump()), "no mistake");
    luns[1]["capacity"] = 2048;
    EXPECT_THAT(mistake_in(host.dump()),
                HasSubstr("/luns/1/naa: the LUN at /adapters/0/ports/0/targets/0/luns/0"));
}

TEST(HostFile, TellsMistakesOfSyntaxWithLineAndColumn) {
    EXPECT_THAT(mistake_in("{\n  \"adapters\": [],\n  \"name\" \"h\"\n}"), StartsWith("host.json:3:12: "));
    EXPECT_THAT(mistake_in(""), StartsWith("host.json:1:1: "));
    EXPECT_THAT(mistake_in("{\"adapters\": []"), StartsWith("host.json:1:16: "));
    EXPECT_THAT(mistake_in("{\"adapters\": [], \"name\": \"a\", \"name\": \"b\"}"),
                HasSubstr("\"name\" stands twice"));
    EXPECT_THAT(mistake_in("[]"), HasSubstr("an object"));
    EXPECT_THAT(mistake_in(std::string("{\"name\": \"\xff\"}")), StartsWith("host.json:1:"));
}

TEST(HostFile, AFileThatCannotBeReadIsTold) {
    const auto message = [](const char* path) { return mistake([&] { hostsim::read_host_file(path); }); };
    EXPECT_THAT(message("/no/such/host.json"),
                HasSubstr("/no/such/host.json: the host file cannot be read: No such file"));
    EXPECT_THAT(message(TRELM_SOURCE_DIR), HasSubstr("this is a directory"));
}

TEST(HostFile, SizesAndNumbersAreReadUpToTheLargest) {
    EXPECT_EQ(hostsim::parse_size("500GB"), 500'000'000'000u);
    EXPECT_EQ(hostsim::parse_size("15 EiB"), uint64_t{15} << 60);
    EXPECT_EQ(hostsim::parse_size("16 EiB"), std::nullopt);
    EXPECT_EQ(hostsim::parse_number("0xFFFFFFFFFFFFFFFF"), UINT64_MAX);
    EXPECT_EQ(hostsim::parse_number("18446744073709551616"), std::nullopt);
    EXPECT_EQ(hostsim::parse_number(""), std::nullopt);
    EXPECT_EQ(hostsim::parse_wwn("20:00:00:1B:21:ab:cd:ef"), 0x2000001B21ABCDEFu);
}

class SampleHost : public testing::TestWithParam<std::filesystem::path> {};

std::vector<std::filesystem::path> sample_hosts() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(TRELM_SOURCE_DIR "/hostsim/hosts")) {
        files.push_back(entry.path());
    }
    return files;
}
INSTANTIATE_TEST_SUITE_P(Files, SampleHost, testing::ValuesIn(sample_hosts()), [](const auto& file) {
    std::string name = file.param.stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

// Keys that the schema does not know are mistakes of the schema: it goes with the reader.
void expect_described(const json& value, const json& schema, const json& root, const std::string& at) {
    const json& described = schema.contains("$ref")
                                ? root.at(json::json_pointer(schema["$ref"].get<std::string>().substr(1)))
                                : schema;
    if (value.is_array()) {
        for (size_t i = 0; i < value.size(); ++i) {
            if (described.contains("items"))
                expect_described(value[i], described["items"], root, at + "/" + std::to_string(i));
        }
    }
    if (!value.is_object() || !described.contains("properties")) return;
    for (const auto& [key, member] : value.items()) {
        ASSERT_TRUE(described["properties"].contains(key)) << at << "/" << key << " is not in the schema";
        expect_described(member, described["properties"][key], root, at + "/" + key);
    }
}

TEST_P(SampleHost, IsSoundAndDescribedByTheSchema) {
    EXPECT_NO_THROW(hostsim::read_host_file(GetParam()));
    std::ifstream schema_file(TRELM_SOURCE_DIR "/hostsim/host.schema.json");
    const json schema = json::parse(schema_file);
    std::ifstream host_file(GetParam());
    expect_described(json::parse(host_file, nullptr, true, true), schema, schema, "");
}

}  // namespace
