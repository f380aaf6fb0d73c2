// SPDX-License-Identifier: Apache-2.0
//
// Drawing the front panel. Columns that follow each other without a gap form a block with shared
// borders; the panel is the blocks side by side, as many as fit.
#include "gateway/cli/panel.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include <fmt/format.h>

#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr size_t kBlockGap = 2;

struct Sign {
  const char* text;
  const char* meaning;
  Tint tint;
};

constexpr Sign kUp = {"●", "link", Tint::Green};
constexpr Sign kDown = {"○", "no link", Tint::Dim};
constexpr Sign kOff = {"×", "off", Tint::Red};
constexpr Sign kRestart = {"↻", "restarting", Tint::Yellow};

const Sign& sign_of(const Port& port) {
  if (port.link && port.link->restart_left > 0) {
    return kRestart;
  }
  if (port.config && !port.config->enabled) {
    return kOff;
  }
  return port.link && port.link->up ? kUp : kDown;
}

struct Grid {
  std::vector<int> rows;                             // panel rows, sorted
  std::map<std::pair<int, int>, const Port*> ports;  // by column and row
  size_t label = 0;                                  // width of the longest name
};

using Block = std::vector<int>;  // neighbouring columns

Grid make_grid(const PortTable& table) {
  Grid grid;
  std::set<int> rows;
  for (const Port& port : table.ports) {
    if (port.position &&
        grid.ports.emplace(std::pair(port.position->x, port.position->y), &port).second) {
      rows.insert(port.position->y);
      grid.label = std::max(grid.label, text_width(terminal_text(port.name)));
    }
  }
  grid.rows.assign(rows.begin(), rows.end());
  return grid;
}

std::vector<int> columns_of(const Grid& grid) {
  std::set<int> columns;
  for (const auto& [place, port] : grid.ports) {
    columns.insert(place.first);
  }
  return {columns.begin(), columns.end()};
}

// Width of a block of `columns` boxes.
size_t block_width(const Grid& grid, size_t columns) {
  return columns * (grid.label + 2) + 1;
}

// Neighbours together, but no block wider than `limit` (0: no limit).
std::vector<Block> make_blocks(const Grid& grid, size_t limit) {
  std::vector<Block> blocks;
  int previous = 0;
  for (const int column : columns_of(grid)) {
    const bool fits =
        !blocks.empty() && (limit == 0 || block_width(grid, blocks.back().size() + 1) <= limit);
    if (blocks.empty() || column != previous + 1 || !fits) {
      blocks.emplace_back();
    }
    blocks.back().push_back(column);
    previous = column;
  }
  return blocks;
}

std::string border(const Grid& grid, size_t columns, const char* left, const char* middle,
                   const char* right) {
  std::string line = left;
  for (size_t i = 0; i < columns; ++i) {
    for (size_t k = 0; k < grid.label + 1; ++k) {
      line += "─";
    }
    line += i + 1 < columns ? middle : right;
  }
  return line;
}

std::string boxes(const Grid& grid, const Block& block, int row, bool colour) {
  std::string line = "│";
  for (const int column : block) {
    const auto found = grid.ports.find({column, row});
    if (found == grid.ports.end()) {
      line += std::string(grid.label + 1, ' ') + "│";
      continue;
    }
    const std::string name = terminal_text(found->second->name);
    const Sign& sign = sign_of(*found->second);
    line += name + std::string(grid.label - text_width(name), ' ') +
            tinted(sign.text, sign.tint, colour) + "│";
  }
  return line;
}

// The lines of one block, without newlines.
std::vector<std::string> draw(const Grid& grid, const Block& block, bool colour) {
  std::vector<std::string> lines = {border(grid, block.size(), "┌", "┬", "┐")};
  for (size_t i = 0; i < grid.rows.size(); ++i) {
    if (i > 0) {
      lines.push_back(border(grid, block.size(), "├", "┼", "┤"));
    }
    lines.push_back(boxes(grid, block, grid.rows[i], colour));
  }
  lines.push_back(border(grid, block.size(), "└", "┴", "┘"));
  return lines;
}

std::string join_blocks(const Grid& grid, const std::vector<Block>& blocks, size_t limit,
                        bool colour) {
  std::string out;
  size_t next = 0;
  while (next < blocks.size()) {
    std::vector<std::string> lines = draw(grid, blocks[next], colour);
    size_t width = block_width(grid, blocks[next].size());
    ++next;
    while (next < blocks.size()) {
      const size_t more = kBlockGap + block_width(grid, blocks[next].size());
      if (limit != 0 && width + more > limit) {
        break;
      }
      const auto right = draw(grid, blocks[next], colour);
      for (size_t i = 0; i < lines.size(); ++i) {
        lines[i] += std::string(kBlockGap, ' ') + right[i];
      }
      width += more;
      ++next;
    }
    for (const std::string& line : lines) {
      out += line + "\n";
    }
  }
  return out;
}

}  // namespace

std::string panel_text(const PortTable& table, const TableStyle& style) {
  const Grid grid = make_grid(table);
  std::string out;
  if (!grid.ports.empty()) {
    out = join_blocks(grid, make_blocks(grid, style.width), style.width, style.colour);
    std::string legend;
    for (const Sign* sign : {&kUp, &kDown, &kOff, &kRestart}) {
      legend += fmt::format("{}{} {}", legend.empty() ? "" : "  ",
                            tinted(sign->text, sign->tint, style.colour), sign->meaning);
    }
    out += legend + "\n";
  }
  std::string elsewhere;
  for (const Port& port : table.ports) {
    const bool drawn =
        port.position && grid.ports.at({port.position->x, port.position->y}) == &port;
    if (!drawn) {
      const Sign& sign = sign_of(port);
      elsewhere += fmt::format(" {} {}", terminal_text(port.name),
                               tinted(sign.text, sign.tint, style.colour));
    }
  }
  return elsewhere.empty() ? out : out + "without a place:" + elsewhere + "\n";
}

}  // namespace qel_gateway::cli
