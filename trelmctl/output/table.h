// table.h - text in columns: as wide as their widest cell, numbers to the right, no blanks at the end of a
// line. A table that is too wide loses columns.
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
    unsigned dispensable = 0;  // where room is short the highest goes first; 0 stays
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // With titles, in at most so many columns of the terminal.
    std::string text(std::size_t width = SIZE_MAX) const;
    // The rows alone, as wide as they are.
    std::vector<std::string> lines() const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace trelmctl
