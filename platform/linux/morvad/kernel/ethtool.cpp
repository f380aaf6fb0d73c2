// SPDX-License-Identifier: Apache-2.0
//
// See ethtool.h.
#include "platform/linux/morvad/kernel/ethtool.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/port.h"

namespace morvad {
namespace {

/// Bits of link modes. The kernel numbers them for good and only ever adds to the end.
struct Mode {
  unsigned bit;
  int speed;  // Mbit/s
  bool full;
};

constexpr Mode kModes[] = {
    {ETHTOOL_LINK_MODE_10baseT_Half_BIT, 10, false},
    {ETHTOOL_LINK_MODE_10baseT_Full_BIT, 10, true},
    {ETHTOOL_LINK_MODE_100baseT_Half_BIT, 100, false},
    {ETHTOOL_LINK_MODE_100baseT_Full_BIT, 100, true},
    {ETHTOOL_LINK_MODE_100baseT1_Full_BIT, 100, true},
    {ETHTOOL_LINK_MODE_100baseFX_Half_BIT, 100, false},
    {ETHTOOL_LINK_MODE_100baseFX_Full_BIT, 100, true},
    {ETHTOOL_LINK_MODE_1000baseT_Half_BIT, 1000, false},
    {ETHTOOL_LINK_MODE_1000baseT_Full_BIT, 1000, true},
    {ETHTOOL_LINK_MODE_1000baseKX_Full_BIT, 1000, true},
    {ETHTOOL_LINK_MODE_1000baseX_Full_BIT, 1000, true},
    {ETHTOOL_LINK_MODE_1000baseT1_Full_BIT, 1000, true},
    {ETHTOOL_LINK_MODE_2500baseX_Full_BIT, 2500, true},
    {ETHTOOL_LINK_MODE_2500baseT_Full_BIT, 2500, true},
    {ETHTOOL_LINK_MODE_5000baseT_Full_BIT, 5000, true},
    {ETHTOOL_LINK_MODE_10000baseT_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseKX4_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseKR_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseCR_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseSR_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseLR_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseLRM_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_10000baseER_Full_BIT, 10000, true},
    {ETHTOOL_LINK_MODE_25000baseCR_Full_BIT, 25000, true},
    {ETHTOOL_LINK_MODE_25000baseKR_Full_BIT, 25000, true},
    {ETHTOOL_LINK_MODE_25000baseSR_Full_BIT, 25000, true},
    {ETHTOOL_LINK_MODE_40000baseKR4_Full_BIT, 40000, true},
    {ETHTOOL_LINK_MODE_40000baseCR4_Full_BIT, 40000, true},
    {ETHTOOL_LINK_MODE_40000baseSR4_Full_BIT, 40000, true},
    {ETHTOOL_LINK_MODE_40000baseLR4_Full_BIT, 40000, true},
    {ETHTOOL_LINK_MODE_100000baseKR4_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseSR4_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseCR4_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseLR4_ER4_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseKR2_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseSR2_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseCR2_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseLR2_ER2_FR2_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseDR2_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseKR_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseSR_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseLR_ER_FR_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseCR_Full_BIT, 100000, true},
    {ETHTOOL_LINK_MODE_100000baseDR_Full_BIT, 100000, true},
};

/// Bits that say nothing of speed and duplex: autonegotiation, connectors, pause frames, error
/// correction. They are advertised with every speed. Any other bit is a mode, also one that kModes
/// does not know.
constexpr unsigned kNoModes[] = {
    ETHTOOL_LINK_MODE_Autoneg_BIT,   ETHTOOL_LINK_MODE_TP_BIT,
    ETHTOOL_LINK_MODE_AUI_BIT,       ETHTOOL_LINK_MODE_MII_BIT,
    ETHTOOL_LINK_MODE_FIBRE_BIT,     ETHTOOL_LINK_MODE_BNC_BIT,
    ETHTOOL_LINK_MODE_Pause_BIT,     ETHTOOL_LINK_MODE_Asym_Pause_BIT,
    ETHTOOL_LINK_MODE_Backplane_BIT, ETHTOOL_LINK_MODE_FEC_NONE_BIT,
    ETHTOOL_LINK_MODE_FEC_RS_BIT,    ETHTOOL_LINK_MODE_FEC_BASER_BIT,
    ETHTOOL_LINK_MODE_FEC_LLRS_BIT,
};

/// From here on up a copper link exists only negotiated.
constexpr int kNegotiatedFrom = 1000;

constexpr size_t kWordsMax = 127;  // of one mask: the kernel's count is a signed byte

/// The kernel's record: its head, and the three masks behind it.
class Settings {
 public:
  /// Of `interface`, by `call`; both outlive this.
  Settings(const std::string& interface, const EthtoolCall& call)
      : interface_(interface), call_(call) {}

  enum Mask { supported, advertising };

