// SPDX-License-Identifier: Apache-2.0
//
// Laying out tables.
#include "gateway/table.h"

#include <algorithm>
#include <array>

#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr size_t kGap = 2;

constexpr std::array<const char*, 7> kTints = {"",         "\033[1m",  "\033[2m", "\033[32m",
                                               "\033[33m", "\033[31m", "\033[36m"};

// Columns that the shown ones take, gaps included.
size_t total(const std::vector<size_t>& widths, const std::vector<bool>& shown) {
  size_t sum = 0;
  for (size_t i = 0; i < widths.size(); ++i) {
    if (shown[i]) {
      sum += widths[i] + (sum > 0 ? kGap : 0);
    }
  }
  return sum;
}

// Takes from the widest column until the shown ones fit, never below `least`.
void narrow(std::vector<size_t>& widths, const std::vector<bool>& shown,
            const std::vector<size_t>& least, size_t limit) {
  while (total(widths, shown) > limit) {
    size_t widest = widths.size();
    for (size_t i = 0; i < widths.size(); ++i) {
      if (shown[i] && widths[i] > least[i] &&
          (widest == widths.size() || widths[i] > widths[widest])) {
        widest = i;
      }
    }
    if (widest == widths.size()) {
      return;
    }
    --widths[widest];
  }
}

void trim_end(std::string& line) {
  line.erase(line.find_last_not_of(' ') + 1);
}

}  // namespace

std::string tinted(const std::string& text, Tint tint, bool colour) {
  if (!colour || tint == Tint::Plain || text.empty()) {
    return text;
  }
  return kTints[static_cast<size_t>(tint)] + text + "\033[0m";
}

std::vector<size_t> Table::natural_widths() const {
  std::vector<size_t> widths(columns_.size(), 0);
  for (const auto& row : rows_) {
    for (size_t i = 0; i < columns_.size(); ++i) {
      widths[i] = std::max(widths[i], text_width(row[i].text));
    }
  }
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (widths[i] > 0 || rows_.empty()) {
      widths[i] = std::max(widths[i], text_width(columns_[i].title));
    }
  }
  return widths;
}

void Table::leave_out(std::vector<bool>& shown, const std::vector<size_t>& least,
                      size_t limit) const {
  while (total(least, shown) > limit) {
    int heaviest = 0;
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (shown[i]) {
        heaviest = std::max(heaviest, columns_[i].weight);
      }
    }
    if (heaviest == 0) {
      return;
    }
    for (size_t i = 0; i < columns_.size(); ++i) {
      shown[i] = shown[i] && columns_[i].weight != heaviest;
    }
  }
}

std::vector<bool> Table::choose(std::vector<size_t>& widths, size_t limit) const {
  std::vector<bool> shown(columns_.size());
  std::vector<size_t> least = widths;
  for (size_t i = 0; i < columns_.size(); ++i) {
    shown[i] = widths[i] > 0;
    if (columns_[i].flexible > 0) {
      const size_t tight = std::max(columns_[i].flexible, text_width(columns_[i].title));
      least[i] = std::min(widths[i], tight);
    }
  }
  if (limit == 0) {
    return shown;
  }
  leave_out(shown, least, limit);
  narrow(widths, shown, least, limit);
  return shown;
}

std::string Table::line(const std::vector<Cell>& cells, const std::vector<size_t>& widths,
                        const std::vector<bool>& shown, bool colour) const {
  std::string out;
  bool first_cell = true;
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (!shown[i]) {
      continue;
    }
    out += first_cell ? "" : std::string(kGap, ' ');
    first_cell = false;
    const std::string text = fit_text(cells[i].text, widths[i]);
    const std::string fill(widths[i] - std::min(widths[i], text_width(text)), ' ');
    const std::string shade = tinted(text, cells[i].tint, colour);
    out += columns_[i].align == Align::Right ? fill + shade : shade + fill;
  }
  trim_end(out);
  return out + "\n";
}

std::string Table::text(const TableStyle& style) const {
  std::vector<size_t> widths = natural_widths();
  const std::vector<bool> shown = choose(widths, style.width);
  std::vector<Cell> titles;
  for (const Column& column : columns_) {
    titles.emplace_back(column.title, Tint::Bold);
  }
  std::string out = line(titles, widths, shown, style.colour);
  for (const auto& row : rows_) {
    out += line(row, widths, shown, style.colour);
  }
  return out;
}

}  // namespace qel_gateway
