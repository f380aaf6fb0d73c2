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

// A terminal of endless height: what a user sees. A line that is wider than the screen wraps; the
// cursor waits at the end of a full row for the next letter, and does not step back from the first
// column into the row above.
class Screen {
 public:
  explicit Screen(size_t columns = 80) : columns_(columns) {}

  void feed(std::string_view bytes);

  // The line that the cursor is in, over all the rows that it wraps into, without blanks at its
  // end; and the cursor's place in it.
  std::string row() const;
  size_t column() const;
  // All lines, each without blanks at its end.
  std::string text() const;
  // All rows, the same.
  std::string rows() const;
  int bells() const { return bells_; }

 private:
  struct Row {
    std::string text;
    bool wrapped = false;  // its line goes on in the next row
  };

  void print(char letter);
  void command(char letter, size_t number);
  size_t first_row_of_line() const;
  std::string line_from(size_t& row) const;

  size_t columns_;
  std::vector<Row> rows_{1};
  size_t row_ = 0;
  size_t column_ = 0;  // columns_: waiting at the end of the row
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
