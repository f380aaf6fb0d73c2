// SPDX-License-Identifier: Apache-2.0
//
// Neighbours from lldpd. Its own client program, lldpcli, runs as a child and writes JSON: one that
// watches for changes, and from time to time one that lists all. A daemon that hangs or a client
// that breaks can so never hold morvad up. Without lldpd nothing happens until there is one.
#ifndef MORVA_LINUX_MORVAD_KERNEL_LLDP_H
#define MORVA_LINUX_MORVAD_KERNEL_LLDP_H

#include <event2/event.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/morvad/request.h"

namespace morvad {

/// One neighbour, with the members of an "lldp_add" event as texts.
struct LldpNeighbour {
  std::string interface;  // ours, that it was heard on
  std::string id;         // tells the neighbours of one interface apart
  std::string mac;        // "" when the neighbour does not tell one
  std::string chassis_id;
  std::string vlan_id;
  std::string management_address;  // IPv4, or ""
  std::string time_to_live;        // seconds
  std::string port_description;
  std::string system_name;
  std::string system_description;
  std::string system_capability;  // those that are switched on, separated by ", "
};

/// A text that lldpcli wrote, taken apart: what happened ("added", "updated", "deleted", or
/// "listed"), and to which neighbours. What makes no sense is passed over.
struct LldpNews {
  std::string what;
  std::vector<LldpNeighbour> neighbours;
};
LldpNews read_lldp(const json& text);

/// Cuts whole JSON objects out of a stream. An object above the limit is dropped with all before
/// it.
class JsonStream {
 public:
  static constexpr size_t kObjectMax = 1 << 20;

  /// Adds `text`; `object` gets each object that is now whole.
  void add(std::string_view text, const std::function<void(const std::string&)>& object);

 private:
  std::string text_;
  int depth_ = 0;
  bool in_string_ = false;
  bool escaped_ = false;
};

class Lldp {
 public:
  using Listener = std::function<void(const LldpNews&)>;

  /// `base` is not owned and outlives this. `listener` hears of everything.
  Lldp(event_base* base, Listener listener);
  ~Lldp();
  Lldp(const Lldp&) = delete;
  Lldp& operator=(const Lldp&) = delete;

  /// Called every few seconds: starts what should run. `list` asks for all neighbours now.
  void tick(bool list);

 private:
  struct Child;
  std::unique_ptr<Child> start(bool watch);
  void on_text(Child& child);

  event_base* base_;
  Listener listener_;
  std::unique_ptr<Child> watch_;
  std::unique_ptr<Child> list_;
  bool list_soon_ = false;
  bool told_ = false;  // that lldpd is listened to
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_LLDP_H
