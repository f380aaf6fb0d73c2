// SPDX-License-Identifier: Apache-2.0
//
// The board: the switch as it was built, read once from a JSON file at start. Everything that can
// change afterwards lives in Switch (switch.h); a Board is never written again.
#ifndef MORVA_LINUX_MORVAD_BOARD_H
#define MORVA_LINUX_MORVAD_BOARD_H

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/sys.h"

namespace morvad {

/// Limits of a board file. The port limit keeps each module's reply far below the 65,534 bytes
/// that a query may carry.
inline constexpr int kMaxPorts = 128;
/// Whether a cable can run at that many Mbit/s.
bool is_speed(int64_t speed);

/// What there is to choose from, for complaints: "10, 100, 1000, ...".
std::string speed_list();

/// One port as built.
struct BoardPort {
  std::string name;     // at most 31 of [A-Za-z0-9._-], beginning with a letter; unique
  int number = 0;       // from 1; unique
  int speed_class = 0;  // UIF_CLASS_...
  int medium = 0;       // UIF_MEDIUM_...
  int max_speed = 0;    // Mbit/s
  int pos_x = 0;        // column and row on the front panel
  int pos_y = 0;
  int aux_index = -1;  // the platform's; readers use its sign
  bool poe = false;    // can feed power
  int poe_limit = 0;   // milliwatts
  int poe_power = 0;   // milliwatts drawn when fed, at start
  bool cable = false;  // a live cable is plugged in at start
  int link_speed = 0;  // Mbit/s that the far end negotiates
  bool full_duplex = true;
  uint64_t tx_rate = 0;  // bytes per second while the link is up
  uint64_t rx_rate = 0;
  std::string interface;  // the Linux interface behind the port; empty: the port lives in memory
};

/// The management interface; `ip` empty: the address is left as it is.
struct Management {
  std::string interface = "vlanif1";
  std::string ip;  // dotted decimal
  int mask = 0;    // prefix length
};

struct Board {
  std::string file;  // where it came from, for messages
  std::string name;
  std::array<uint8_t, 6> mac{};
  std::array<uint32_t, OEM_INFO_WORDS> oem{};
  bool allow_host_reboot = false;
  int poe_budget = 0;  // milliwatts
  Management management;
  std::vector<std::pair<std::string, std::string>> nvram;  // factory settings, ports' included
  std::vector<BoardPort> ports;                            // in the file's order
};

/// What is wrong with a board file: "FILE: KEY: expected ...".
struct BoardError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Reads and checks the board file at `path`. Throws BoardError, naming file, key and expectation.
Board read_board(const std::string& path);

/// The same from text; `file` is what messages call it.
Board parse_board(const std::string& text, const std::string& file);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_BOARD_H
