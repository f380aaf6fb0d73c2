// SPDX-License-Identifier: Apache-2.0
//
// The terminal as a screen to draw on: entered and left as one, left on any end that a process can
// notice.
#pragma once

#include <cstddef>
#include <string>

#include <termios.h>

namespace qel_gateway::cli {

struct ScreenSize {
  size_t columns = 80;
  size_t rows = 24;
};

// While one of these lives, the terminal shows another screen, without cursor, and keys come at
// once and unechoed. At most one at a time.
class Screen {
 public:
  // Throws Error (usage) when standard input or output is no terminal.
  Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen();

  static ScreenSize size();

  // Draws `lines` (of text that fits the screen) from the top, over what was there.
  static void draw(const std::string& lines);

  // The next key that was pressed, if any; 0 otherwise. Arrows come as 'A' (up) and 'B' (down).
  static char key();
};

// A descriptor that is readable when a key was pressed, when a signal ended the program's work, or
// when the window changed its size; valid as long as this lives.
class WakeDescriptor {
 public:
  WakeDescriptor();
  WakeDescriptor(const WakeDescriptor&) = delete;
  WakeDescriptor& operator=(const WakeDescriptor&) = delete;
  ~WakeDescriptor();

  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace qel_gateway::cli
