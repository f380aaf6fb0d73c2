// SPDX-License-Identifier: Apache-2.0
//
// Sorting and laying out the live view.
#include "gateway/cli/top_view.h"

#include <algorithm>
#include <array>
#include <sstream>

#include <fmt/format.h>

#include "gateway/cli/identity_output.h"
#include "gateway/cli/port_output.h"
#include "gateway/table.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr size_t kHeadLines = 3;  // head, titles, keys

struct SortKey {
  char key;
  TopSort sort;
  const char* name;
};

constexpr std::array<SortKey, 5> kSortKeys = {{{'p', TopSort::Port, "port"},
                                               {'t', TopSort::Tx, "tx"},
                                               {'r', TopSort::Rx, "rx"},
                                               {'l', TopSort::Link, "link"},
                                               {'c', TopSort::Client, "client"}}};

const char* sort_name(TopSort sort) {
  return std::ranges::find(kSortKeys, sort, &SortKey::sort)->name;
}

uint64_t rate_of(const Port& port, uint64_t PortStats::*member) {
  return port.stats ? (*port.stats).*member : 0;
}

int link_rank(const Port& port) {
  if (!port.link) {
    return 0;
  }
  return port.link->up ? port.link->speed + 1 : port.link->restart_left > 0 ? 1 : 0;
}

// Whether `left` stands above `right`; equal ones keep the order of the switch.
bool above(const Port& left, const Port& right, TopSort sort) {
  switch (sort) {
    case TopSort::Port:
      return false;
    case TopSort::Tx:
      return rate_of(left, &PortStats::tx_rate) > rate_of(right, &PortStats::tx_rate);
    case TopSort::Rx:
      return rate_of(left, &PortStats::rx_rate) > rate_of(right, &PortStats::rx_rate);
    case TopSort::Link:
      return link_rank(left) > link_rank(right);
    case TopSort::Client:
      return !client_mac(left).empty() && client_mac(right).empty();
  }
  return false;
}

bool is_up(const Port& port) {
  return port.link && port.link->up;
}

std::string figure(const Port& port, uint64_t PortStats::*member) {
  return port.stats ? short_count((*port.stats).*member) : "";
}

std::string poe_words(const Port& port) {
  return port.poe ? (port.poe->enable != 0 ? "on" : "off") : "";
}

std::string client_ip(const Port& port) {
  const bool known = !client_mac(port).empty() && port.client->ip != "0.0.0.0";
  return known ? terminal_text(port.client->ip) : "";
}

}  // namespace

TopView::TopView(std::vector<Switch> switches)
    : switches_(std::move(switches)),
      labels_(labels_of(switches_)),
      tables_(switches_.size()),
      silent_(switches_.size(), false) {}

void TopView::update(size_t index, const PortTable& table) {
  tables_.at(index) = table;
  silent_.at(index) = false;
}

void TopView::silent(size_t index) {
  silent_.at(index) = true;
}

bool TopView::key(char key, size_t rows) {
  const size_t page = rows > kHeadLines ? rows - kHeadLines : 1;
  const size_t all = sorted().size();
  const size_t most = all > page ? all - page : 0;
  const auto sort = std::ranges::find(kSortKeys, key, &SortKey::key);
  if (sort != kSortKeys.end()) {
    sort_ = sort->sort;
    scroll_ = 0;
  } else if (key == 'u') {
    only_up_ = !only_up_;
    scroll_ = 0;
  } else if (key == 'A' || key == 'k') {
    scroll_ -= scroll_ > 0 ? 1 : 0;
  } else if (key == 'B' || key == 'j') {
    scroll_ = std::min(scroll_ + 1, most);
  } else if (key == ' ') {
    scroll_ = scroll_ < most ? std::min(scroll_ + page, most) : 0;
  }
  return key != 'q' && key != 'Q';
}

std::vector<TopView::Row> TopView::sorted() const {
  std::vector<Row> rows;
  for (size_t i = 0; i < tables_.size(); ++i) {
    for (const Port& port : tables_[i].ports) {
      if (!only_up_ || is_up(port)) {
        rows.push_back({i, &port});
      }
    }
  }
  std::ranges::stable_sort(rows, [this](const Row& left, const Row& right) {
    return above(*left.port, *right.port, sort_);
  });
  return rows;
}

std::string TopView::head(const std::string& clock, size_t columns, bool colour) const {
  size_t ports = 0;
  size_t up = 0;
  for (const PortTable& table : tables_) {
    ports += table.ports.size();
    up += static_cast<size_t>(std::ranges::count_if(table.ports, is_up));
  }
  const auto dead = static_cast<size_t>(std::ranges::count(silent_, true));
  std::string line = fmt::format("{}  {} switch{}, {} ports, {} up  sorted by {}{}", clock,
                                 switches_.size(), switches_.size() == 1 ? "" : "es", ports, up,
                                 sort_name(sort_), only_up_ ? ", links only" : "");
  line = fit_text(line, columns);
  const std::string word = fmt::format("  {} silent", dead);
  if (dead > 0 && text_width(line) + word.size() <= columns) {
    line += tinted(word, Tint::Red, colour);
  }
  return line;
}

std::string TopView::text(size_t columns, size_t rows, bool colour,
                          const std::string& clock) const {
  const bool several = switches_.size() > 1;
  Table table({{several ? "SWITCH" : "", Align::Left, 0, 8},
               {"PORT"},
               {"LINK"},
               {"SPEED", Align::Right},
               {"TX/s", Align::Right},
               {"RX/s", Align::Right},
               {"POE", Align::Left, 1},
               {"CLIENT", Align::Left, 2},
               {"IP", Align::Left, 3}});
  const std::vector<Row> all = sorted();
  const size_t page = rows > kHeadLines ? rows - kHeadLines : 0;
  for (size_t i = scroll_; i < all.size() && i < scroll_ + page; ++i) {
    const Port& port = *all[i].port;
    const Tint owner = silent_[all[i].owner] ? Tint::Red : Tint::Plain;
    table.add({{several ? labels_[all[i].owner] : "", owner},
               {terminal_text(port.name), Tint::Cyan},
               link_cell(port),
               speed_text(port),
               figure(port, &PortStats::tx_rate),
               figure(port, &PortStats::rx_rate),
               poe_words(port),
               client_mac(port),
               client_ip(port)});
  }
  constexpr const char* kKeys =
      "q quit  sort: p port t tx r rx l link c client  u links only  arrows scroll";
  return head(clock, columns, colour) + "\n" + table.text({columns, colour}) +
         tinted(fit_text(kKeys, columns), Tint::Dim, colour);
}

}  // namespace qel_gateway::cli
