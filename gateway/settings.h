// SPDX-License-Identifier: Apache-2.0
//
// Changing switches. A set is sent once: whether a lost one took effect nobody can know, and some
// (a restart, a reboot) must not happen twice. Most sets are not answered at all, so the switch is
// asked afterwards what it now reports, until it reports what was wanted or patience ends.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/ports.h"
#include "gateway/requests.h"
#include "gateway/session.h"

namespace qel_gateway {

enum class Effect {
  Took,      // the switch reports what was wanted
  NotTaken,  // it reports something else
  Unseen,    // sent, but no report can show it
  Silent,    // sent; the switch does not answer any more
};

// A word for machines: "took", "not taken", "unseen", "silent".
const char* effect_word(Effect effect);

struct EffectReport {
  Effect effect = Effect::Unseen;
  std::string detail;  // for people, fit for a terminal
};

// Names of speeds that a switch understands, "AN" (negotiate) first.
const std::vector<std::string>& speed_names();

// The switches of "port config", each 0 or 1, in the order of the protocol's rows.
const std::vector<std::string>& port_switch_names();

struct PortSettings {
  std::optional<std::string> speed;
  std::map<std::string, bool> switches;  // by names of port_switch_names()
};

// What is sent for one port of "port config".
OrderedJson port_settings_json(const PortSettings& settings);

// All of these throw Error when the port does not exist or a report stays away before anything is
// sent, and Interrupted.
Task<EffectReport> enable_port(Session& session, const Switch& one, std::string port, bool enable,
                               Duration patience);
Task<EffectReport> set_port_speed(Session& session, const Switch& one, std::string port,
                                  std::string speed, Duration patience);
// `seconds`: 1 to 255. With `until_back` the report comes when the port is enabled again.
Task<EffectReport> restart_port(Session& session, const Switch& one, std::string port, int seconds,
                                bool until_back, Duration patience);
Task<EffectReport> configure_port(Session& session, const Switch& one, std::string port,
                                  PortSettings settings, Duration patience);

Task<EffectReport> set_address(Session& session, const Switch& one, std::string ip, int prefix,
                               Duration patience);
Task<EffectReport> set_clock(Session& session, const Switch& one, int64_t seconds,
                             Duration patience);
Task<EffectReport> set_name(Session& session, const Switch& one, std::string name,
                            Duration patience);
Task<EffectReport> set_active(Session& session, const Switch& one, int seconds, Duration patience);

// What a switch looked like before a restart, to know it by afterwards.
struct RestartMark {
  bool answered = false;
  int64_t uptime = 0;  // seconds
  int countdown = 0;   // seconds that a controller set and that were left
  TimePoint at;        // it was as much or more then
  std::vector<Port> counters;
};

Task<RestartMark> mark_restart(Session& session, const Switch& one, Duration patience);

// Watches a switch that was told to restart, for `patience`, and up to `come_back` (0: not at all)
// longer while it is silent. Took when it answers with an uptime or with traffic counters that
// began anew, or with a countdown that ended before its time. Silence alone is Silent, or Unseen
// when it ended or was not to be waited for.
Task<EffectReport> await_restart(Session& session, const Switch& one, RestartMark mark,
                                 Duration patience, Duration come_back);

// Reboots, or resets to factory settings and reboots, and watches as above.
Task<EffectReport> restart_switch(Session& session, const Switch& one, bool reset,
                                  Duration patience, Duration come_back);

// Has the switch fetch firmware from `location`. It does not answer, does nothing else meanwhile
// and tells nothing of the upgrade: Unseen when it answers probes again, Silent when not in time.
Task<EffectReport> fetch_firmware(Session& session, const Switch& one, std::string location,
                                  Duration patience);

struct ClockReport {
  std::string ip;
  int prefix = 0;
  bool dhcp = false;
  int64_t timestamp = 0;  // seconds since 1970
};

// What "sys_info" says; asks without setting anything.
Task<ClockReport> read_clock(Session& session, const Switch& one, Duration patience);

// Refuses, by throwing Error (usage), what a switch would store but could not report again.
void check_name(const std::string& name);
void check_location(const std::string& location);

}  // namespace qel_gateway
