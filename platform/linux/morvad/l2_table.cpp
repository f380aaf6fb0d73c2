// SPDX-License-Identifier: Apache-2.0
//
// See l2_table.h.
#include "platform/linux/morvad/l2_table.h"

#include <algorithm>

namespace morvad {

std::vector<L2Entry>::iterator L2Table::find(const std::array<uint8_t, 6>& mac, uint16_t vid) {
  return std::find_if(entries_.begin(), entries_.end(),
                      [&](const L2Entry& entry) { return entry.vid == vid && entry.mac == mac; });
}

bool L2Table::add(const L2Entry& entry) {
  const auto found = find(entry.mac, entry.vid);
  if (found != entries_.end()) {
    *found = entry;
    return true;
  }
  if (entries_.size() >= kL2TableSize) {
    return false;
  }
  entries_.push_back(entry);
  return true;
}

bool L2Table::remove(const std::array<uint8_t, 6>& mac, uint16_t vid) {
  const auto found = find(mac, vid);
  if (found == entries_.end()) {
    return false;
  }
  entries_.erase(found);
  return true;
}

void L2Table::fill(size_t count, std::span<const uint32_t> ports) {
  entries_.clear();
  entries_.reserve(count);
  for (size_t i = 0; i < count; i++) {
    L2Entry entry;
    entry.port = ports[i % ports.size()];
    entry.mac = {0x02,
                 0x10,
                 0x00,
                 static_cast<uint8_t>(i >> 16),
                 static_cast<uint8_t>(i >> 8),
                 static_cast<uint8_t>(i)};
    entries_.push_back(entry);
  }
}

std::span<const L2Entry> L2Table::read(size_t start, size_t batch) const {
  if (start >= entries_.size()) {
    return {};
  }
  return std::span(entries_).subspan(start, std::min(batch, entries_.size() - start));
}

}  // namespace morvad
