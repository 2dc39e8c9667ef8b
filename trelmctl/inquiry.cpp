// inquiry.cpp - `trelmctl inquiry`: the standard data, and the vital product data pages that most devices
// have.
#include "inquiry.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "commands.h"
#include "hexdump.h"
#include "scsi.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

std::string padded_text(std::span<const uint8_t> data, std::size_t at, std::size_t width) {
    if (at >= data.size()) return {};
    const auto bytes = data.subspan(at, std::min(width, data.size() - at));
    std::string text(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
    text.resize(text.find_last_not_of(' ') + 1);
    text.erase(0, text.find_first_not_of(' '));
    return escaped(text);
}

std::string version_words(uint8_t version) {
    static constexpr std::array<std::string_view, 8> words{"none",  "SPC-0", "SPC-0", "SPC",
                                                           "SPC-2", "SPC-3", "SPC-4", "SPC-5"};
    return version < words.size() ? std::string(words[version]) : fmt::format("unknown (0x{:02x})", version);
}

// A page: its body, and as lines and members what is understood of it.
struct Page {
    std::vector<uint8_t> body;
    std::string text;
    Json json = Json::object();
};

void parse_supported_pages(Page& page) {
    page.json["pages"] = Json::array();
    for (const uint8_t number : page.body) {
        page.text += fmt::format("  0x{:02x}\n", number);
        page.json["pages"].push_back(fmt::format("0x{:02x}", number));
    }
}

void parse_serial_number(Page& page) {
    const std::string serial = padded_text(page.body, 0, page.body.size());
    page.text = fmt::format("  Serial number  {}\n", serial);
    page.json["serial_number"] = serial;
}

// One designator: how it is coded, what kind it is, what it names.
void parse_designator(std::span<const uint8_t> head, std::span<const uint8_t> body, Page& page) {
    static constexpr std::array<std::string_view, 10> kinds{"vendor specific",
                                                            "T10 vendor id",
                                                            "EUI-64",
                                                            "NAA",
                                                            "relative target port",
                                                            "target port group",
                                                            "logical unit group",
                                                            "MD5 logical unit",
                                                            "SCSI name string",
                                                            "protocol specific port"};
    const unsigned code_set = head[0] & 0x0F;
    const unsigned kind = head[1] & 0x0F;
    const unsigned association = head[1] >> 4 & 0x03;
    const bool is_text = code_set == 2 || code_set == 3;
    const std::string value =
        is_text ? padded_text(body, 0, body.size()) : hex_bytes(body.data(), body.size(), "");
    const std::string kind_words =
        kind < kinds.size() ? std::string(kinds[kind]) : fmt::format("type {}", kind);
    static constexpr std::array<std::string_view, 4> of{"logical unit", "target port", "target device",
                                                        "reserved"};
    page.text += fmt::format("  {:<22}{}  (of the {})\n", kind_words, value, of[association]);
    page.json["designators"].push_back({{"type", kind_words},
                                        {"type_raw", kind},
                                        {"association", of[association]},
                                        {"association_raw", association},
                                        {"value", value}});
}

void parse_identification(Page& page) {
    page.json["designators"] = Json::array();
    std::span<const uint8_t> rest = page.body;
    while (rest.size() >= 4 && rest.size() - 4 >= rest[3]) {
        const std::size_t length = rest[3];
        parse_designator(rest.first(4), rest.subspan(4, length), page);
        rest = rest.subspan(4 + length);
    }
}

void parse_block_limits(Page& page) {
    struct Limit {
        const char* key;
        const char* label;
        std::size_t at;  // in the body, behind the page's four bytes of header
        std::size_t width;
    };
    static constexpr std::array limits{
        Limit{"max_compare_and_write", "Largest COMPARE AND WRITE, blocks", 1, 1},
        Limit{"optimal_transfer_granularity", "Optimal transfer granularity, blocks", 2, 2},
        Limit{"max_transfer_length", "Largest transfer, blocks", 4, 4},
        Limit{"optimal_transfer_length", "Optimal transfer, blocks", 8, 4},
        Limit{"max_prefetch_length", "Largest prefetch, blocks", 12, 4},
        Limit{"max_unmap_blocks", "Largest UNMAP, blocks", 16, 4},
        Limit{"max_unmap_descriptors", "Most UNMAP descriptors", 20, 4},
        Limit{"optimal_unmap_granularity", "Optimal UNMAP granularity, blocks", 24, 4},
        Limit{"max_write_same_blocks", "Largest WRITE SAME, blocks", 32, 8},
    };
    for (const Limit& limit : limits) {
        if (limit.at + limit.width > page.body.size()) break;
        const uint64_t value = big_endian(page.body, limit.at, limit.width);
        page.text += fmt::format("  {:<38}{}\n", limit.label, value);
        page.json[limit.key] = value;
    }
}

struct KnownPage {
    uint8_t number;
    const char* title;
    void (*parse)(Page& page);
};
constexpr std::array kKnownPages{
    KnownPage{0x00, "Supported vital product data pages", parse_supported_pages},
    KnownPage{0x80, "Unit serial number", parse_serial_number},
    KnownPage{0x83, "Device identification", parse_identification},
    KnownPage{0xB0, "Block limits", parse_block_limits},
};

Failure other_page(const LunAddress& address, uint8_t wanted, uint8_t answered) {
    return {
        .code = {},
        .name = "WRONG_PAGE",
        .meaning = fmt::format("target {} LUN {} was asked for page 0x{:02x} and answered with page 0x{:02x}",
                               address.target, lun_text(address.lun), wanted, answered),
        .advice = "the device may not know vital product data pages; ask without --page",
        .operation = "INQUIRY",
        .port = port_label(address.adapter.instance(), address.npiv_index)};
}

// Reads a page whole, header included. The first request stays below 256 bytes: devices whose ALLOCATION LENGTH
// has one byte take the upper one for reserved.
std::vector<uint8_t> read_page(const LunAddress& address, uint8_t number) {
    uint16_t room = 252;
    while (true) {
        const std::array<uint8_t, 6> cdb{
            0x12, 0x01, number, static_cast<uint8_t>(room >> 8), static_cast<uint8_t>(room), 0};
        std::vector<uint8_t> data = read_or_throw(address, cdb, room);
        const std::size_t length = 4 + big_endian(data, 2, 2);
        if (data[1] != number) throw CommandFailed(other_page(address, number, data[1]));
        if (length <= room || room == UINT16_MAX) {
            data.resize(std::min<std::size_t>(length, room));
            return data;
        }
        room = static_cast<uint16_t>(std::min<std::size_t>(length, UINT16_MAX));
    }
}

void show_page(const LunAddress& address, uint8_t number, Output& output) {
    const std::vector<uint8_t> data = read_page(address, number);
    const std::size_t length = data.size() - 4;
    Page page;
    page.body.assign(data.begin() + 4, data.begin() + 4 + static_cast<std::ptrdiff_t>(length));
    const auto* known = std::find_if(kKnownPages.begin(), kKnownPages.end(),
                                     [&](const KnownPage& k) { return k.number == number; });
    const bool is_known = known != kKnownPages.end();
    if (is_known) known->parse(page);

    output.document()["page"] = fmt::format("0x{:02x}", number);
    output.document()["title"] = is_known ? Json(known->title) : Json();
    output.document().update(page.json);
    output.document()["data"] = hex_bytes(data.data(), length + 4, "");
    if (output.json()) return;
    output.print(is_known ? fmt::format("{} (page 0x{:02x})\n{}", known->title, number, page.text)
                          : hexdump(std::span(data).first(length + 4)));
}

void show_standard(const LunAddress& address, Output& output) {
    const std::array<uint8_t, 6> cdb{0x12, 0, 0, 0, kStandardInquiryLength, 0};
    const std::vector<uint8_t> data = read_or_throw(address, cdb, kStandardInquiryLength);
    const StandardInquiry inquiry = parse_inquiry(data);
    Json& document = output.document();
    document["device_type"] = device_type_words(inquiry.device_type);
    document["device_type_raw"] = inquiry.device_type;
    document["removable"] = inquiry.removable;
    document["version"] = version_words(inquiry.version);
    document["version_raw"] = inquiry.version;
    document["vendor"] = inquiry.vendor;
    document["product"] = inquiry.product;
    document["revision"] = inquiry.revision;
    document["data"] = hex_bytes(data.data(), data.size(), "");
    if (output.json()) return;
    output.print(fmt::format(
        "Device type  {} (0x{:02x})\nRemovable    {}\nVersion      {} (0x{:02x})\nVendor       {}\n"
        "Product      {}\nRevision     {}\n",
        device_type_words(inquiry.device_type), inquiry.device_type, inquiry.removable ? "yes" : "no",
        version_words(inquiry.version), inquiry.version, inquiry.vendor, inquiry.product, inquiry.revision));
}

}  // namespace

StandardInquiry parse_inquiry(std::span<const uint8_t> data) {
    StandardInquiry inquiry;
    if (data.size() < 36) return inquiry;
    inquiry.device_type = data[0];
    inquiry.removable = (data[1] & 0x80) != 0;
    inquiry.version = data[2];
    inquiry.vendor = padded_text(data, 8, 8);
    inquiry.product = padded_text(data, 16, 16);
    inquiry.revision = padded_text(data, 32, 4);
    return inquiry;
}

void run_inquiry(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const LunAddress address{port.adapter, port.npiv_index, options.target, options.lun};
    name_lun(address, output.document());
    options.page ? show_page(address, *options.page, output) : show_standard(address, output);
}

}  // namespace trelmctl
