// SPDX-License-Identifier: Apache-2.0
//
// One session without its socket: what the client's bytes do, and what the client gets to see. The
// server (vty_server.cpp) moves the bytes; tests and fuzzers do it by hand.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/linux/vty_internal.h"
#include "platform/list.h"
#include "platform/uif.h"

namespace morva::shell {
namespace {

constexpr unsigned kWidthDefault = 80;
constexpr size_t kExcerptBefore = 30;  // bytes of a long line shown before and after a fault
constexpr size_t kExcerptAfter = 30;
constexpr std::string_view kExcerptIndent = "  ";

bool echoes(const vty& session) {
  return session.kind == SessionKind::kTelnet && telnet_echoes(session);
}

void end_line(vty& session) {
  session_write(session, vty_newline(&session));
}

void say(vty& session, std::string_view text) {
  session_write(session, text);
  end_line(session);
}

// Columns of a row of the terminal; a program at the other end has endless rows.
size_t width_of(const vty& session) {
  if (session.kind != SessionKind::kTelnet) {
    return std::string::npos;
  }
  return session.terminal_width != 0 ? session.terminal_width : kWidthDefault;
}

void show_prompt(vty& session) {
  const std::string prompt = session_prompt(session);
  session.editor.prompt = prompt.size();
  session_write(session, prompt);
}

// Goes on below the line, wherever in it the cursor is.
void leave_line(vty& session, std::string_view mark = "") {
  if (echoes(session)) {
    std::string text;
    editor_leave(session.editor, text);
    session_write(session, text + std::string(mark));
  }
  end_line(session);
}

// Prompt and line again, after something was printed in between.
void show_line_again(vty& session) {
  show_prompt(session);
  std::string text;
  editor_show(session.editor, text);
  session_write(session, text);
}

// Puts a caret under `column` of `line`: under the line as it stands on the terminal if the
// terminal shows it (on one row), or else under a part of it that is printed for the purpose.
void point_at(vty& session, std::string_view line, size_t column) {
  const size_t prompt = session_prompt(session).size();
  const size_t width = width_of(session);
  if (echoes(session) && prompt + line.size() < width && prompt + column < width) {
    say(session, std::string(prompt + column, ' ') + "^");
    return;
  }
  const size_t begin = column > kExcerptBefore ? column - kExcerptBefore : 0;
  std::string excerpt(kExcerptIndent);
  excerpt += line.substr(std::min(begin, line.size()), column - begin + kExcerptAfter);
  say(session, excerpt);
  say(session, std::string(kExcerptIndent.size() + column - begin, ' ') + "^");
}

const char* text_of(MatchStatus status) {
  switch (status) {
    case MatchStatus::kUnknown:
      return "% Unknown command";
    case MatchStatus::kAmbiguous:
      return "% Ambiguous command";
    case MatchStatus::kIncomplete:
      return "% Command incomplete";
    case MatchStatus::kOk:
    case MatchStatus::kEmpty:
      break;
  }
  return "";
}

std::span<const Pattern> patterns_of(const vty& session) {
  const Node* node = node_find(session.node);
  return node != nullptr ? std::span<const Pattern>(node->patterns) : std::span<const Pattern>();
}

// The interfaces of the switch, in its order.
std::vector<std::string_view> interface_names() {
  std::vector<std::string_view> names;
  const listnode* at = g_uif_list != nullptr ? g_uif_list->head : nullptr;
  for (; at != nullptr; at = at->next) {
    names.emplace_back(static_cast<const uif*>(at->data)->name);
  }
  return names;
}

void print_rows(vty& session, const std::vector<Choice>& rows) {
  size_t width = 0;
  for (const Choice& row : rows) {
    width = std::max(width, row.word.size());
  }
  for (const Choice& row : rows) {
    std::string text(kExcerptIndent);
    text += row.word;
    if (!row.help.empty()) {
      text.append(width - row.word.size() + 2, ' ');
      text += row.help;
    }
    say(session, text);
  }
}

void on_help(vty& session) {
  const std::string_view typed =
      std::string_view(session.editor.line).substr(0, session.editor.cursor);
  const HelpResult help = match_help(patterns_of(session), typed, interface_names());
  leave_line(session, "?");
  if (help.status == MatchStatus::kOk) {
    print_rows(session, help.rows);
  } else {
    point_at(session, session.editor.line, help.column);
    say(session, text_of(help.status));
  }
  if (!echoes(session)) {
    // Such a client sends whole lines: the rest of this one is its line end.
    editor_clear(session.editor);
  }
  show_line_again(session);
}

void on_complete(vty& session) {
  Editor& editor = session.editor;
  Completion completion =
      match_complete(patterns_of(session), std::string_view(editor.line).substr(0, editor.cursor),
                     interface_names());
  std::string echo;
  if (!echoes(session)) {
    // A tab in a line that was sent as a whole is a blank, unless it can finish a word.
    const bool unique = completion.candidates.size() == 1;
    editor_insert(editor, unique ? std::string_view(completion.insertion) : " ", echo);
    return;
  }
  if (!completion.insertion.empty()) {
    // A finished word is followed by a blank: the one that is there already, if there is one.
    const bool reuse = completion.insertion.back() == ' ' && editor.cursor < editor.line.size() &&
                       editor.line[editor.cursor] == ' ';
    if (reuse) {
      completion.insertion.pop_back();
    }
    editor_insert(editor, completion.insertion, echo);
    if (reuse) {
      editor_move_right(editor, echo);
    }
    session_write(session, echo);
    return;
  }
  if (completion.candidates.empty()) {
    session_write(session, "\a");
    return;
  }
  leave_line(session);
  for (const std::string_view word : completion.candidates) {
    say(session, std::string(kExcerptIndent) + std::string(word));
  }
  show_line_again(session);
}

void recall(vty& session, bool older) {
  History& history = session.history;
  if (older ? history.position == 0 : history.position >= history.lines.size()) {
    return;
  }
  if (history.position == history.lines.size()) {
    history.draft = session.editor.line;
  }
  history.position += older ? static_cast<size_t>(-1) : 1;
  const bool at_draft = history.position == history.lines.size();
  std::string echo;
  editor_replace(session.editor, at_draft ? history.draft : history.lines[history.position], echo);
  if (echoes(session)) {
    session_write(session, echo);
  }
}

void remember(History& history, const std::string& line) {
  const bool blank = line.find_first_not_of(' ') == std::string::npos;
  if (!blank && (history.lines.empty() || history.lines.back() != line)) {
    if (history.lines.size() == kHistoryMaximum) {
      history.lines.erase(history.lines.begin());
    }
    history.lines.push_back(line);
  }
  history.position = history.lines.size();
  history.draft.clear();
}

void on_enter(vty& session) {
  if (echoes(session)) {
    leave_line(session);
  }
  const std::string line = session.editor.line;
  const bool overlong = session.editor.overlong;
  editor_clear(session.editor);
  if (overlong) {
    say(session, "% Line too long");
    session.history.position = session.history.lines.size();
  } else {
    remember(session.history, line);
    session_execute(session, line);
  }
  if (!session.closing) {
    show_prompt(session);
  }
}

void on_give_up(vty& session, bool leave) {
  if (leave && session.node >= VTY_NODE_CONFIG) {
    session.node = VTY_NODE_ENABLE;
    session.interface.clear();
  }
  leave_line(session);
  editor_clear(session.editor);
  session.history.position = session.history.lines.size();
  show_prompt(session);
}

void act(vty& session, EditorAction action) {
  switch (action) {
    case EditorAction::kNone:
      break;
    case EditorAction::kEnter:
      on_enter(session);
      break;
    case EditorAction::kHelp:
      on_help(session);
      break;
    case EditorAction::kComplete:
      on_complete(session);
      break;
    case EditorAction::kPrevious:
    case EditorAction::kNext:
      recall(session, action == EditorAction::kPrevious);
      break;
    case EditorAction::kInterrupt:
    case EditorAction::kLeave:
      on_give_up(session, action == EditorAction::kLeave);
      break;
    case EditorAction::kEndOfFile:
      end_line(session);
      session.closing = true;
      break;
    case EditorAction::kRedraw:
      leave_line(session);
      show_line_again(session);
      break;
  }
}

}  // namespace

std::unique_ptr<vty> session_open(SessionKind kind) {
  auto session = std::make_unique<vty>(kind);
  if (kind == SessionKind::kTelnet) {
    telnet_open(*session);
    if (session->telnet == nullptr) {
      return nullptr;
    }
  }
  return session;
}

void session_greet(vty& session) {
  if (session.kind == SessionKind::kTelnet) {
    telnet_greet(session);
    end_line(session);
    say(session, "Command shell of " + settings().host_name + ". Type ? for help.");
    end_line(session);
  }
  show_prompt(session);
}

void session_feed(vty& session, std::span<const uint8_t> bytes) {
  session.input.erase(0, session.input_used);
  session.input_used = 0;
  if (session.kind == SessionKind::kTelnet) {
    telnet_feed(session, bytes);
  } else {
    session.input.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
}

bool session_has_input(const vty& session) {
  return session.input_used < session.input.size();
}

void session_step(vty& session) {
  std::string echo;
  EditorAction action = EditorAction::kNone;
  session.editor.columns = width_of(session);
  while (session_has_input(session) && action == EditorAction::kNone &&
         echo.size() < kOutputPause) {
    const uint8_t byte = static_cast<uint8_t>(session.input[session.input_used++]);
    action = editor_feed(session.editor, byte, echo);
    if (!echoes(session)) {
      echo.clear();
    }
  }
  session_write(session, echo);
  act(session, action);
}

void session_expire(vty& session) {
  leave_line(session);
  say(session, "% Idle time-out, closing the session");
  session.closing = true;
}

bool session_execute(vty& session, std::string_view line) {
  const MatchResult match = match_line(patterns_of(session), line);
  if (match.status == MatchStatus::kEmpty) {
    return true;
  }
  if (match.status != MatchStatus::kOk) {
    point_at(session, line, match.column);
    say(session, text_of(match.status));
    return false;
  }
  std::vector<const char*> arguments;
  for (const std::string& argument : match.arguments) {
    arguments.push_back(argument.c_str());
  }
  const int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  const cmd_element* element = match.pattern->element;
  return element->func(element, &session, count, arguments.data()) == 0;
}

std::string session_prompt(const vty& session) {
  const Node* node = node_find(session.node);
  std::string prompt = node != nullptr ? node->installed->prompt : "";
  if (prompt.empty()) {
    const bool is_interface = session.node == kInterfaceNode;
    prompt = "%s(config-" + (is_interface ? "if" : std::to_string(session.node)) + ")# ";
  }
  const size_t place = prompt.find("%s");
  if (place != std::string::npos) {
    prompt.replace(place, 2, settings().host_name);
  }
  return prompt;
}

bool session_write(vty& session, std::string_view text) {
  if (session.telnet != nullptr && !session.dropped) {
    telnet_write(session, text);
    return !session.dropped;
  }
  return session_write_raw(session, text);
}

bool session_write_raw(vty& session, std::string_view bytes) {
  if (session.dropped || bytes.size() > session.output_maximum - session.output.size()) {
    session.dropped = true;
    session.output.clear();
    return false;
  }
  session.output += bytes;
  return true;
}

}  // namespace morva::shell

vty::~vty() {
  morva::shell::telnet_close(*this);
}

int vty_out(struct vty* vty, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) {
    return -1;
  }
  const bool written = morva::shell::session_write(*vty, {text, static_cast<size_t>(length)});
  free(text);
  return written ? length : -1;
}

const char* vty_newline(const struct vty* vty) {
  return vty->kind == morva::shell::SessionKind::kTelnet ? "\r\n" : "\n";
}
