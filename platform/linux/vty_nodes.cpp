// SPDX-License-Identifier: Apache-2.0
//
// The shell's tables: which nodes there are, which commands each has, and who writes its part of
// the configuration. Filled at start-up by the platform and the daemon; sessions only read them.
#include <cstring>

#include "platform/linux/vty_internal.h"
#include "platform/log.h"

namespace morva::shell {
namespace {

// In order of installation, which is the order of the saved configuration.
std::vector<Node>& nodes() {
  static std::vector<Node> table;
  return table;
}

constexpr cmd_node kViewNode = {VTY_NODE_VIEW, "%s> ", 1};
constexpr cmd_node kEnableNode = {VTY_NODE_ENABLE, "%s# ", 1};
constexpr cmd_node kConfigNode = {VTY_NODE_CONFIG, "%s(config)# ", 1};

int write_settings(struct vty* vty) {
  const Settings standard;
  int lines = 0;
  if (settings().host_name != standard.host_name) {
    vty_out(vty, "hostname %s%s", settings().host_name.c_str(), vty_newline(vty));
    lines++;
  }
  if (settings().idle_seconds != standard.idle_seconds) {
    vty_out(vty, "exec-timeout %u %u%s", settings().idle_seconds / 60, settings().idle_seconds % 60,
            vty_newline(vty));
    lines++;
  }
  if (lines != 0) {
    vty_out(vty, "!%s", vty_newline(vty));
    lines++;
  }
  return lines;
}

}  // namespace

Node* node_find(int number) {
  for (Node& node : nodes()) {
    if (node.installed->node == number) {
      return &node;
    }
  }
  return nullptr;
}

void nodes_write_config(struct vty& vty) {
  for (const Node& node : nodes()) {
    if (node.config_write != nullptr) {
      node.config_write(&vty);
    }
  }
}

}  // namespace morva::shell

using morva::shell::Node;
using morva::shell::Pattern;

void cmd_init(int terminal) {
  morva::shell::nodes().clear();
  install_node(&morva::shell::kViewNode, nullptr);
  install_node(&morva::shell::kEnableNode, nullptr);
  install_node(&morva::shell::kConfigNode, morva::shell::write_settings);
  morva::shell::commands_install(terminal == 1);
}

void install_node(const struct cmd_node* node, int (*config_write)(struct vty* vty)) {
  if (morva::shell::node_find(node->node) != nullptr) {
    zlog_err("vty: node %d is installed already", node->node);
    return;
  }
  morva::shell::nodes().push_back({node, config_write, {}});
}

void install_element(int node, const struct cmd_element* element) {
  Node* target = morva::shell::node_find(node);
  if (target == nullptr) {
    zlog_err("vty: no node %d for \"%s\"", node, element->string);
    return;
  }
  for (const Pattern& pattern : target->patterns) {
    if (strcmp(pattern.element->string, element->string) == 0) {
      return;  // the same command twice would be ambiguous for ever
    }
  }
  Pattern pattern;
  if (!morva::shell::pattern_parse(*element, pattern)) {
    zlog_err("vty: \"%s\" is not a command syntax", element->string);
    return;
  }
  target->patterns.push_back(std::move(pattern));
}

void install_default(int node) {
  morva::shell::commands_install_default(node);
}