  /// Reads the settings; "" or why not.
  std::string read() {
    head() = {};
    head().cmd = ETHTOOL_GLINKSETTINGS;
    std::string refusal = call();
    if (refusal.empty() && head().link_mode_masks_nwords < 0) {
      // The kernel said how long its masks are; now it takes the question.
      const auto words = static_cast<int8_t>(-head().link_mode_masks_nwords);
      head() = {};
      head().cmd = ETHTOOL_GLINKSETTINGS;
      head().link_mode_masks_nwords = words;
      refusal = call();
    }
    if (refusal.empty() && head().link_mode_masks_nwords <= 0) {
      return "the driver tells no link settings";
    }
    return refusal;
  }

  std::string write() {
    head().cmd = ETHTOOL_SLINKSETTINGS;
    return call();
  }

  ethtool_link_settings& head() { return *reinterpret_cast<ethtool_link_settings*>(bytes_.data()); }

  bool bit(Mask mask, unsigned number) {
    uint32_t* word = place(mask, number);
    return word != nullptr && (*word >> (number % 32) & 1) != 0;
  }

  void set_bit(Mask mask, unsigned number, bool value) {
    uint32_t* word = place(mask, number);
    if (word != nullptr) {
      const uint32_t one = uint32_t{1} << (number % 32);
      *word = value ? *word | one : *word & ~one;
    }
  }

  /// Advertises what is supported of the bits that `wanted` wants.
  template <typename Wanted>
  void advertise(Wanted wanted) {
    for (unsigned i = 0; i < words() * 32; i++) {
      set_bit(advertising, i, bit(supported, i) && wanted(i));
    }
  }

 private:
  size_t words() { return static_cast<size_t>(std::max<int>(head().link_mode_masks_nwords, 0)); }

  uint32_t* place(Mask mask, unsigned number) {
    const size_t word = number / 32;
    auto* masks = reinterpret_cast<uint32_t*>(bytes_.data() + sizeof(ethtool_link_settings));
    return word < words() ? masks + mask * words() + word : nullptr;
  }

  std::string call() {
    const int error = call_(interface_, bytes_.data());
    return error == 0 ? "" : strerror(error);
  }

  const std::string& interface_;
  const EthtoolCall& call_;
  alignas(8) std::array<char, sizeof(ethtool_link_settings) + 3 * kWordsMax * 4> bytes_{};
};

}  // namespace

int ethtool_ioctl(const std::string& interface, void* record) {
  ifreq request{};
  if (interface.size() >= sizeof request.ifr_name) {
    return ENODEV;
  }
  memcpy(request.ifr_name, interface.data(), interface.size());
  request.ifr_data = static_cast<char*>(record);
  const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return fd.valid() && ioctl(fd.get(), SIOCETHTOOL, &request) == 0 ? 0 : errno;
}

std::string ethtool_read(const std::string& interface, EthtoolLink& out, const EthtoolCall& call) {
  Settings settings(interface, call);
  std::string refusal = settings.read();
  if (!refusal.empty()) {
    return refusal;
  }
  out = {};
  const uint32_t speed = settings.head().speed;
  out.speed = speed <= 1000000 ? static_cast<int>(speed) : 0;  // all ones: unknown
  out.full = settings.head().duplex == DUPLEX_FULL;
  out.fibre = settings.head().port == PORT_FIBRE || settings.head().port == PORT_DA;
  for (const Mode& mode : kModes) {
    if (settings.bit(Settings::supported, mode.bit)) {
      out.max_speed = std::max(out.max_speed, mode.speed);
    }
  }
  return {};
}

std::string ethtool_set_speed(const std::string& interface, int code, const EthtoolCall& call) {
  Settings settings(interface, call);
  std::string refusal = settings.read();
  if (!refusal.empty()) {
    return refusal;
  }
  ethtool_link_settings& head = settings.head();
  const bool negotiates = settings.bit(Settings::supported, ETHTOOL_LINK_MODE_Autoneg_BIT);
  const int speed = speed_of_code(code);
  const int duplex = duplex_of_code(code);
  if (code == 0) {
    settings.advertise([](unsigned) { return true; });
    head.autoneg = AUTONEG_ENABLE;
    return settings.write();
  }
  bool possible = false;
  settings.advertise([speed, duplex, &possible](unsigned bit) {
    const auto* mode = std::find_if(std::begin(kModes), std::end(kModes),
                                    [bit](const Mode& each) { return each.bit == bit; });
    if (mode == std::end(kModes)) {
      return std::find(std::begin(kNoModes), std::end(kNoModes), bit) != std::end(kNoModes);
    }
    const bool wanted = mode->speed == speed && (duplex < 0 || mode->full == (duplex == 1));
    possible = possible || wanted;
    return wanted;
  });
  const bool only_choice = negotiates && (duplex < 0 || speed >= kNegotiatedFrom);
  if (only_choice && !possible) {
    return "the interface does not support this speed";
  }
  head.autoneg = only_choice ? AUTONEG_ENABLE : AUTONEG_DISABLE;
  head.speed = static_cast<uint32_t>(speed);
  head.duplex = duplex == 0 ? DUPLEX_HALF : DUPLEX_FULL;
  return settings.write();
}

}  // namespace morvad
