// SPDX-License-Identifier: Apache-2.0
//
// The command shell without sessions of its own: nodes and elements are recorded, tests run an
// installed command by its node and words, and read what it wrote.
#include "platform/vty.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

struct vty {
  bool terminal = false;
  std::string text;
};

namespace {

struct InstalledNode {
  const cmd_node* node;
  int (*write)(struct vty*);
};

struct State {
  std::vector<InstalledNode> nodes;
  std::map<int, std::vector<const cmd_element*>> elements;
  std::vector<std::unique_ptr<struct vty>> sessions;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

int do_nothing(const cmd_element*, struct vty*, int, const char*[]) {
  return 0;
}

std::vector<std::string> words_of(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

bool is_number_between(const std::string& word, const std::string& range) {
  long low = 0;
  long high = 0;
  char* end = nullptr;
  const long value = std::strtol(word.c_str(), &end, 10);
  return std::sscanf(range.c_str(), "<%ld-%ld>", &low, &high) == 2 && *end == '\0' &&
         end != word.c_str() && value >= low && value <= high;
}

// A shell hands a shortened word on as it was typed.
bool is_alternative(const std::string& word, const std::string& alternatives) {
  std::istringstream stream(alternatives.substr(1, alternatives.size() - 2));
  for (std::string one; std::getline(stream, one, '|');) {
    if (one.starts_with(word)) {
      return true;
    }
  }
  return false;
}

// One word against one place of the syntax; `variable` tells whether the place is an argument.
bool place_matches(const std::string& place, const std::string& word, bool& variable) {
  variable = true;
  if (place.front() == '(') {
    return is_alternative(word, place);
  }
  if (place.front() == '<') {
    return is_number_between(word, place);
  }
  if (std::isupper(static_cast<unsigned char>(place.front())) != 0) {
    return true;
  }
  variable = false;
  return place == word;
}

bool matches(const std::string& syntax, const std::vector<std::string>& words,
             std::vector<const char*>& arguments) {
  const std::vector<std::string> places = words_of(syntax);
  arguments.clear();
  if (places.size() != words.size()) {
    return false;
  }
  for (size_t i = 0; i < places.size(); ++i) {
    bool variable = false;
    if (!place_matches(places[i], words[i], variable)) {
      return false;
    }
    if (variable) {
      arguments.push_back(words[i].c_str());
    }
  }
  return true;
}

}  // namespace

extern "C" {

const struct cmd_element morva_interface_cmd = {"interface NAME", do_nothing, "Interface\nName\n"};
const struct cmd_element no_morva_interface_cmd = {"no interface NAME", do_nothing,
                                                   "No\nInterface\nName\n"};

void cmd_init(int terminal) {
  fake::internal::record("cmd_init(%d)", terminal);
}

void vty_init(struct thread_master* master) {
  fake::internal::record("vty_init(%s)", master == fake::master() ? "master" : "?");
}

void memory_init(void) {
  fake::internal::record("memory_init()");
}

void install_node(const struct cmd_node* node, int (*config_write)(struct vty* vty)) {
  fake::internal::record("install_node(%d, \"%s\", %d, %s)", node->node, node->prompt, node->vtysh,
                         config_write == nullptr ? "no writer" : "writer");
  state().nodes.push_back({node, config_write});
}

void install_element(int node, const struct cmd_element* element) {
  fake::internal::record("install_element(%d, %s)", node, element->string);
  state().elements[node].push_back(element);
}

void install_default(int node) {
  fake::internal::record("install_default(%d)", node);
}

void vty_serv_sock(const char* address, unsigned short port, const char* path) {
  fake::internal::record("vty_serv_sock(%s, %u, %s)", address == nullptr ? "NULL" : address, port,
                         path);
}

int vty_out(struct vty* vty, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length >= 0) {
    vty->text.append(text, static_cast<size_t>(length));
    free(text);
  }
  return length;
}

const char* vty_newline(const struct vty* vty) {
  return vty->terminal ? "\r\n" : "\n";
}

void host_init(unsigned protocols, int flags) {
  fake::internal::record("host_init(0x%x, %d)", protocols, flags);
}

int pid_output(const char* path) {
  fake::internal::record("pid_output(%s)", path);
  return fake::internal::platform_fails("pid_output") ? -1 : 1234;
}

}  // extern "C"

namespace fake {

struct vty* vty_session(bool terminal) {
  state().sessions.push_back(std::make_unique<struct vty>());
  state().sessions.back()->terminal = terminal;
  return state().sessions.back().get();
}

std::string vty_text(const struct vty* vty) {
  return vty->text;
}

CommandResult run_command(int node, const std::string& line, bool terminal) {
  const std::vector<std::string> words = words_of(line);
  std::vector<const char*> arguments;
  for (const cmd_element* element : state().elements[node]) {
    if (matches(element->string, words, arguments)) {
      struct vty session;
      session.terminal = terminal;
      const int count = static_cast<int>(arguments.size());
      arguments.push_back(nullptr);
      const int result = element->func(element, &session, count, arguments.data());
      return {true, result, session.text};
    }
  }
  return {false, 0, ""};
}

std::string config_text(int node, bool terminal, int* lines) {
  struct vty session;
  session.terminal = terminal;
  for (const InstalledNode& installed : state().nodes) {
    if (installed.node->node == node && installed.write != nullptr) {
      const int result = installed.write(&session);
      if (lines != nullptr) {
        *lines = result;
      }
    }
  }
  return session.text;
}

const std::vector<Node>& nodes() {
  static auto* const shown = new std::vector<Node>;
  shown->clear();
  for (const InstalledNode& one : state().nodes) {
    shown->push_back({one.node->node, one.node->prompt, one.node->vtysh, one.write != nullptr});
  }
  return *shown;
}

std::vector<Element> elements(int node) {
  std::vector<Element> shown;
  for (const cmd_element* element : state().elements[node]) {
    shown.push_back({element->string, element->doc});
  }
  return shown;
}

void internal::reset_vty() {
  state() = State{};
}

}  // namespace fake
