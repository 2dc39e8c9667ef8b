// host_file_test.cpp - host files: what they describe arrives in the model, and every mistake is told with
// its place.
#include "host_file.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "host.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

// What is told of a host file with this text.
std::string mistake_in(const std::string& text) {
    try {
        hostsim::parse_host(text, "host.json", "/base");
    } catch (const hostsim::HostError& error) {
        return error.what();
    }
    return "no mistake";
}

// A sound host with one of everything, to be changed at one place.
const char kSound[] = R"({ // with a comment
  "drivers": {"kron": {"order": ["a", "28:00:00:00:00:00:00:02"]}, "legacy": {"state": "no_device"}},
  "adapters": [{"driver": "kron", "management_firmware": "08.37.30.00",
  "pci": {"address": "0001:3b:1f", "vendor_id": "0x1077", "device_id": 32896, "speed": "5 GT/s", "width": 4},
  "ports": [{"name": "a", "wwnn": "20:00:00:00:00:00:00:01", "wwpn": "20:00:00:00:00:00:00:02", "function": 3,
    "supported_speed": ["1 Gbit", "10 Gbit"], "speed": "40 Gbit", "link": "link_down", "host_no": 7,
    "counters": {"rx_fcoe_frames": 5, "link_failures": {"start": 18446744073709551615, "rate": 0.5}},
    "fcfs": [{"switch_name": "20:00:00:00:00:00:00:03", "fabric_name": "10:00:00:00:00:00:00:03",
              "fcf_mac": "02:00:00:00:00:01"}],
    "targets": [{"index": 127, "wwnn": "50:00:00:00:00:00:00:01", "wwpn": "50:00:00:00:00:00:00:02",
      "luns": [{"number": 0, "capacity": "2 TiB"}, {"number": 300, "count": 3000, "capacity": 1048576},
               {"number": 256, "block_count": 100, "backing": "file", "directory": "disks/a"}]}],
    "virtual_ports": [{"wwnn": "28:00:00:00:00:00:00:01", "wwpn": "28:00:00:00:00:00:00:02"}]}]}],
  "faults": [{"operation": "scsi", "target": 127, "opcode": "0x28", "count": "always", "errno": "EIO"}]})";

TEST(HostFile, ArrivesInTheModel) {
    const hostsim::Model model = hostsim::parse_host(kSound, "host.json", "/base");
    const hostsim::Adapter& adapter = model.adapters.at(0);
    const hostsim::PhysicalPort& port = adapter.ports.at(0);
    const auto& luns = port.targets.at(0).luns;
    const hostsim::Fault& fault = model.faults.at(0);
    EXPECT_EQ(model.driver(hostsim::DriverKind::legacy).presence, hostsim::Driver::Presence::no_device);
    EXPECT_EQ(std::tuple(adapter.pci_domain, adapter.pci_device, adapter.device_id),
              std::tuple(1, 0x1f, 0x8080));
    EXPECT_EQ(std::tuple(port.speed, port.link_state, port.host_no), std::tuple(0x100, 7u, 7u));
    EXPECT_EQ(std::tuple(port.counters[29].start, port.counters[29].rate), std::tuple(UINT64_MAX, 0.5));
    EXPECT_EQ(luns.at(2).directory, "/base/disks/a") << "relative to the host file";
    EXPECT_EQ(std::tuple(fault.opcode, fault.count, fault.error),
              std::tuple(0x28, hostsim::Fault::kAlways, EIO));
}

// Where the sound host is changed, to what JSON, and what is told; the place told where it is another one.
// A stands for the adapter, P for its port, L for the LUNs of the port's target, F for the fault.
struct Mistake {
    std::string pointer, value, reason, place = pointer;
};
std::string whole(const std::string& place) {
    const std::map<char, std::string> starts{{'A', "/adapters/0/"},
                                             {'P', "/adapters/0/ports/0/"},
                                             {'L', "/adapters/0/ports/0/targets/0/luns/"},
                                             {'F', "/faults/0"}};
    const auto start = starts.find(place[0]);
    return start == starts.end() ? place : start->second + place.substr(1);
}

TEST(HostFile, TellsEachMistakeWithItsPlaceAndWhatIsAllowed) {
    const std::vector<Mistake> mistakes{
        {"/colour", "1", "not known here; allowed are name, system_name"},
        {"/name", "\"a\\u0000b\"", "zero byte"},
        {"/effective_user", "1.5", "0 to 4294967295"},
        {"Apci", "{}", "\"address\" is missing"},
        {"Amodel", "\"123456789012345678901234567890123\"", "33 bytes, at most 32"},
        {"Pcounters/read_req", "{\"rate\": -1}", "0 to 1e15", "Pcounters/read_req/rate"},
        {"Pwwpn", "\"00:00:00:00:00:00:00:00\"", "eight bytes"},
        {"Pspeed", "\"3 Gbit\"", "\"10 Gbit\""},
        {"Pvirtual_ports/0/wwpn", "\"20:00:00:00:00:00:00:02\"", "taken by /adapters/0/ports/0,"},
        {"L0/capacity", "\"16 EiB\"", "no size"},
        {"L0/block_count", "1", "either", "L0"},
        {"L2/addressing", "\"peripheral\"", "255", "L2/number"},
        {"L2/number", "301", "LUN 301 stands twice"},
        {"/drivers/kron/order/0", "\"b\"", "no port \"b\""},
        {"F", "{\"operation\": \"open\", \"status\": 3}", "\"errno\" only", "F/status"},
        {"F/errno", "\"EOOPS\"", "\"EIO\""},
    };
    for (const Mistake& mistake : mistakes) {
        json host = json::parse(kSound, nullptr, true, true);
        host[json::json_pointer(whole(mistake.pointer))] = json::parse(mistake.value);
        EXPECT_THAT(mistake_in(host.dump()), AllOf(StartsWith("host.json: " + whole(mistake.place) + ": "),
                                                   HasSubstr(mistake.reason)));
    }
    EXPECT_THAT(mistake_in("{\n  \"adapters\": [],\n  \"name\" \"h\"\n}"), StartsWith("host.json:3:12: "));
    EXPECT_THAT(mistake_in("{\"adapters\": []"), StartsWith("host.json:1:16: "));
    EXPECT_THAT(mistake_in(R"({"adapters": [], "name": "a", "name": "b"})"),
                HasSubstr("\"name\" stands twice"));
}

}  // namespace
