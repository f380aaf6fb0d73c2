// SPDX-License-Identifier: Apache-2.0
//
// Reader of the board file. Each value is read through a Node, which knows its own place in the
// file, so that every complaint names the file, the key and what was expected there.
#include "platform/linux/morvad/board.h"

#include <arpa/inet.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>

#include "platform/linux/morvad/names.h"
#include "platform/uif.h"

namespace morvad {
namespace {

using nlohmann::json;

constexpr std::streamoff kMaxFileBytes = 1 << 20;

struct NamedValue {
  std::string_view name;
  int value;
};

constexpr int kSpeeds[] = {10, 100, 1000, 2500, 5000, 10000, 25000, 40000, 100000};  // Mbit/s

constexpr NamedValue kClasses[] = {
    {"fast", UIF_CLASS_FAST}, {"giga", UIF_CLASS_GIGA}, {"ten_giga", UIF_CLASS_TEN_GIGA}};
constexpr NamedValue kMedia[] = {{"copper", UIF_MEDIUM_COPPER}, {"fibre", UIF_MEDIUM_FIBRE}};
constexpr NamedValue kDuplexes[] = {{"half", 0}, {"full", 1}};

/// The per-port switches that "port_defaults" may set, in the order of a port configuration row.
constexpr std::string_view kSwitches[] = {"iso", "eee", "llpp", "mstp", "lldp", "poe"};

/// One value of the file and the way to it.
class Node {
 public:
  Node(const json& value, std::string file, std::string path)
      : value_(&value), file_(std::move(file)), path_(std::move(path)) {}

  [[noreturn]] void fail(const std::string& what) const {
    throw BoardError(file_ + ": " + (path_.empty() ? "top level" : path_) + ": " + what);
  }

  const std::string& path() const { return path_; }

  /// Refuses a value that is not an object, and keys that nobody reads (mostly typing errors).
  void object(std::initializer_list<std::string_view> keys) const {
    if (!value_->is_object()) {
      fail("expected an object");
    }
    for (const auto& item : value_->items()) {
      if (std::find(keys.begin(), keys.end(), item.key()) == keys.end()) {
        child(item.key(), item.value()).fail("not a key of a board file");
      }
    }
  }

  bool has(const char* key) const { return value_->contains(key); }

  Node member(const char* key) const {
    const auto found = value_->find(key);
    if (found == value_->end()) {
      Node(*value_, file_, path_.empty() ? key : path_ + "." + key).fail("missing");
    }
    return child(key, *found);
  }

  std::vector<Node> elements() const {
    if (!value_->is_array()) {
      fail("expected an array");
    }
    std::vector<Node> nodes;
    for (size_t i = 0; i < value_->size(); i++) {
      nodes.emplace_back((*value_)[i], file_, path_ + "[" + std::to_string(i) + "]");
    }
    return nodes;
  }

  std::vector<std::pair<std::string, Node>> members() const {
    if (!value_->is_object()) {
      fail("expected an object");
    }
    std::vector<std::pair<std::string, Node>> nodes;
    for (const auto& item : value_->items()) {
      nodes.emplace_back(item.key(), child(item.key(), item.value()));
    }
    return nodes;
  }

