// SPDX-License-Identifier: Apache-2.0
//
// See support.h.
#include "tests/unit/vty/support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vtytest {
namespace {

using morva::shell::SessionKind;

int switch_agent(const cmd_element* element, vty* session, int argc, const char** argv) {
  enabled() = argv[0][0] == 'e' ? 1 : 0;
  return note_call(element, session, argc, argv);
}

int write_nothing(vty*) {
  return 1;
}

int write_agent(vty* session) {
  vty_out(session, enabled() != 0 ? "qel enable%s" : "qel disable%s", vty_newline(session));
  vty_out(session, "!%s", vty_newline(session));
  return 1;
}

constexpr cmd_node kInterface = {69, "", 1};
constexpr cmd_node kAgent = {97, "", 1};
constexpr cmd_node kOther = {68, "", 1};
constexpr cmd_element kSwitch = {"qel (enable|disable)", switch_agent,
                                 "Qel information\nEnable qel-eth\nDisable qel-eth\n"};
constexpr cmd_element kDebug = {
    "qel debug <0-255>", note_call,
    "Debugging functions (see also 'undebug')\nDebug qel module\nvalue 0~255\n"};

}  // namespace

std::vector<std::string>& calls() {
  static std::vector<std::string> instance;
  return instance;
}

int& enabled() {
  static int instance = 1;
  return instance;
}

int note_call(const cmd_element* element, vty*, int argc, const char** argv) {
  std::string call = element->string;
  for (int i = 0; i < argc; i++) {
    call += std::string(i == 0 ? " -> " : " ") + argv[i];
  }
  calls().push_back(call);
  return 0;
}

void install_daemon() {
  calls().clear();
  enabled() = 1;
  cmd_init(1);
  memory_init();
  install_node(&kInterface, write_nothing);
  install_node(&kAgent, write_agent);
  install_node(&kOther, nullptr);
  install_default(68);
  install_default(69);
  install_element(VTY_NODE_CONFIG, &morva_interface_cmd);
  install_element(69, &morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &no_morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &kSwitch);
  install_element(VTY_NODE_CONFIG, &kDebug);
}

void Screen::feed(std::string_view bytes) {
  for (size_t i = 0; i < bytes.size(); i++) {
    switch (bytes[i]) {
      case '\r':
        column_ = 0;
        break;
      case '\n':
        rows_[row_].wrapped = false;
        row_++;
        rows_.resize(std::max(rows_.size(), row_ + 1));
        break;
      case '\b':
        ASSERT_GT(column_, 0u) << "stepped back over the edge";
        ASSERT_LT(column_, columns_) << "stepped back from the end of a full row";
        column_--;
        break;
      case '\a':
        bells_++;
        break;
      case '\x1b': {
        ASSERT_EQ(bytes.substr(i + 1, 1), "[");
        size_t number = 0;
        for (i += 2; i < bytes.size() && bytes[i] >= '0' && bytes[i] <= '9'; i++) {
          number = number * 10 + static_cast<size_t>(bytes[i] - '0');
        }
        ASSERT_LT(i, bytes.size());
        command(bytes[i], number);
        break;
      }
      default:
        print(bytes[i]);
    }
  }
}

void Screen::print(char letter) {
  ASSERT_TRUE(letter >= 0x20 && letter < 0x7f) << "not for a terminal: " << int{letter};
  if (column_ == columns_) {
    rows_[row_].wrapped = true;
    row_++;
    rows_.resize(std::max(rows_.size(), row_ + 1));
    column_ = 0;
  }
  std::string& text = rows_[row_].text;
  text.resize(std::max(text.size(), column_ + 1), ' ');
  text[column_++] = letter;
}

void Screen::command(char letter, size_t number) {
  if (letter == 'A') {
    ASSERT_LE(number, row_) << "went up over the edge";
    row_ -= number;
  } else {
    ASSERT_EQ(letter, 'C');
    ASSERT_LT(column_ + number, columns_) << "went right over the edge";
    column_ += number;
  }
}

size_t Screen::first_row_of_line() const {
  size_t row = row_;
  while (row > 0 && rows_[row - 1].wrapped) {
    row--;
  }
  return row;
}

namespace {

std::string without_blanks_behind(const std::string& text) {
  const size_t last = text.find_last_not_of(' ');
  return last == std::string::npos ? "" : text.substr(0, last + 1);
}

}  // namespace

// The line that begins in `row`, which is then the row below it.
std::string Screen::line_from(size_t& row) const {
  std::string text;
  while (row + 1 < rows_.size() && rows_[row].wrapped) {
    text += rows_[row].text;
    text.resize((text.size() + columns_ - 1) / columns_ * columns_, ' ');
    row++;
  }
  return without_blanks_behind(text + rows_[row++].text);
}

std::string Screen::row() const {
  size_t row = first_row_of_line();
  return line_from(row);
}

size_t Screen::column() const {
  return (row_ - first_row_of_line()) * columns_ + column_;
}

std::string Screen::text() const {
  size_t row = 0;
  std::string text = line_from(row);
  while (row < rows_.size()) {
    text += "\n" + line_from(row);
  }
  return text;
}

std::string Screen::rows() const {
  std::string text;
  for (const Row& row : rows_) {
    text += (&row == rows_.data() ? "" : "\n") + without_blanks_behind(row.text);
  }
  return text;
}

Shell::Shell(SessionKind kind) : session_(morva::shell::session_open(kind)) {}

std::string Shell::exchange(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view chunk = bytes.substr(0, morva::shell::kInputChunk);
    bytes.remove_prefix(chunk.size());
    morva::shell::session_feed(*session_,
                               {reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size()});
    while (morva::shell::session_has_input(*session_) && !session_->closing && !session_->dropped) {
      morva::shell::session_step(*session_);
    }
  }
  return std::exchange(session_->output, std::string());
}

void Shell::type(std::string_view bytes) {
  screen_.feed(exchange(bytes));
}

Root::Root() {
  char name[] = "/tmp/vty-test-XXXXXX";
  folder_ = mkdtemp(name);
  std::filesystem::create_directories(folder_ + "/var/conf");
  std::filesystem::create_directories(folder_ + "/var/run");
  setenv("MORVA_ROOT", folder_.c_str(), 1);
}

Root::~Root() {
  unsetenv("MORVA_ROOT");
  std::filesystem::remove_all(folder_);
}

std::string Root::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void Root::write(const std::string& name, std::string_view text) const {
  std::ofstream(path(name), std::ios::binary) << text;
}

}  // namespace vtytest
