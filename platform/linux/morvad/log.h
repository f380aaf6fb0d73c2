// SPDX-License-Identifier: Apache-2.0
//
// morvad's log: one line each to standard error, where the service manager or the lab picks it up.
#ifndef MORVA_LINUX_MORVAD_LOG_H
#define MORVA_LINUX_MORVAD_LOG_H

#include <string_view>

namespace morvad {

/// Writes "morvad: TEXT". Control bytes of `text` are shown as '?': parts of it come from outside.
void log_line(std::string_view text);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_LOG_H
