// SPDX-License-Identifier: Apache-2.0
//
// What was recorded on a wire, played again: the gateway's frames of the sample captures reach the
// agent, in their order, on a fake switch like the one recorded, and the agent sends what it sent.
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "tests/unit/archive.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::SizeIs;

constexpr size_t kFileHeader = 24;    // of a classic capture file
constexpr size_t kRecordHeader = 16;  // before each frame; its captured length at byte 8
constexpr size_t kEthertypeAt = 12;
constexpr size_t kMessageAt = 32;

uint32_t le32(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

// The frames of a sample capture.
std::vector<std::string> read_capture(const std::string& name) {
  std::ifstream file(std::string(QEL_CAPTURES) + "/" + name + ".pcap", std::ios::binary);
  const std::string raw{std::istreambuf_iterator<char>(file), {}};
  std::vector<std::string> frames;
  for (size_t at = kFileHeader; at + kRecordHeader <= raw.size();) {
    const size_t size = le32(raw, at + 8);
    at += kRecordHeader;
    frames.push_back(raw.substr(at, size));
    at += size;
  }
  return frames;
}

bool is_from_gateway(const std::string& frame) {
  return frame.substr(kEthertypeAt, 2) == "\x93\x01";
}
bool is_from_switch(const std::string& frame) {
  return frame.substr(kEthertypeAt, 2) == "\x93\x03";
}
std::string subcmd_of(const std::string& frame) {
  static const std::regex pattern("\"subcmd\":\"([a-z_]*)\"");
  std::smatch found;
  return std::regex_search(frame, found, pattern) ? found[1].str() : "";
}

// The frame with those figures blanked that the hour decides and not the request. They change the
// text's length, so that such a frame's length field goes, too.
std::string without_time(const std::string& frame) {
  static const std::regex figures("\"(uptime|cpu|mem|timestamp)\":[0-9]+");
  std::string text = std::regex_replace(frame.substr(kMessageAt), figures, "\"$1\":#");
  if (text == frame.substr(kMessageAt)) {
    return frame;
  }
  return frame.substr(0, kEthertypeAt + 6) + text;
}

// Plays the gateway's frames of `frames` to the agent. Returns what it sent, without times.
std::vector<std::string> play(const std::vector<std::string>& frames) {
  fake::clear_records();
  for (const std::string& frame : frames) {
    if (is_from_gateway(frame)) {
      g_qel_restart = {};  // the switch of the sample had restarted by then
      fake::receive_frame(g_qel_dev.eth_fd, frame);
      fake::run_reads();
    }
  }
  std::vector<std::string> sent;
  for (const fake::Sent& one : fake::sent()) {
    sent.push_back(without_time(one.bytes));
  }
  return sent;
}

// ------------------------------------------------------------------------------------------------
// Reports and commands

// The switch of session.pcap: 28 ports, the first twelve and the first fibre port with link.
class SessionReplayTest : public AgentTest {
 protected:
  SessionReplayTest() : frames_(read_capture("session")) {
    fake::add_interface("vlanif1", 7);
    for (int i = 1; i <= 28; ++i) {
      add_session_port(i);
    }
    for (const auto& [key, value] : {std::pair{"product_hw_ver", "V1.0"},
                                     {"product_model", "QM4410_MODEL"},
                                     {"firmware_ver", "V2.1"},
                                     {"product_description", "office-sw"},
                                     {"have_poe", "1"}}) {
      fake::set_nvram(key, value);
    }
    fake::reply("zebra", "manage_L3IF_info_get", R"({"data":[{"method":"0"}]})");
    fake::reply("statistics", "port_statistic_qel_get_all", counters());
    fake::on_query([](const fake::Query& query) {
      if (query.command == "product_description_set") {
        fake::set_nvram("product_description", "attic");
      }
    });
    start();
  }

  static std::string port_name(int i) {
    return i <= 24 ? "ge" + std::to_string(i) : "xe" + std::to_string(i - 24);
  }

  static void add_session_port(int i) {
    const bool fibre = i > 24;
    fake::PortSpec port;
    port.link = i <= 12 || i == 25 ? 1 : 0;
    port.speed = port.link == 0 ? 0 : fibre ? 10000 : i <= 10 ? 1000 : i == 11 ? 100 : 10;
    port.duplex = port.link == 1 && i != 12 ? 1 : 0;
    port.pos_x = fibre ? 14 + (i - 25) / 2 : (i + 1) / 2;
    port.pos_y = i % 2 == 1 ? 1 : 2;
    port.aux_index = -1;
    if (fibre) {
      port.speed_class = UIF_CLASS_TEN_GIGA;
      port.medium = UIF_MEDIUM_FIBRE;
      port.max_speed = 10000;
    }
    fake::add_port(port_name(i).c_str(), port);
    fake::set_nvram("lldp." + port_name(i) + ".enable", "1");
    fake::set_nvram("poe." + port_name(i) + ".enable", fibre ? "0" : "1");
  }

  static std::string counters() {
    std::string text = R"({"ret":0,"data":[)";
    for (int i = 1; i <= 28; ++i) {
      const std::string number = std::to_string(100 + i).substr(1);
      text += (i == 1 ? R"({"name":")" : R"(,{"name":")") + port_name(i);
      text += R"(","tx_sum":90000000000)" + number + R"(,"rx_sum":8000000000)" + number;
      text += R"(,"tx_rate":1250000000)" + number + R"(,"rx_rate":4250000000)" + number + "}";
    }
    return text + "]}";
  }

  // What the switch sent by itself is not the answer to a frame: the client reports that came after
  // those of all ports.
  std::vector<std::string> answers() const {
    std::vector<std::string> found;
    int clients = 0;
    for (const std::string& frame : frames_) {
      if (is_from_switch(frame) && (subcmd_of(frame) != "ports_client" || ++clients <= 28)) {
        found.push_back(without_time(frame));
      }
    }
    return found;
  }

  // The reply that a "qelipc" brought is what its module says to the agent, too.
  std::string poe_reply() const {
    for (const std::string& frame : frames_) {
      if (is_from_switch(frame) && frame.compare(kMessageAt, 7, R"({"ret":)") == 0) {
        return frame.substr(kMessageAt);
      }
    }
    return "";
  }

  std::vector<std::string> frames_;
};

TEST_F(SessionReplayTest, EveryRequestIsAnsweredAsItWasOnTheWire) {
  ASSERT_THAT(frames_, SizeIs(91));
  fake::reply("poe", "poe_qel_port_config_get_all", poe_reply());
  const std::vector<std::string> expected = answers();
  const std::vector<std::string> sent = play(frames_);
  ASSERT_THAT(expected, SizeIs(54));
  for (size_t i = 0; i < expected.size() && i < sent.size(); ++i) {
    EXPECT_THAT(sent[i], BytesAre(expected[i])) << "answer " << i;
  }
  EXPECT_EQ(sent.size(), expected.size());
}

TEST_F(SessionReplayTest, CommandsReachTheModulesInTheOrderOfTheWire) {
  play(frames_);
  std::vector<std::string> commands;
  for (const fake::Query& one : fake::queries()) {
    if (one.module == "mono" && one.command != "qel_common_update_mono_portinfo") {
      commands.push_back(one.request);
    }
  }
  EXPECT_THAT(commands,
              ElementsAreArray({
                  R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":0}})",
                  R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":1}})",
                  R"({"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge4","speed":6}})",
                  R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3","enable":0}})",
                  R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":"attic"}})",
              }));
}

// ------------------------------------------------------------------------------------------------
// Transfers

// The messages of transfers.pcap that bear chunks or ask for them, and their answers.
class TransferReplayTest : public AgentTest {
 protected:
  TransferReplayTest() {
    constexpr fake::Mac kMac = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x10};
    fake::set_system_mac(kMac);
    fake::net("vlanif1").mac = kMac;
    for (const std::string& frame : read_capture("transfers")) {
      const std::string subcmd = subcmd_of(frame);
      if (subcmd == "config_upload" || subcmd == "config_download" || subcmd == "firm_download") {
        (is_from_switch(frame) ? answers_ : requests_).push_back(frame);
      }
    }
    start();
  }

  // What follows the texts of those frames whose subcommand is `subcmd`, put together.
  static std::string chunks(const std::vector<std::string>& frames, const std::string& subcmd) {
    std::string all;
    for (const std::string& frame : frames) {
      if (subcmd_of(frame) == subcmd && has_chunk(frame)) {
        all += frame.substr(frame.find('\0', kMessageAt) + 1);
      }
    }
    return all;
  }
  static bool has_chunk(const std::string& frame) {
    return frame.find('\0', kMessageAt) != std::string::npos;
  }

  std::vector<std::string> requests_;
  std::vector<std::string> answers_;
};

