// inquiry.cpp - `trelmctl inquiry`: the standard data, or any vital product data page that the device has.
#include "inquiry.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "hexdump.h"
#include "ports.h"
#include "text.h"
#include "vpd_pages.h"

namespace trelmctl {
namespace {

void show_page(const LunAddress& address, uint8_t number, Output& output) {
    const std::vector<uint8_t> page = read_page(address, number);
    Json& document = output.document();
    document["page"] = fmt::format("0x{:02x}", number);
    document["title"] = page_title(number);
    const std::string decoded = decode_page(page, document);
    document["data"] = hex_bytes(page.data(), page.size(), "");
    if (output.json()) return;
    output.print_lines(fmt::format("{} (page 0x{:02x})\n{}", page_title(number), number,
                                   decoded.empty() ? hexdump(page, Output::width()) : decoded),
                       4);
}

void show_standard(const LunAddress& address, Output& output) {
    const StandardInquiry inquiry = read_inquiry(address);
    Json& document = output.document();
    document["device_type"] = device_type_words(inquiry.device_type);
    document["device_type_raw"] = inquiry.device_type;
    document["removable"] = inquiry.removable;
    document["version"] = version_words(inquiry.version);
    document["version_raw"] = inquiry.version;
    document["vendor"] = inquiry.vendor;
    document["product"] = inquiry.product;
    document["revision"] = inquiry.revision;
    document["standards"] = inquiry.standards;
    document["data"] = hex_bytes(inquiry.data.data(), inquiry.data.size(), "");
    if (output.json()) return;
    output.print_lines(
        fmt::format(
            "Device type  {} (0x{:02x})\nRemovable    {}\nVersion      {} (0x{:02x})\nVendor       {}\n"
            "Product      {}\nRevision     {}\nStandards    {}\n",
            device_type_words(inquiry.device_type), inquiry.device_type, yes_or_no(inquiry.removable),
            version_words(inquiry.version), inquiry.version, inquiry.vendor, inquiry.product,
            inquiry.revision,
            inquiry.standards.empty() ? "-" : fmt::format("{}", fmt::join(inquiry.standards, ", "))),
        13);
}

}  // namespace

void run_inquiry(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const LunAddress address{port.adapter, port.npiv_index, options.target, options.lun};
    name_lun(address, output.document());
    options.page ? show_page(address, *options.page, output) : show_standard(address, output);
}

}  // namespace trelmctl
