// SPDX-License-Identifier: Apache-2.0
//
// See vty_editor.h.
#include "platform/linux/vty_editor.h"

#include <algorithm>

namespace morva::shell {
namespace {

constexpr uint8_t control(char letter) {
  return static_cast<uint8_t>(letter & 0x1f);
}

constexpr uint8_t kEscape = 0x1b;
constexpr uint8_t kDelete = 0x7f;
constexpr unsigned kParameterMaximum = 999;
constexpr char kStepBack = '\b';
constexpr char kBell = '\a';

// Goes back from one place of the line to another.
void step_back(const Editor& editor, size_t from, size_t to, std::string& echo) {
  const size_t rows =
      (editor.prompt + from) / editor.columns - (editor.prompt + to) / editor.columns;
  if (rows == 0) {
    echo.append(from - to, kStepBack);
    return;
  }
  echo += "\x1b[" + std::to_string(rows) + "A\r";
  const size_t column = (editor.prompt + to) % editor.columns;
  if (column != 0) {
    echo += "\x1b[" + std::to_string(column) + "C";
  }
}

// To be called when the line was printed up to `place`. At the end of a row one terminal waits
// there for the next letter, another is in the next row already: the letter of the place, printed
// and stepped back from, makes them agree.
void settle(const Editor& editor, size_t place, std::string& echo) {
  if (place != 0 && (editor.prompt + place) % editor.columns == 0) {
    echo += place < editor.line.size() ? editor.line[place] : ' ';
    echo += '\r';
  }
}

// Prints what stands behind the cursor, wipes `gone` columns after it, and returns to the cursor.
void show_tail(const Editor& editor, size_t gone, std::string& echo) {
  const size_t end = editor.line.size() + gone;
  echo.append(editor.line, editor.cursor, std::string::npos);
  echo.append(gone, ' ');
  settle(editor, end, echo);
  step_back(editor, end, editor.cursor, echo);
}

void move_to(Editor& editor, size_t target, std::string& echo) {
  if (target < editor.cursor) {
    step_back(editor, editor.cursor, target, echo);
  } else if (target > editor.cursor) {
    echo.append(editor.line, editor.cursor, target - editor.cursor);
    settle(editor, target, echo);
  }
  editor.cursor = target;
}

void move_left(Editor& editor, std::string& echo) {
  move_to(editor, editor.cursor - (editor.cursor > 0 ? 1 : 0), echo);
}

// Removes the `count` bytes at the cursor (as many as there are).
void erase_right(Editor& editor, size_t count, std::string& echo) {
  const size_t gone = std::min(count, editor.line.size() - editor.cursor);
  if (gone != 0) {
    editor.line.erase(editor.cursor, gone);
    show_tail(editor, gone, echo);
  }
}

// Removes everything between `start` (not behind the cursor) and the cursor.
void erase_back_to(Editor& editor, size_t start, std::string& echo) {
  const size_t count = editor.cursor - start;
  move_to(editor, start, echo);
  erase_right(editor, count, echo);
}

size_t word_start(const Editor& editor) {
  size_t start = editor.cursor;
  while (start > 0 && editor.line[start - 1] == ' ') {
    start--;
  }
  while (start > 0 && editor.line[start - 1] != ' ') {
    start--;
  }
  return start;
}

// The final letter of "ESC [ letter" and "ESC O letter".
EditorAction feed_arrow(Editor& editor, uint8_t byte, std::string& echo) {
  switch (byte) {
    case 'A':
      return EditorAction::kPrevious;
    case 'B':
      return EditorAction::kNext;
    case 'C':
      editor_move_right(editor, echo);
      break;
    case 'D':
      move_left(editor, echo);
      break;
    case 'H':
      move_to(editor, 0, echo);
      break;
    case 'F':
      move_to(editor, editor.line.size(), echo);
      break;
    default:
      break;
  }
  return EditorAction::kNone;
}

// "ESC [ number ~": the keys of the block above the arrows.
void feed_numbered(Editor& editor, std::string& echo) {
  switch (editor.parameter) {
    case 1:
    case 7:
      move_to(editor, 0, echo);
      break;
    case 3:
      erase_right(editor, 1, echo);
      break;
    case 4:
    case 8:
      move_to(editor, editor.line.size(), echo);
      break;
    default:
      break;
  }
}

EditorAction feed_sequence(Editor& editor, uint8_t byte, std::string& echo) {
  if (byte >= '0' && byte <= '9') {
    editor.parameter = std::min(editor.parameter * 10 + (byte - '0'), kParameterMaximum);
    return EditorAction::kNone;
  }
  if (byte >= 0x20 && byte < 0x40) {
    editor.parameter = 0;  // further parameters: only the last counts
    return EditorAction::kNone;
  }
  editor.input = Editor::Input::kPlain;
  if (byte == '~') {
    feed_numbered(editor, echo);
    return EditorAction::kNone;
  }
  return feed_arrow(editor, byte, echo);
}

// Keys that move or erase. Returns false when `byte` is none of them.
bool feed_edit_key(Editor& editor, uint8_t byte, std::string& echo) {
  switch (byte) {
    case control('A'):
      move_to(editor, 0, echo);
      return true;
    case control('B'):
      move_left(editor, echo);
      return true;
    case control('E'):
      move_to(editor, editor.line.size(), echo);
      return true;
    case control('F'):
      editor_move_right(editor, echo);
      return true;
    case control('H'):
    case kDelete:
      erase_back_to(editor, editor.cursor - (editor.cursor > 0 ? 1 : 0), echo);
      return true;
    case control('K'):
      erase_right(editor, editor.line.size(), echo);
      return true;
    case control('U'):
      erase_back_to(editor, 0, echo);
      return true;
    case control('W'):
      erase_back_to(editor, word_start(editor), echo);
      return true;
    default:
      return false;
  }
}

EditorAction feed_control(Editor& editor, uint8_t byte, std::string& echo) {
  switch (byte) {
    case control('M'):
      editor.after_return = true;
      return EditorAction::kEnter;
    case control('J'):
      return EditorAction::kEnter;
    case control('I'):
      return EditorAction::kComplete;
    case control('C'):
      return EditorAction::kInterrupt;
    case control('D'):
      if (editor.line.empty()) {
        return EditorAction::kEndOfFile;
      }
      erase_right(editor, 1, echo);
      return EditorAction::kNone;
    case control('L'):
      return EditorAction::kRedraw;
    case control('N'):
      return EditorAction::kNext;
    case control('P'):
      return EditorAction::kPrevious;
    case control('Z'):
      return EditorAction::kLeave;
    case control('V'):
      editor.input = Editor::Input::kQuoted;
      return EditorAction::kNone;
    case kEscape:
      editor.input = Editor::Input::kEscape;
      return EditorAction::kNone;
    default:
      if (!feed_edit_key(editor, byte, echo) && byte != 0) {
        echo += kBell;  // but for NUL, with which a line may be padded
      }
      return EditorAction::kNone;
  }
}

// Takes a byte for the line, if it is one.
void feed_text(Editor& editor, uint8_t byte, std::string& echo) {
  if (byte < 0x20 || byte >= 0x7f) {
    echo += kBell;
    return;
  }
  const char printable = static_cast<char>(byte);
  editor_insert(editor, {&printable, 1}, echo);
}

EditorAction feed_plain(Editor& editor, uint8_t byte, std::string& echo) {
  if (byte == '?') {
    return EditorAction::kHelp;
  }
  if (byte < 0x20 || byte == kDelete) {
    return feed_control(editor, byte, echo);
  }
  feed_text(editor, byte, echo);
  return EditorAction::kNone;
}

}  // namespace

EditorAction editor_feed(Editor& editor, uint8_t byte, std::string& echo) {
  // A terminal's Enter is CR LF or CR NUL: the second byte belongs to the first.
  const bool second_half = editor.after_return && (byte == '\n' || byte == '\0');
  editor.after_return = false;
  if (second_half) {
    return EditorAction::kNone;
  }
  switch (editor.input) {
    case Editor::Input::kPlain:
      return feed_plain(editor, byte, echo);
    case Editor::Input::kEscape:
      editor.parameter = 0;
      editor.input = byte == '['   ? Editor::Input::kSequence
                     : byte == 'O' ? Editor::Input::kFunction
                                   : Editor::Input::kPlain;
      // A line end behind a stray ESC is still a line end.
      return byte == '\r' || byte == '\n' ? feed_control(editor, byte, echo) : EditorAction::kNone;
    case Editor::Input::kSequence:
      if (byte < 0x20) {
        editor.input = Editor::Input::kPlain;
        return feed_control(editor, byte, echo);
      }
      return feed_sequence(editor, byte, echo);
    case Editor::Input::kFunction:
      editor.input = Editor::Input::kPlain;
      return byte < 0x20 ? feed_control(editor, byte, echo) : feed_arrow(editor, byte, echo);
    case Editor::Input::kQuoted:
      editor.input = Editor::Input::kPlain;
      feed_text(editor, byte, echo);
      return EditorAction::kNone;
  }
  return EditorAction::kNone;
}

void editor_insert(Editor& editor, std::string_view text, std::string& echo) {
  const size_t room = Editor::kMaximum - editor.line.size();
  if (text.size() > room) {
    if (!editor.overlong) {
      echo += kBell;
    }
    editor.overlong = true;
    text = text.substr(0, room);
  }
  if (text.empty()) {
    return;
  }
  editor.line.insert(editor.cursor, text);
  echo += text;
  editor.cursor += text.size();
  show_tail(editor, 0, echo);
}

void editor_replace(Editor& editor, std::string_view text, std::string& echo) {
  const size_t old_size = editor.line.size();
  move_to(editor, 0, echo);
  editor.line.assign(text.substr(0, Editor::kMaximum));
  const size_t gone = old_size > editor.line.size() ? old_size - editor.line.size() : 0;
  editor.overlong = false;
  echo += editor.line;
  editor.cursor = editor.line.size();
  show_tail(editor, gone, echo);
}

void editor_move_right(Editor& editor, std::string& echo) {
  move_to(editor, std::min(editor.cursor + 1, editor.line.size()), echo);
}

void editor_leave(const Editor& editor, std::string& echo) {
  if (editor.cursor < editor.line.size()) {
    echo.append(editor.line, editor.cursor, std::string::npos);
    settle(editor, editor.line.size(), echo);
  }
}

void editor_clear(Editor& editor) {
  editor.line.clear();
  editor.cursor = 0;
  editor.overlong = false;
}

void editor_show(const Editor& editor, std::string& echo) {
  echo += editor.line;
  settle(editor, editor.line.size(), echo);
  step_back(editor, editor.line.size(), editor.cursor, echo);
}

}  // namespace morva::shell
