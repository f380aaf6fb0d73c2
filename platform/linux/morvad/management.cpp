// SPDX-License-Identifier: Apache-2.0
//
// See management.h.
#include "platform/linux/morvad/management.h"

#include <cstring>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/names.h"

namespace morvad {

void apply_management(Switch& sw, Host& host) {
  const Management& built = sw.board().management;
  Settings& settings = sw.settings();
  Address wanted = {settings.text(built.interface + ".ip", built.ip),
                    settings.number(built.interface + ".mask", built.mask)};
  if (!is_host_address(wanted.ip) || wanted.prefix < 0 || wanted.prefix > 32) {
    wanted = {built.ip, built.mask};
  }
  Address now;
  if (wanted.ip.empty() || (host.address_get(built.interface, now) && now.ip == wanted.ip &&
                            now.prefix == wanted.prefix)) {
    return;
  }
  const int result = host.address_set(built.interface, wanted);
  if (result != 0) {
    log_line(built.interface + ": address " + wanted.ip + " not set: " + strerror(-result));
  }
}

}  // namespace morvad
