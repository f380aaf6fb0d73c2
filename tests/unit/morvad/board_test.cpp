// SPDX-License-Identifier: Apache-2.0
//
// The reader of board files: the boards of the repo, and what is said about wrong ones.
#include "platform/linux/morvad/board.h"

#include <nlohmann/json.hpp>

#include "support.h"

namespace morvad {
namespace {

std::string complaint(const std::string& text) {
  try {
    parse_board(text, "b.json");
  } catch (const BoardError& error) {
    return error.what();
  }
  return "";
}

/// kSmallBoard with the value at a JSON pointer replaced.
std::string with(const std::string& pointer, const nlohmann::json& value) {
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  board[nlohmann::json::json_pointer(pointer)] = value;
  return board.dump();
}

std::string without(const std::string& pointer) {
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  const nlohmann::json::json_pointer place(pointer);
  board[place.parent_pointer()].erase(place.back());
  return board.dump();
}

TEST(Board, ReadsTheBoardsOfTheRepo) {
  const struct {
    const char* name;
    size_t ports;
    const char* first;
    const char* last;
  } rows[] = {{"ge10", 10, "ge1", "ge10"}, {"ge28", 28, "ge1", "xe4"}, {"ge52", 52, "ge1", "xe4"}};
  for (const auto& row : rows) {
    const Board board = read_board(board_path(row.name));
    EXPECT_EQ(board.name, row.name);
    EXPECT_EQ(board.ports.size(), row.ports);
    EXPECT_EQ(board.ports.front().name, row.first);
    EXPECT_EQ(board.ports.back().name, row.last);
    EXPECT_FALSE(board.allow_host_reboot);
  }
}

TEST(Board, KeepsWhatIsWritten) {
  const Board board = parse_board(kSmallBoard, "b.json");
  EXPECT_EQ(board.mac, (std::array<uint8_t, 6>{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));
  EXPECT_EQ(board.oem[3], 4294967295U);
  EXPECT_EQ(board.management.ip, "192.168.1.10");
  EXPECT_EQ(board.management.mask, 24);
  EXPECT_EQ(board.poe_budget, 60000);
  const BoardPort& port = board.ports[1];
  EXPECT_EQ(port.number, 2);
  EXPECT_EQ(port.speed_class, 2);
  EXPECT_EQ(port.medium, 1);
  EXPECT_EQ(port.link_speed, 100);
  EXPECT_FALSE(port.full_duplex);
  EXPECT_EQ(port.poe_limit, 15400);
  EXPECT_EQ(port.rx_rate, 7U);
  EXPECT_EQ(board.ports[2].aux_index, -1);
  EXPECT_TRUE(board.ports[2].interface.empty());
}

TEST(Board, PortDefaultsBecomeSettingsOfEachPort) {
  const Board board = parse_board(kSmallBoard, "b.json");
  const SettingPairs expected = {{"have_poe", "1"},        {"product_description", "office-sw"},
                                 {"lldp.ge1.enable", "1"}, {"lldp.ge2.enable", "1"},
                                 {"lldp.xe1.enable", "1"}, {"poe.ge1.enable", "1"},
                                 {"poe.ge2.enable", "1"}};
  EXPECT_EQ(board.nvram, expected);
}

/// kSmallBoard with one piece of its text replaced, for what a JSON library would not write.
std::string with_text(const std::string& piece, const std::string& other) {
  std::string board = kSmallBoard;
  const size_t at = board.find(piece);
  EXPECT_NE(at, board.npos) << piece;
  return at == board.npos ? "" : board.replace(at, piece.size(), other);
}

/// kSmallBoard with these interfaces behind its ports.
std::string behind(const std::vector<std::string>& interfaces) {
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  for (size_t i = 0; i < interfaces.size(); i++) {
    board["ports"][i]["interface"] = interfaces[i];
  }
  return board.dump();
}

TEST(Board, NamesFileKeyAndExpectation) {
  const struct {
    std::string text;
    const char* complaint;
  } rows[] = {
      {with("/ports/1/medium", "glass"),
       "b.json: ports[1].medium: expected \"copper\" or \"fibre\""},
      {with("/ports/1/class", 2),
       "b.json: ports[1].class: expected \"fast\", \"giga\" or \"ten_giga\""},
      {with("/ports/2/name", "ge1"),
       "b.json: ports[2].name: expected a name that no other port has, \"ge1\" is taken"},
      {with("/ports/2/number", 2),
       "b.json: ports[2].number: expected a number that no other port has, 2 is taken"},
      {with("/ports/2/number", 4), "b.json: ports: expected the numbers 1 to 3, without gaps"},
      {with("/ports/0/name", "vlanif1"),
       "b.json: ports[0].name: expected another name than the management interface"},
      {with("/ports/0/name", "a b"),
       "b.json: ports[0].name: expected a letter and at most 30 more letters, digits, dots, "
       "dashes or underscores"},
      {with("/ports/0/max_speed", 300),
       "b.json: ports[0].max_speed: expected one of 10, 100, 1000, 2500, 5000, 10000, 25000, "
       "40000, 100000"},
      {with("/ports/0/link/speed", 10000),
       "b.json: ports[0].link.speed: expected at most the port's max_speed, 1000"},
      {with("/ports/0/link/up", 1), "b.json: ports[0].link.up: expected true or false"},
      {with("/ports/0/position/x", 1.5),
       "b.json: ports[0].position.x: expected a whole number from 0 to 1000"},
      {with("/ports/0/position/y", 18446744073709551615U),
       "b.json: ports[0].position.y: expected a whole number from 0 to 1000"},
      {with("/ports/2/poe_limit", 5),
       "b.json: ports[2].poe_limit: expected only on a port with \"poe\": true"},
      {with("/ports/0/interface", "a/b"),
       "b.json: ports[0].interface: expected the name of a Linux interface, or null"},
      {behind({"swp1", "swp2", "swp1"}),
       "b.json: ports[2].interface: expected an interface that no other port has, \"swp1\" is "
       "taken"},
      {behind({"swp1", "vlanif1"}),
       "b.json: ports[1].interface: expected another interface than the management interface"},
      {with("/ports/1/position/y", 1),
       "b.json: ports[1].position: expected a place that no other port has, x 1, y 1 is taken"},
      {with("/name", ""), "b.json: name: expected a name, not an empty text"},
      {with_text("\"mac\":", "\"name\": \"other\", \"mac\":"),
       "b.json: name: expected this key once, it is there twice"},
      {with_text("\"number\": 2,", "\"number\": 2, \"number\": 2,"),
       "b.json: ports[1].number: expected this key once, it is there twice"},
      {with_text("{\"up\": false}", "{\"up\": false, \"up\": true}"),
       "b.json: ports[2].link.up: expected this key once, it is there twice"},
      {with_text("\"have_poe\": \"1\"", "\"have_poe\": \"1\", \"have_poe\": \"1\""),
       "b.json: nvram.have_poe: expected this key once, it is there twice"},
      {with("/ports/0/speeed", 1), "b.json: ports[0].speeed: not a key of a board file"},
      {with("/ports", nlohmann::json::array()), "b.json: ports: expected 1 to 128 ports"},
      {with("/ports", 7), "b.json: ports: expected an array"},
      {with("/ports/0", 7), "b.json: ports[0]: expected an object"},
      {without("/ports/0/class"), "b.json: ports[0].class: missing"},
      {without("/mac"), "b.json: mac: missing"},
      {with("/mac", "01:1b:2c:3d:4e:5f"),
       "b.json: mac: expected a unicast MAC address as \"0a:1b:2c:3d:4e:5f\""},
      {with("/oem", {1, 2}), "b.json: oem: expected 8 numbers"},
      {with("/oem/7", -1), "b.json: oem[7]: expected a whole number from 0 to 4294967295"},
      {with("/management/interface", "eth0"), "b.json: management.interface: expected \"vlanif1\""},
      {with("/management/ip", "224.0.0.1"),
       "b.json: management.ip: expected an IPv4 address that a host can have"},
      {with("/management/mask", 33),
       "b.json: management.mask: expected a whole number from 0 to 32"},
      {with("/nvram/have_poe", 1), "b.json: nvram.have_poe: expected a text"},
      {with("/nvram/have_poe", "a\nb"),
       "b.json: nvram.have_poe: expected at most 255 bytes without control characters, quotes and "
       "backslashes"},
      {with("/nvram/product_description", "a\"b"),
       "b.json: nvram.product_description: expected at most 255 bytes without control characters, "
       "quotes and backslashes"},
      {with("/nvram/product_description", "a\\"),
       "b.json: nvram.product_description: expected at most 255 bytes without control characters, "
       "quotes and backslashes"},
      {with("/port_defaults/iso", 2),
       "b.json: port_defaults.iso: expected a whole number from 0 to 1"},
      {"[]", "b.json: top level: expected an object"},
      {"{\"a\":1,\n  oops}", "b.json: line 2, column 3: expected JSON"},
      {"", "b.json: line 1, column 1: expected JSON"},
      {"{\"mac\":3e3333}", "b.json: top level: expected no number beyond every range"},
      {std::string(5000, '['), "b.json: top level: expected a board, not a pile of brackets"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(complaint(row.text), row.complaint);
  }
}

TEST(Board, MissingFileIsNamed) {
  try {
    read_board("/nowhere/b.json");
    FAIL();
  } catch (const BoardError& error) {
    EXPECT_STREQ(error.what(), "/nowhere/b.json: top level: expected a readable file");
  }
}

TEST(Board, TakesAsManyPortsAsTheLimitAndNoMore) {
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  const nlohmann::json row = board["ports"][2];
  board["ports"].clear();
  for (int i = 1; i <= 129; i++) {
    nlohmann::json next = row;
    next["name"] = "p" + std::to_string(i);
    next["number"] = i;
    next["position"]["x"] = i;
    if (i == 129) {
      EXPECT_EQ(complaint(board.dump()), "");
    }
    board["ports"].push_back(next);
  }
  EXPECT_EQ(complaint(board.dump()), "b.json: ports: expected 1 to 128 ports");
}

}  // namespace
}  // namespace morvad
