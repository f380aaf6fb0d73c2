// SPDX-License-Identifier: Apache-2.0
//
// The switch as it is now: all that the modules tell and change. Built from a Board and the
// settings; one instance, owned by main and passed to every module command in a Context.
#ifndef MORVA_LINUX_MORVAD_SWITCH_H
#define MORVA_LINUX_MORVAD_SWITCH_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/morvad/backing.h"
#include "platform/linux/morvad/board.h"
#include "platform/linux/morvad/firmware.h"
#include "platform/linux/morvad/host.h"
#include "platform/linux/morvad/l2_table.h"
#include "platform/linux/morvad/port.h"
#include "platform/linux/morvad/settings.h"

namespace morvad {

/// Interface index of "vlanif1", and the top byte of the ports' indices.
inline constexpr uint32_t kManagementIndex = 1;
inline constexpr uint32_t kPortIndexBase = 0x01000000;

/// A change that somebody should hear of, see Switch::observe.
enum class PortEvent { status, trunk, mirror };

class Switch {
 public:
  using Observer = std::function<void(const Port&, PortEvent)>;

  /// Takes the board over and applies the stored settings of each port. `settings` and `host` are
  /// not owned and outlive the switch.
  Switch(Board board, Settings& settings, Host& host);

  const Board& board() const { return board_; }
  std::vector<Port>& ports() { return ports_; }
  L2Table& l2() { return l2_; }
  Firmware& firmware() { return firmware_; }
  Settings& settings() { return *settings_; }

  /// The port of that name or interface index, or null.
  Port* find(std::string_view name);
  Port* find_index(uint32_t index);

  /// The factory settings of this board.
  const SettingPairs& factory() const { return board_.nvram; }

  /// Sets who hears of changes. Called after the change, once for each that made a difference.
  void observe(Observer observer) { observer_ = std::move(observer); }

  /// Configuration of a port. With `keep` it is stored for the next start as well; what cannot be
  /// stored is logged and counts until then.
  void set_enabled(Port& port, bool enabled, bool keep = true);
  void set_speed(Port& port, int code, bool keep = true);

  /// Puts something else than memory behind a port. Told to the observer if that moved the status.
  void bind(Port& port, std::unique_ptr<PortBinding> binding);

  /// News from what is behind the port: runs `change`, which moves what the binding or the port
  /// tells, and tells the observer if the port's status is another one then.
  void news(Port& port, const std::function<void()>& change) { changed(port, change); }

  /// News of the cable, from morvactl.
  void set_cable(Port& port, bool plugged);
  void set_far_end(Port& port, int speed, bool full_duplex);

  void set_trunk(Port& port, int trunk);
  void set_mirror(Port& port, int mirror);

  /// Sets counters exactly; `run` keeps them growing by their rates from there, else they stand
  /// still.
  void set_counters(Port& port, const Counters& counters, bool run);

  /// Power drawn by all ports, or the figure that poe_use_set fixed; the budget; both milliwatts.
  int poe_used() const;
  int poe_total() const { return poe_total_; }
  void poe_total_set(int milliwatts) { poe_total_ = milliwatts; }
  void poe_use_set(int milliwatts) { poe_use_fixed_ = milliwatts; }  // negative: as drawn

  /// Names of the blocked ports, each followed by one blank but the last, in port order.
  std::string blocked_names(bool Port::*mark) const;

  /// The maker's record; a changed word is kept in the settings. `word` is below OEM_INFO_WORDS.
  uint32_t oem_get(size_t word);
  int oem_set(size_t word, uint32_t value);

  bool frames_to_cpu() const { return frames_to_cpu_; }

  /// Lets the gateway's frames through to the agent, or stops them. "" when done, else why not.
  std::string frames_to_cpu_set(bool on);

  /// Says who stands behind the switch as a whole; not owned. `frames` is what it does with the
  /// gateway's frames now. Null: what is told is remembered, no more.
  void back(Backing* backing, bool frames);

  /// Reads the layer-2 table anew where it is kept by somebody else. "" when done, else why not.
  std::string refresh_l2();

  /// The agent has just started.
  void agent_started();

  /// Seconds until the agent is told the PoE figures, see send_poe_update_soon; 0: nobody waits.
  int poe_update_in = 0;

 private:
  /// Runs `change` on the port, keeps its counters right, tells the observer if its status moved.
  void changed(Port& port, const std::function<void()>& change);
  void notify(const Port& port, PortEvent event);
  void load_port(Port& port);

  Board board_;
  Settings* settings_;
  Host* host_;
  std::vector<Port> ports_;
  L2Table l2_;
  Firmware firmware_;
  Observer observer_;
  Backing* backing_ = nullptr;
  int poe_total_ = 0;
  int poe_use_fixed_ = -1;
  bool frames_to_cpu_ = true;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_SWITCH_H
