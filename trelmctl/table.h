// table.h - text in columns: as wide as their widest cell, numbers to the right, no blanks at the end of a
// line.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace trelmctl {

struct Column {
    enum class Align { left, right };

    std::string title;
    Align align = Align::left;
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // With titles, or the rows alone.
    std::string text() const;
    std::vector<std::string> lines(bool with_titles = false) const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace trelmctl
