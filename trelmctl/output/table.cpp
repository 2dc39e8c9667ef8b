#include "table.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "text.h"

namespace trelmctl {
namespace {

using Cells = std::vector<std::string>;
using Widths = std::vector<std::size_t>;

constexpr std::string_view kGap = "  ";
constexpr std::size_t kHidden = SIZE_MAX;

std::string line(const std::vector<Column>& columns, const Widths& widths, const Cells& cells) {
    std::string out;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (widths[i] == kHidden) continue;
        if (!out.empty()) out += kGap;
        out += columns[i].align == Column::Align::right ? fmt::format("{:>{}}", cells[i], widths[i])
                                                        : fmt::format("{:<{}}", cells[i], widths[i]);
    }
    out.resize(out.find_last_not_of(' ') + 1);
    return out;
}

Widths widths_of(const std::vector<Column>& columns, const std::vector<Cells>& rows, bool with_titles) {
    Widths widths;
    for (const Column& column : columns) widths.push_back(with_titles ? column.title.size() : 0);
    for (const Cells& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    return widths;
}

std::size_t total(const Widths& widths) {
    return std::accumulate(widths.begin(), widths.end(), std::size_t{0},
                           [](std::size_t sum, std::size_t width) {
                               return width == kHidden ? sum : sum + (sum > 0 ? kGap.size() : 0) + width;
                           });
}

void hide_what_does_not_fit(const std::vector<Column>& columns, Widths& widths, std::size_t width) {
    while (total(widths) > width) {
        std::size_t next = columns.size();
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (columns[i].dispensable == 0 || widths[i] == kHidden) continue;
            if (next == columns.size() || columns[i].dispensable > columns[next].dispensable) next = i;
        }
        if (next == columns.size()) return;
        widths[next] = kHidden;
    }
}

}  // namespace

std::string Table::text(std::size_t width) const {
    Widths widths = widths_of(columns_, rows_, true);
    hide_what_does_not_fit(columns_, widths, width);
    Cells titles;
    for (const Column& column : columns_) titles.push_back(column.title);
    std::string out = fitted(line(columns_, widths, titles), width) + "\n";
    for (const Cells& row : rows_) out += fitted(line(columns_, widths, row), width) + "\n";
    return out;
}

std::vector<std::string> Table::lines() const {
    const Widths widths = widths_of(columns_, rows_, false);
    std::vector<std::string> out;
    for (const Cells& row : rows_) out.push_back(line(columns_, widths, row));
    return out;
}

}  // namespace trelmctl
