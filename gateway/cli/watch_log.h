// SPDX-License-Identifier: Apache-2.0
//
// What happens on the wire, event by event: traps, and switches that come and go.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/requests.h"
#include "gateway/session.h"

namespace qel_gateway::cli {

struct Event {
  std::time_t time = 0;
  MacAddress mac;
  std::string name;  // of the switch, as it came
  std::string kind;  // "ports_client", another subject, "silent" or "back"
  std::string port;  // of a client report
  Json details;      // of the report; null when there are none
};

// A line for people, ended by a newline: "12:00:01  office-sw  ge5  client ON  00:11:..".
std::string event_line(const Event& event, bool colour);
// A line for machines, ended by a newline.
std::string event_json(const Event& event);

// Makes events out of unasked messages. A switch that has not answered the presence probes for as
// long as it would take it to forget a gateway counts as silent.
//
// What another program of this machine is answered arrives here as well. Most answers are known by
// their subject. A client report looks the same whether it was asked for or not, so each request
// for them that was overheard excuses one report of each port; such a report is told only if it
// says something else than the last one did.
class WatchLog {
 public:
  using Sink = std::function<void(const Event&)>;

  // `open`: switches that turn up later are watched too.
  WatchLog(const std::vector<Switch>& switches, bool open, TimePoint now, Sink sink);

  void hear(const Reply& reply, TimePoint now);
  // Another program asked the switch `to`, or everybody.
  void overhear(const MacAddress& to, const std::string& text, TimePoint now);
  void tick(TimePoint now);
  size_t events() const { return events_; }

 private:
  // One overheard request for client reports.
  struct Excuse {
    TimePoint until;
    std::set<std::string> used;  // ports that were reported since
  };
  struct Known {
    std::string name;
    TimePoint heard;
    bool silent = false;
    std::vector<Excuse> excuses;
    std::map<std::string, Json> last;  // client report of each port
  };

  void tell(const MacAddress& mac, const std::string& kind, const std::string& port,
            const Json& details);
  void hear_answer(const Reply& reply, TimePoint now);
  void hear_clients(const Reply& reply, TimePoint now);
  static bool excused(Known& known, const std::string& port, TimePoint now);

  std::map<MacAddress, Known> known_;
  bool open_;
  Sink sink_;
  size_t events_ = 0;
};

}  // namespace qel_gateway::cli