  int64_t integer(int64_t low, int64_t high) const {
    const bool fits = value_->is_number_integer() &&
                      (!value_->is_number_unsigned() || value_->get<uint64_t>() <= INT64_MAX);
    if (!fits || value_->get<int64_t>() < low || value_->get<int64_t>() > high) {
      fail("expected a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    }
    return value_->get<int64_t>();
  }

  int small(int low, int high) const { return static_cast<int>(integer(low, high)); }

  bool boolean() const {
    if (!value_->is_boolean()) {
      fail("expected true or false");
    }
    return value_->get<bool>();
  }

  std::string text() const {
    if (!value_->is_string()) {
      fail("expected a text");
    }
    return value_->get<std::string>();
  }

  bool null() const { return value_->is_null(); }

  int speed() const {
    if (!value_->is_number_integer() || *value_ > INT32_MAX || !is_speed(value_->get<int64_t>())) {
      fail("expected one of " + speed_list());
    }
    return value_->get<int>();
  }

  template <size_t N>
  int one_of(const NamedValue (&table)[N]) const {
    std::string wanted;
    for (size_t i = 0; i < N; i++) {
      if (value_->is_string() && value_->get_ref<const std::string&>() == table[i].name) {
        return table[i].value;
      }
      wanted += i == 0 ? "" : i + 1 == N ? " or " : ", ";
      wanted += '"' + std::string(table[i].name) + '"';
    }
    fail("expected " + wanted);
  }

 private:
  Node child(const std::string& key, const json& value) const {
    return Node(value, file_, path_.empty() ? key : path_ + "." + key);
  }

  const json* value_;
  std::string file_;
  std::string path_;
};

/// Refuses an object that has one key twice. Of two the parser keeps the later and says nothing, so
/// this listens while it reads; the way to the key is kept here.
class KeysOnce {
 public:
  explicit KeysOnce(std::string file) : file_(std::move(file)) {}

  /// A json::parser_callback_t; always wants to keep what was read.
  bool operator()(int /*depth*/, json::parse_event_t event, json& parsed) {
    switch (event) {
      case json::parse_event_t::key:
        key(parsed.get_ref<const std::string&>());
        break;
      case json::parse_event_t::object_start:
      case json::parse_event_t::array_start:
        next_element();
        levels_.push_back({event == json::parse_event_t::array_start, 0, {}, {}});
        break;
      case json::parse_event_t::object_end:
      case json::parse_event_t::array_end:
        levels_.pop_back();
        break;
      case json::parse_event_t::value:
        next_element();
        break;
    }
    return true;
  }

 private:
  struct Level {
    bool array;
    size_t elements;             // of an array, so far
    std::string key;             // of an object, the latest
    std::set<std::string> keys;  // of an object, so far
  };

  void key(const std::string& key) {
    Level& object = levels_.back();
    object.key = key;
    if (!object.keys.insert(key).second) {
      throw BoardError(file_ + ": " + path() + ": expected this key once, it is there twice");
    }
  }

  void next_element() {
    if (!levels_.empty() && levels_.back().array) {
      levels_.back().elements++;
    }
  }

  std::string path() const {
    std::string path;
    for (const Level& level : levels_) {
      if (level.array) {
        path += "[" + std::to_string(level.elements - 1) + "]";
      } else {
        path += (path.empty() ? "" : ".") + level.key;
      }
    }
    return path;
  }

  std::string file_;
  std::vector<Level> levels_;
};

void read_link(const Node& node, BoardPort& port) {
  node.object({"up", "speed", "duplex"});
  port.cable = node.member("up").boolean();
  if (node.has("speed")) {
    const Node speed = node.member("speed");
    port.link_speed = speed.speed();
    if (port.link_speed > port.max_speed) {
      speed.fail("expected at most the port's max_speed, " + std::to_string(port.max_speed));
    }
  }
  if (node.has("duplex")) {
    port.full_duplex = node.member("duplex").one_of(kDuplexes) != 0;
  }
}

void read_poe(const Node& node, BoardPort& port) {
  port.poe = node.has("poe") && node.member("poe").boolean();
  for (const char* key : {"poe_limit", "poe_power"}) {
    if (node.has(key) && !port.poe) {
      node.member(key).fail("expected only on a port with \"poe\": true");
    }
  }
  if (port.poe) {
    port.poe_limit = node.member("poe_limit").small(0, 1000000);
    port.poe_power = node.has("poe_power") ? node.member("poe_power").small(0, port.poe_limit) : 0;
  }
}

BoardPort read_port(const Node& node) {
  node.object({"name", "number", "class", "medium", "max_speed", "position", "aux_index", "poe",
               "poe_limit", "poe_power", "link", "rates", "interface"});
  BoardPort port;
  port.name = node.member("name").text();
  if (!is_port_name(port.name)) {
    node.member("name").fail(
        "expected a letter and at most 30 more letters, digits, dots, dashes or underscores");
  }
  port.number = node.member("number").small(1, kMaxPorts);
  port.speed_class = node.member("class").one_of(kClasses);
  port.medium = node.member("medium").one_of(kMedia);
  port.max_speed = node.member("max_speed").speed();
  port.link_speed = port.max_speed;
  const Node position = node.member("position");
  position.object({"x", "y"});
  port.pos_x = position.member("x").small(0, 1000);
  port.pos_y = position.member("y").small(0, 1000);
  if (node.has("aux_index")) {
    port.aux_index = node.member("aux_index").small(-1, 65535);
  }
  read_poe(node, port);
  read_link(node.member("link"), port);
  if (node.has("rates")) {
    const Node rates = node.member("rates");
    rates.object({"tx", "rx"});
    port.tx_rate = static_cast<uint64_t>(rates.member("tx").integer(0, 1000000000000));
    port.rx_rate = static_cast<uint64_t>(rates.member("rx").integer(0, 1000000000000));
  }
  if (node.has("interface") && !node.member("interface").null()) {
    port.interface = node.member("interface").text();
    if (!is_linux_interface(port.interface)) {
      node.member("interface").fail("expected the name of a Linux interface, or null");
    }
  }
  return port;
}

/// What one port has and no other may have.
struct Taken {
  std::set<std::string> names;
  std::set<int> numbers;
  std::set<std::pair<int, int>> positions;
  std::set<std::string> interfaces;
};

void take(const Node& row, const BoardPort& port, Taken& taken) {
  if (!taken.names.insert(port.name).second) {
    row.member("name").fail("expected a name that no other port has, \"" + port.name +
                            "\" is taken");
  }
  if (!taken.numbers.insert(port.number).second) {
    row.member("number").fail("expected a number that no other port has, " +
                              std::to_string(port.number) + " is taken");
  }
  if (!taken.positions.insert({port.pos_x, port.pos_y}).second) {
    row.member("position")
        .fail("expected a place that no other port has, x " + std::to_string(port.pos_x) + ", y " +
              std::to_string(port.pos_y) + " is taken");
  }
  if (!port.interface.empty() && !taken.interfaces.insert(port.interface).second) {
    row.member("interface")
        .fail("expected an interface that no other port has, \"" + port.interface + "\" is taken");
  }
}

void read_ports(const Node& node, Board& board) {
  Taken taken;
  const std::vector<Node> rows = node.elements();
  if (rows.empty() || rows.size() > kMaxPorts) {
    node.fail("expected 1 to " + std::to_string(kMaxPorts) + " ports");
  }
  for (const Node& row : rows) {
    BoardPort port = read_port(row);
    if (port.name == board.management.interface) {
      row.member("name").fail("expected another name than the management interface");
    }
    if (port.interface == board.management.interface) {
      row.member("interface").fail("expected another interface than the management interface");
    }
    take(row, port, taken);
    board.ports.push_back(std::move(port));
  }
  // The agent finds ports by their number, from 1 to the count of ports.
  if (*taken.numbers.rbegin() != static_cast<int>(rows.size())) {
    node.fail("expected the numbers 1 to " + std::to_string(rows.size()) + ", without gaps");
  }
}

void read_management(const Node& node, Board& board) {
  node.object({"interface", "ip", "mask"});
  if (node.member("interface").text() != "vlanif1") {
    node.member("interface").fail("expected \"vlanif1\"");
  }
  if (!node.has("ip")) {
    return;
  }
  board.management.ip = node.member("ip").text();
  if (!is_host_address(board.management.ip)) {
    node.member("ip").fail("expected an IPv4 address that a host can have");
  }
  board.management.mask = node.member("mask").small(0, 32);
}

void read_nvram(const Node& node, Board& board) {
  for (const auto& [key, value] : node.members()) {
    if (!is_setting_key(key)) {
      value.fail("expected a key of 1 to 63 letters, digits, dots, dashes or underscores");
    }
    const std::string text = value.text();
    if (!is_setting_value(text) || !is_plain(text)) {
      value.fail("expected at most 255 bytes without control characters, quotes and backslashes");
    }
    board.nvram.emplace_back(key, text);
  }
}

/// Turns "port_defaults" into factory settings of every port; power only where it can be fed.
void read_port_defaults(const Node& node, Board& board) {
  node.object({"iso", "eee", "llpp", "mstp", "lldp", "poe"});
  for (const std::string_view name : kSwitches) {
    const std::string key(name);
    if (!node.has(key.c_str())) {
      continue;
    }
    const std::string value = std::to_string(node.member(key.c_str()).small(0, 1));
    for (const BoardPort& port : board.ports) {
      if (name != "poe" || port.poe) {
        board.nvram.emplace_back(switch_key(name, port.name), value);
      }
    }
  }
}

Board read_root(const Node& root, const std::string& file) {
  root.object({"$schema", "name", "comment", "mac", "management", "oem", "allow_host_reboot",
               "poe_budget", "nvram", "port_defaults", "ports"});
  Board board;
  board.file = file;
  board.name = root.member("name").text();
  if (board.name.empty()) {
    root.member("name").fail("expected a name, not an empty text");
  }
  if (!parse_mac(root.member("mac").text(), board.mac) || (board.mac[0] & 1) != 0) {
    root.member("mac").fail("expected a unicast MAC address as \"0a:1b:2c:3d:4e:5f\"");
  }
  if (root.has("management")) {
    read_management(root.member("management"), board);
  }
  if (root.has("oem")) {
    const std::vector<Node> words = root.member("oem").elements();
    if (words.size() != board.oem.size()) {
      root.member("oem").fail("expected 8 numbers");
    }
    for (size_t i = 0; i < words.size(); i++) {
      board.oem[i] = static_cast<uint32_t>(words[i].integer(0, UINT32_MAX));
    }
  }
  board.allow_host_reboot =
      root.has("allow_host_reboot") && root.member("allow_host_reboot").boolean();
  board.poe_budget = root.has("poe_budget") ? root.member("poe_budget").small(0, 100000000) : 0;
  read_nvram(root.member("nvram"), board);
  read_ports(root.member("ports"), board);
  if (root.has("port_defaults")) {
    read_port_defaults(root.member("port_defaults"), board);
  }
  return board;
}

[[noreturn]] void fail_syntax(const std::string& text, const std::string& file, size_t byte) {
  const size_t end = std::min(byte == 0 ? 0 : byte - 1, text.size());
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(end), '\n');
  const size_t start = text.rfind('\n', end == 0 ? 0 : end - 1);
  const size_t column = start == std::string::npos || line == 1 ? end + 1 : end - start;
  throw BoardError(file + ": line " + std::to_string(line) + ", column " + std::to_string(column) +
                   ": expected JSON");
}

}  // namespace

bool is_speed(int64_t speed) {
  return std::find(std::begin(kSpeeds), std::end(kSpeeds), speed) != std::end(kSpeeds);
}

std::string speed_list() {
  std::string list;
  for (const int speed : kSpeeds) {
    list += (list.empty() ? "" : ", ") + std::to_string(speed);
  }
  return list;
}

Board parse_board(const std::string& text, const std::string& file) {
  if (too_deep(text, kMaxDepth)) {
    throw BoardError(file + ": top level: expected a board, not a pile of brackets");
  }
  json document;
  try {
    document = json::parse(text, KeysOnce(file));
  } catch (const json::parse_error& error) {
    fail_syntax(text, file, error.byte);
  } catch (const json::out_of_range&) {
    throw BoardError(file + ": top level: expected no number beyond every range");
  }
  return read_root(Node(document, file, ""), file);
}

Board read_board(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    throw BoardError(path + ": top level: expected a readable file");
  }
  std::string text;
  text.resize(static_cast<size_t>(kMaxFileBytes) + 1);
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(stream.gcount()));
  if (stream.bad() || text.size() > static_cast<size_t>(kMaxFileBytes)) {
    throw BoardError(path + ": top level: expected a file of at most 1 MB");
  }
  return parse_board(text, path);
}

}  // namespace morvad
