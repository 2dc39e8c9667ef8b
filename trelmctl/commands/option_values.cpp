#include "option_values.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "files.h"
#include "text.h"
#include "vpd_pages.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr double kLeastSeconds = 0.01;
constexpr double kMostSeconds = 86400;
constexpr std::size_t kMostCdb = 16;

}  // namespace

void wrong_usage(std::string what) { throw CommandFailed(usage_failure(std::move(what))); }

void refuse(std::string_view what, std::string_view given, std::string_view right) {
    wrong_usage(fmt::format("{} \"{}\" is not valid: {}", what, escaped(given), right));
}

uint64_t number_value(std::string_view what, std::string_view given, uint64_t least, uint64_t most) {
    const auto value = parse_number(given, most);
    if (!value || *value < least)
        refuse(what, given,
               fmt::format("a number from {} to {} in decimal, or hexadecimal with 0x", least, most));
    return *value;
}

double seconds_value(std::string_view what, const std::string& given) {
    char* end = nullptr;
    const double seconds = std::strtod(given.c_str(), &end);
    if (given.empty() || *end != 0 || !(seconds >= kLeastSeconds && seconds <= kMostSeconds))
        refuse(what, given, fmt::format("from {} to {} seconds", kLeastSeconds, kMostSeconds));
    return seconds;
}

PortSelector port_value(const std::string& given) {
    const auto port = parse_port(given);
    if (!port)
        refuse("PORT", given, "an instance number, a WWPN or a host name, then /NPIV for a virtual port");
    return *port;
}

PortSelector physical_port_value(const std::string& given) {
    PortSelector port = port_value(given);
    if (port.npiv_index) refuse("--port", given, "a physical port, without NPIV index");
    return port;
}

std::string state_value(const std::string& given) {
    std::string state = given;
    std::replace(state.begin(), state.end(), '-', ' ');
    if (state != "online" && state != "link down" && state != "other" && state != "failed")
        refuse("--state", given, "online, link-down, other or failed");
    return state;
}

uint8_t page_value(const std::string& given) {
    if (const auto page = page_by_abbreviation(given)) return *page;
    const auto page = parse_number(given.starts_with("0x") ? given : "0x" + given, UINT8_MAX);
    if (!page) {
        refuse("--page", given,
               "a page number from 00 to ff in hexadecimal, or one of " + page_abbreviations() +
                   "; 00 lists the pages");
    }
    return static_cast<uint8_t>(*page);
}

DrawingFormat drawing_value(const std::string& given) {
    if (given == "dot") return DrawingFormat::dot;
    if (given == "svg") return DrawingFormat::svg;
    if (given != "mermaid") refuse("--format", given, "dot, svg or mermaid");
    return DrawingFormat::mermaid;
}

metrics::Format metrics_format_value(const std::string& given) {
    if (given == "openmetrics") return metrics::Format::openmetrics;
    if (given != "prometheus") refuse("--format", given, "openmetrics or prometheus");
    return metrics::Format::prometheus;
}

void append_cdb(std::vector<uint8_t>& cdb, const std::string& given) {
    constexpr std::string_view kRightForm = "hexadecimal bytes, apart (12 00 ...) or together (1200...)";
    std::string word = given.starts_with("0x") ? given.substr(2) : given;
    if (word.size() == 1) word.insert(0, "0");
    if (word.empty() || word.size() % 2 != 0) refuse("CDB", given, kRightForm);
    for (std::size_t i = 0; i < word.size(); i += 2) {
        const auto byte = parse_number("0x" + word.substr(i, 2), UINT8_MAX);
        if (!byte) refuse("CDB", given, kRightForm);
        cdb.push_back(static_cast<uint8_t>(*byte));
    }
    if (cdb.size() > kMostCdb) refuse("CDB", given, fmt::format("a command has at most {} bytes", kMostCdb));
}

void append_cdb_file(std::vector<uint8_t>& cdb, const std::string& path) {
    const std::vector<uint8_t> contents = file_contents(path);
    std::istringstream lines(std::string(contents.begin(), contents.end()));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) append_cdb(cdb, word);
    }
}

}  // namespace trelmctl
