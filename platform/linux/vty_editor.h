// SPDX-License-Identifier: Apache-2.0
//
// The line editor of the shell: takes a terminal's bytes one by one, keeps the line and its cursor,
// and says what to send back so that the terminal shows the same. It knows neither commands nor
// history; what it cannot do itself it returns as an action for the session.
//
// The terminal is asked to print, to step back within a row (BS), to ring (BEL), and, where the
// line has wrapped into several rows, to go up (CSI A) and right (CSI C): not every terminal steps
// back from the first column into the row above. Any byte may come. What is not printable ASCII and
// not a key is dropped with a ring, so the line is always printable text of at most
// Editor::kMaximum bytes.
#ifndef MORVA_PLATFORM_LINUX_VTY_EDITOR_H
#define MORVA_PLATFORM_LINUX_VTY_EDITOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace morva::shell {

struct Editor {
  static constexpr size_t kMaximum = 4096;  // bytes of a line

  std::string line;
  size_t cursor = 0;      // 0 to line.size()
  bool overlong = false;  // more was typed than fits; the line is not to be executed

  // Where the line stands on the terminal; told by the session.
  size_t columns = 80;  // of a row, not 0
  size_t prompt = 0;    // of them taken before the line begins; may be more than a row

  // Where the input stands; the editor's own.
  enum class Input { kPlain, kEscape, kSequence, kFunction, kQuoted };
  Input input = Input::kPlain;
  unsigned parameter = 0;  // of an escape sequence
  bool after_return = false;
};

enum class EditorAction {
  kNone,
  kEnter,      // the line is complete
  kHelp,       // "?"
  kComplete,   // tab
  kPrevious,   // an older line, please
  kNext,       // a newer one
  kInterrupt,  // ctrl-C: give the line up
  kLeave,      // ctrl-Z: give the line up and leave the configuration
  kEndOfFile,  // ctrl-D on an empty line
  kRedraw,     // ctrl-L
};

// Takes one byte. What the terminal must be sent is appended to `echo`. After any action the line
// is still there; the session clears or keeps it.
EditorAction editor_feed(Editor& editor, uint8_t byte, std::string& echo);

// Inserts printable text at the cursor; what does not fit is dropped, marks the line overlong and
// rings.
void editor_insert(Editor& editor, std::string_view text, std::string& echo);

// Puts `text` in place of the line, cursor at its end.
void editor_replace(Editor& editor, std::string_view text, std::string& echo);

// Moves one place to the right, if there is one.
void editor_move_right(Editor& editor, std::string& echo);

// Takes the terminal, but not the line's cursor, to the end of the line: what is printed next
// overprints nothing.
void editor_leave(const Editor& editor, std::string& echo);

// Forgets the line, silently.
void editor_clear(Editor& editor);

// Prints the line anew after a prompt, with the cursor in its place.
void editor_show(const Editor& editor, std::string& echo);

}  // namespace morva::shell

#endif  // MORVA_PLATFORM_LINUX_VTY_EDITOR_H
