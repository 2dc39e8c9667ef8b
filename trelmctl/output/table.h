// table.h - text in columns, each as wide as its widest cell. Numbers are aligned to the right. Lines have no
// trailing blanks. A table that is too wide loses columns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace trelmctl {

struct Column {
    enum class Align { left, right };

    std::string title;
    Align align = Align::left;
    unsigned dispensable = 0;  // the highest is dropped first if room is short; 0 is never dropped
};
constexpr Column::Align kRight = Column::Align::right;

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // With titles, in at most that many columns of the terminal.
    std::string text(std::size_t width = SIZE_MAX) const;
    // Only the rows, at their full width.
    std::vector<std::string> lines() const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace trelmctl
