#include "words.h"

#include <fmt/format.h>

#include <array>
#include <string_view>

namespace trelmctl {
namespace {

struct Word {
    uint64_t value;
    std::string_view text;
};

template <std::size_t Count>
std::string word(const std::array<Word, Count>& words, uint64_t value) {
    for (const Word& candidate : words) {
        if (candidate.value == value) return std::string(candidate.text);
    }
    return fmt::format("unknown (0x{:x})", value);
}

constexpr std::array kPortStates{
    Word{TRELM_PORTSTATE_ONLINE, "online"},
    Word{TRELM_PORTSTATE_LINKDOWN, "link down"},
    Word{TRELM_PORTSTATE_OTHER, "other"},
};

constexpr std::array kPortTypes{Word{TRELM_PORTTYPE_PHYSICAL, "physical"},
                                Word{TRELM_PORTTYPE_NPIV, "virtual"}};

constexpr std::array kTargetStates{
    Word{0, "unknown"}, Word{1, "not present"}, Word{2, "online"},      Word{3, "offline"},
    Word{4, "blocked"}, Word{5, "bypassed"},    Word{6, "diagnostics"}, Word{7, "link down"},
    Word{8, "error"},   Word{9, "loopback"},    Word{10, "deleted"},
};

struct Speed {
    uint64_t bit;
    unsigned gigabits;
};
// In ascending order of speed, which differs from the order of the bits.
constexpr std::array kSpeeds{
    Speed{0x1, 1},   Speed{0x2, 2},    Speed{0x8, 4},   Speed{0x10, 8},   Speed{0x4, 10},   Speed{0x20, 16},
    Speed{0x80, 20}, Speed{0x800, 25}, Speed{0x40, 32}, Speed{0x100, 40}, Speed{0x200, 50}, Speed{0x400, 100},
};

struct PcieWidth {
    uint32_t code;
    unsigned lanes;
};
constexpr std::array kPcieWidths{
    PcieWidth{3, 1}, PcieWidth{4, 2}, PcieWidth{5, 4}, PcieWidth{6, 8}, PcieWidth{8, 16}, PcieWidth{9, 32},
};

}  // namespace

std::string port_state_words(uint32_t state) { return word(kPortStates, state); }
std::string port_type_words(uint32_t type) { return word(kPortTypes, type); }
std::string target_state_words(uint16_t state) { return word(kTargetStates, state); }

std::string speed_words(uint64_t bits) {
    std::string out;
    for (const Speed& speed : kSpeeds) {
        if ((bits & speed.bit) == 0) continue;
        out += fmt::format("{}{}", out.empty() ? "" : ", ", speed.gigabits);
        bits &= ~speed.bit;
    }
    if (!out.empty()) out += " Gbit/s";
    if (bits != 0) out += fmt::format("{}unknown (0x{:x})", out.empty() ? "" : ", ", bits);
    return out.empty() ? "unknown" : out;
}

unsigned fastest_gigabits(uint64_t bits) {
    unsigned fastest = 0;
    for (const Speed& speed : kSpeeds) {
        if ((bits & speed.bit) != 0) fastest = speed.gigabits;
    }
    return fastest;
}

std::string pci_address(const TRELM_FCOE_INFO& info) {
    return fmt::format("{:04x}:{:02x}:{:02x}.{:x}", +info.PciDomainNum, +info.PciBusNum, +info.PciDeviceNum,
                       +info.PciFunctionNum);
}

unsigned pcie_lanes(uint32_t width) {
    for (const PcieWidth& known : kPcieWidths) {
        if (known.code == width) return known.lanes;
    }
    return 0;
}

std::string pcie_words(uint32_t speed, uint32_t width) {
    const std::string rate = speed == 0 ? "unknown speed" : fmt::format("{}.{} GT/s", speed / 10, speed % 10);
    if (width == 0) return rate + " unknown width";
    const unsigned lanes = pcie_lanes(width);
    return rate + (lanes != 0 ? fmt::format(" x{}", lanes) : fmt::format(" unknown (0x{:x})", width));
}

}  // namespace trelmctl
