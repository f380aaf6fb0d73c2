// SPDX-License-Identifier: Apache-2.0
//
// What the shell's tests share: a daemon's nodes and commands like those of the agent, a session
// without a socket, and a terminal that shows what it is sent.
#ifndef QEL_TESTS_UNIT_VTY_SUPPORT_H
#define QEL_TESTS_UNIT_VTY_SUPPORT_H

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/vty_internal.h"

namespace vtytest {

// What the test daemon's commands were called with, each call as its words joined by blanks.
std::vector<std::string>& calls();

// The test daemon's state, as "qel (enable|disable)" leaves it.
int& enabled();

// Begins anew: an empty shell, then the nodes and commands of a daemon.
void install_daemon();

// A command whose action notes its arguments in calls().
int note_call(const cmd_element* element, vty* session, int argc, const char** argv);

// A terminal of one endless row for each line: what a user sees.
class Screen {
 public:
  void feed(std::string_view bytes);

  // The row that the cursor is in, without blanks at its end.
  std::string row() const;
  size_t column() const { return column_; }
  // Everything above and the row, each line without blanks at its end.
  std::string text() const;
  int bells() const { return bells_; }

 private:
  std::string above_;
  std::string row_;
  size_t column_ = 0;
  int bells_ = 0;
};

// A session driven by hand.
class Shell {
 public:
  explicit Shell(morva::shell::SessionKind kind);

  // Sends bytes and runs the session until it has worked them off; shows the answer on the screen.
  void type(std::string_view bytes);
  // The same, and returns the raw answer.
  std::string exchange(std::string_view bytes);

  vty& session() { return *session_; }
  Screen& screen() { return screen_; }

 private:
  std::unique_ptr<vty> session_;
  Screen screen_;
};

// A folder of its own that MORVA_ROOT points to, with an empty /var/conf and /var/run in it.
class Root {
 public:
  Root();
  ~Root();
  std::string path(const std::string& name) const { return folder_ + name; }
  std::string read(const std::string& name) const;
  void write(const std::string& name, std::string_view text) const;

 private:
  std::string folder_;
};

}  // namespace vtytest

#endif  // QEL_TESTS_UNIT_VTY_SUPPORT_H
