// SPDX-License-Identifier: Apache-2.0
//
// The layer-2 address table of the switch chip: who was learnt on which port and VLAN.
#ifndef MORVA_LINUX_MORVAD_L2_TABLE_H
#define MORVA_LINUX_MORVAD_L2_TABLE_H

#include <array>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace morvad {

/// Places of the table, as the chip has them.
inline constexpr size_t kL2TableSize = 32768;

struct L2Entry {
  uint32_t port = 0;  // interface index
  uint32_t type = 2;  // 2: learnt
  uint32_t aging_time = 300;
  uint16_t vid = 1;
  std::array<uint8_t, 6> mac{};
};

class L2Table {
 public:
  /// Adds the entry, or takes the place of the one with the same address and VLAN: an address that
  /// moved. False when the table is full.
  bool add(const L2Entry& entry);

  /// Removes the address from that VLAN. False when it was not there.
  bool remove(const std::array<uint8_t, 6>& mac, uint16_t vid);

  void clear() { entries_.clear(); }

  /// Takes the place of the whole table; at most kL2TableSize entries, no address twice in a VLAN.
  void assign(std::vector<L2Entry> entries) { entries_ = std::move(entries); }

  /// Replaces the table by `count` made-up addresses, spread over `ports` in turn. `count` is at
  /// most kL2TableSize, `ports` is not empty.
  void fill(size_t count, std::span<const uint32_t> ports);

  /// Up to `batch` entries from `start` on, in the order in which they were added.
  std::span<const L2Entry> read(size_t start, size_t batch) const;

  size_t size() const { return entries_.size(); }

 private:
  std::vector<L2Entry>::iterator find(const std::array<uint8_t, 6>& mac, uint16_t vid);

  std::vector<L2Entry> entries_;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_L2_TABLE_H