TEST_F(TransferReplayTest, EveryChunkIsServedAndTakenAsItWasOnTheWire) {
  ASSERT_THAT(requests_, SizeIs(8));
  const std::string archive = chunks(answers_, "config_upload");
  ASSERT_THAT(archive, SizeIs(2020));
  fake::on_shell([&archive](const std::string& command) {
    if (command == "cd /var/conf && tar -zcvf getconf.tar.gz -- *.conf") {
      fake::set_file("/var/conf/getconf.tar.gz", archive);
    }
    if (command == kExpandCommand) {
      fake::set_file("/var/conf/.incoming/names", "nvram.conf\n");
    }
    if (command == kUnpackCommand) {
      fake::set_file("/var/conf/.incoming/files/nvram.conf", "");
    }
    return 0;
  });
  const std::vector<std::string> sent = play(requests_);
  ASSERT_EQ(sent.size(), answers_.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_THAT(sent[i], BytesAre(answers_[i])) << "answer " << i;
  }
  EXPECT_EQ(fake::file("/tmp/linux.trx"), chunks(requests_, "firm_download"));
  EXPECT_THAT(fake::firmware().upgrades, ElementsAreArray({"/tmp/linux.trx"}));
  EXPECT_EQ(fake::reboots(), 1);
}

// ------------------------------------------------------------------------------------------------
// Frames broken by hand

// How many answers each frame to a switch gets, in the order of malformed.pcap.
constexpr int kAnswersToBroken[] = {
    0, 0, 0, 0,  // ends before its message
    1, 1, 1,     // a magic or a length that is not looked at
    0, 0, 0, 0,  // no JSON, no command, or one of the other table
    1,           // longer than is read, by blanks only
    1, 1,        // a chunk outside its place, refused
    0, 0, 0,     // nested too deep, no text, cut off
    1, 1, 1,     // bytes where none are looked for
};

TEST_F(AgentTest, BrokenFramesOfTheSampleAreSurvivedAndAnsweredOrNot) {
  start();
  size_t number = 0;
  for (const std::string& frame : read_capture("malformed")) {
    if (!is_from_gateway(frame)) {
      continue;
    }
    ASSERT_LT(number, std::size(kAnswersToBroken));
    const auto expected = static_cast<size_t>(kAnswersToBroken[number++]);
    EXPECT_THAT(play({frame}), SizeIs(expected)) << hexdump(frame);
    receive(R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":4711}})");
    EXPECT_THAT(sent_messages().back(), HasSubstr(R"("ntick":4711)"));
  }
  EXPECT_EQ(number, std::size(kAnswersToBroken));
}

}  // namespace
