// SPDX-License-Identifier: Apache-2.0
//
// See log.h.
#include "platform/linux/morvad/log.h"

#include <unistd.h>

#include <string>

namespace morvad {

void log_line(std::string_view text) {
  std::string line = "morvad: ";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    line += byte < 0x20 || byte == 0x7f ? '?' : c;
  }
  line += '\n';
  // One write for one line, so that lines of several processes do not mix. A log that cannot be
  // written has nowhere left to say so.
  const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  (void)written;
}

}  // namespace morvad
