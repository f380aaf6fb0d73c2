// SPDX-License-Identifier: Apache-2.0
//
// Tables for people. A table is laid out for a width: when it does not fit, the columns of least
// weight are left out first, then the flexible ones are narrowed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qel_gateway {

enum class Align { Left, Right };

enum class Tint { Plain, Bold, Dim, Green, Yellow, Red, Cyan };

// `text` in the colour; unchanged when `colour` is false or the tint is Plain.
std::string tinted(const std::string& text, Tint tint, bool colour);

struct Column {
  std::string title;
  Align align = Align::Left;
  int weight = 0;       // 0: never left out; the highest weights go first, equal ones together
  size_t flexible = 0;  // may be narrowed to this many columns; 0: never
};

struct Cell {
  std::string text;  // fit for a terminal
  Tint tint = Tint::Plain;

  Cell(std::string content = {}, Tint colour = Tint::Plain)
      : text(std::move(content)), tint(colour) {}
  Cell(const char* content) : text(content) {}
};

struct TableStyle {
  size_t width = 0;  // columns of the terminal; 0: no limit
  bool colour = false;
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // One cell for each column.
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  size_t size() const { return rows_.size(); }

  // Title line and rows, each ended by a newline and without blanks at its end. A column all of
  // whose cells are empty is left out.
  std::string text(const TableStyle& style) const;

 private:
  std::vector<size_t> natural_widths() const;
  void leave_out(std::vector<bool>& shown, const std::vector<size_t>& least, size_t limit) const;
  std::string line(const std::vector<Cell>& cells, const std::vector<size_t>& widths,
                   const std::vector<bool>& shown, bool colour) const;
  std::vector<bool> choose(std::vector<size_t>& widths, size_t limit) const;

  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace qel_gateway
