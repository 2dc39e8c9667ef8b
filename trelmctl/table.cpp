#include "table.h"

#include <fmt/format.h>

#include <algorithm>

namespace trelmctl {
namespace {

std::string line(const std::vector<Column>& columns, const std::vector<std::size_t>& widths,
                 const std::vector<std::string>& cells) {
    std::string out;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i > 0) out += "  ";
        out += columns[i].align == Column::Align::right ? fmt::format("{:>{}}", cells[i], widths[i])
                                                        : fmt::format("{:<{}}", cells[i], widths[i]);
    }
    out.resize(out.find_last_not_of(' ') + 1);
    return out;
}

}  // namespace

std::vector<std::string> Table::lines(bool with_titles) const {
    std::vector<std::string> titles;
    std::vector<std::size_t> widths;
    for (const Column& column : columns_) {
        titles.push_back(column.title);
        widths.push_back(with_titles ? column.title.size() : 0);
    }
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::vector<std::string> out;
    if (with_titles) out.push_back(line(columns_, widths, titles));
    for (const auto& row : rows_) out.push_back(line(columns_, widths, row));
    return out;
}

std::string Table::text() const { return fmt::format("{}\n", fmt::join(lines(true), "\n")); }

}  // namespace trelmctl
