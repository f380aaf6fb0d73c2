// SPDX-License-Identifier: Apache-2.0
//
// What `qelctl top` shows, apart from the terminal: the ports of all switches in one list, sorted,
// scrolled and cut to the screen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/ports.h"

namespace qel_gateway::cli {

enum class TopSort { Port, Tx, Rx, Link, Client };

class TopView {
 public:
  explicit TopView(std::vector<Switch> switches);

  const std::vector<Switch>& switches() const { return switches_; }

  // What was read of switch `index`; without `table` the switch did not answer.
  void update(size_t index, const PortTable& table);
  void silent(size_t index);

  // Obeys a key. False when it means the end.
  bool key(char key, size_t rows);

  // The screen, line by line. `clock` is the time of day as text.
  std::string text(size_t columns, size_t rows, bool colour, const std::string& clock) const;

 private:
  struct Row {
    size_t owner;
    const Port* port;
  };

  std::vector<Row> sorted() const;
  std::string head(const std::string& clock, size_t columns, bool colour) const;

  std::vector<Switch> switches_;
  std::vector<std::string> labels_;
  std::vector<PortTable> tables_;
  std::vector<bool> silent_;
  TopSort sort_ = TopSort::Rx;
  bool only_up_ = false;
  size_t scroll_ = 0;
};

}  // namespace qel_gateway::cli
