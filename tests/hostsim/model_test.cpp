// model_test.cpp - the text forms of host files, and the defaults for ports of a model.
#include "model.h"

#include <gmock/gmock.h>

#include "host_builders.h"
#include "printable.h"
#include "values.h"

namespace hostsim {
namespace {

using testing::ElementsAre;

TEST(Values, AreReadInTheirTextFormsOnly) {
    EXPECT_EQ(parse_wwn("20:00:00:c0:5A:09:01:fe"), 0x200000c05a0901feU);
    EXPECT_EQ(parse_mac("00:c0:5a:09:01:FE"), (MacAddress{0, 0xc0, 0x5a, 9, 1, 0xfe}));
    EXPECT_EQ(parse_pci_location("fedc:ba:1f"), 0xfedcba1fU);
    for (const char* text : {"", "20:00:00:c0:5a:09:01", "20-00-00-c0-5a-09-01-01", "20:00:00:c0:5a:09:01:1 ",
                             "20:00:00:c0:5a:09:01:011", "20:00:00:c0:5a:09:01:x1"})
        EXPECT_EQ(parse_wwn(text), std::nullopt) << text;
    for (const char* text : {"0000:3b:20", "0000:3b:0", "0000-3b-00", "00000:3b:0", "000g:3b:00"})
        EXPECT_EQ(parse_pci_location(text), std::nullopt) << text;
    EXPECT_EQ(parse_number("12"), 12u);
    EXPECT_EQ(parse_number("0x1F"), 31u);
    EXPECT_EQ(parse_number("0Xff"), 255u);
    EXPECT_EQ(parse_number("18446744073709551615"), UINT64_MAX);
    for (const char* text : {"18446744073709551616", "0x", "", "1 ", "+1", "f"})
        EXPECT_EQ(parse_number(text), std::nullopt) << text;
}

TEST(Values, HoldSizesWithBinaryAndDecimalUnitsBelow16EiB) {
    uint64_t binary = 15, decimal = 15;
    for (const std::string prefix : {"K", "M", "G", "T", "P", "E"}) {
        EXPECT_EQ(parse_size("15 " + prefix + "iB"), binary *= 1024) << prefix;
        EXPECT_EQ(parse_size("15" + (prefix == "K" ? "k" : prefix) + "B"), decimal *= 1000) << prefix;
    }
    EXPECT_EQ(parse_size("4096"), 4096u);
    EXPECT_EQ(parse_size("1  B"), 1u);
    for (const char* text : {"16 EiB", "19 EB", "0x10", "B", "1 kiB", "-1"})
        EXPECT_EQ(parse_size(text), std::nullopt) << text;
}

TEST(Printable, LeavesTextAloneAndEscapesWhatControlsATerminal) {
    const std::pair<std::string, std::string> rows[]{
        {"plain ~ \xc3\xa9 \xe2\x80\xa6 \xf0\x9f\x92\xbe \xc2\xa0",
         "plain ~ \xc3\xa9 \xe2\x80\xa6 \xf0\x9f\x92\xbe \xc2\xa0"},
        {std::string("\0\t\n\x1f\x7f", 5), "\\x00\\x09\\x0a\\x1f\\x7f"},
        {"\xc2\x80\xc2\x9f", "\\xc2\\x80\\xc2\\x9f"},                     // C1 controls
        {"\xe2\x80\x8e\xe2\x80\xa8\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9",  // directions and separators
         "\\xe2\\x80\\x8e\\xe2\\x80\\xa8\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x81\\xa9"},
        {"\xe2\x80\xa7\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa",
         "\xe2\x80\xa7\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa"},
        {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},  // longer than needed
        {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
        {"\x80\xff\xc3", "\\x80\\xff\\xc3"},
        {"\xe2\x80 a", "\\xe2\\x80 a"}};
    for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(Model, DerivesMissingValuesFromThePlaceOfAPort) {
    Model model = hosts::kron_ports(3, 1);
    hosts::add_adapter(model, DriverKind::pyx, 1);
    model.port(0, 1).host_no = 3;
    model.port(1, 0).wwpn = 0x77;
    model.driver(DriverKind::kron).order = {"00:00:00:00:00:00:00:77", "port0.1"};
    std::vector<std::string> ports;
    for (const PortRef& ref : driver_ports(model, DriverKind::kron))
        ports.push_back(ref.port->name + " " + std::to_string(ref.host_no) + " " + format_wwn(ref.wwnn) +
                        " " + format_wwn(ref.wwpn));
    EXPECT_THAT(ports, ElementsAre("port1.0 6 10:00:02:ca:1e:01:00:00 00:00:00:00:00:00:00:77",
                                   "port0.1 3 10:00:02:ca:1e:00:01:00 20:00:02:ca:1e:00:01:00",
                                   "port0.0 2 10:00:02:ca:1e:00:00:00 20:00:02:ca:1e:00:00:00",
                                   "port0.0/1 4 10:00:02:ca:1e:00:00:01 20:00:02:ca:1e:00:00:01",
                                   "port0.1/1 5 10:00:02:ca:1e:00:01:01 20:00:02:ca:1e:00:01:01",
                                   "port1.0/1 7 10:00:02:ca:1e:01:00:01 20:00:02:ca:1e:01:00:01"));
    EXPECT_EQ(all_ports(model).back().host_no, 8u);
    model.adapters.resize(1);
    for (const auto& [presence, present] : {std::pair{Driver::Presence::automatic, false},
                                            {Driver::Presence::present, true},
                                            {Driver::Presence::no_device, false}}) {
        model.driver(DriverKind::pyx).presence = presence;
        EXPECT_EQ(is_present(model, DriverKind::pyx), present);
    }
}

}  // namespace
}  // namespace hostsim
