// SPDX-License-Identifier: Apache-2.0
//
// Tells the agent of neighbours by local events. What the agent could not take (it does not run
// yet, its queue is full) is kept and told later; what it has been told is not told again unless it
// changed, the agent started anew, or the neighbour was heard again.
#ifndef MORVA_LINUX_MORVAD_KERNEL_ANNOUNCER_H
#define MORVA_LINUX_MORVAD_KERNEL_ANNOUNCER_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/morvad/host.h"
#include "platform/linux/morvad/kernel/lldp.h"
#include "platform/linux/morvad/switch.h"

namespace morvad {

class Announcer {
 public:
  /// More neighbours than this are not kept track of.
  static constexpr size_t kNeighboursMax = 8192;

  /// Neither is owned; both outlive this.
  Announcer(Switch& sw, Host& host) : switch_(&sw), host_(&host) {}

  /// What lldpd says.
  void lldp(const LldpNews& news);

  /// Somebody with `ip` and `mac` is behind `port`; and nobody has `ip` any more.
  void address(const std::string& ip, const std::string& mac, const Port& port);
  void address_gone(const std::string& ip);

  /// Tells what could not be told so far.
  void retry();

  /// Forgets what was told: the agent started anew.
  void tell_all_again();

 private:
  struct Heard {  // by LLDP
    LldpNeighbour neighbour;
    std::string port;
    bool told = false;
  };
  struct Learnt {  // by ARP
    std::string mac;
    std::string port;
    bool told = false;
  };

  void announce(const std::string& key, const LldpNeighbour& neighbour, const std::string& port);
  bool tell(Heard& heard);
  bool tell(const std::string& ip, Learnt& learnt);
  std::optional<std::string> address_of(const Heard& heard) const;
  void forget(const std::string& ip, const Learnt& learnt);
  Port* port_of(const std::string& interface);

  Switch* switch_;
  Host* host_;
  std::map<std::string, Heard> lldp_;          // by interface and id
  std::map<std::string, std::string> places_;  // MAC of an LLDP neighbour -> its key
  std::map<std::string, Learnt> addresses_;    // by IP
  std::multimap<std::pair<std::string, std::string>, std::string> owners_;  // MAC and port -> IPs
  std::map<std::string, std::string> last_;  // port -> MAC of the neighbour told last
};

/// The text of the events. Without `address` there is no "management_address", and the agent keeps
/// the one that it has.
std::string lldp_event(const LldpNeighbour& neighbour, const std::string& port,
                       const std::optional<std::string>& address);
std::string arp_event(const std::string& ip, const std::string& mac, const std::string& port);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_ANNOUNCER_H
