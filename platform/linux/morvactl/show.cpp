// SPDX-License-Identifier: Apache-2.0
//
// See show.h.
#include "platform/linux/morvactl/show.h"

#include <algorithm>
#include <array>
#include <vector>

namespace morvactl {
namespace {

using nlohmann::json;

constexpr size_t kColumns = 8;
using Row = std::array<std::string, kColumns>;

const Row kHead = {"PORT", "STATE", "LINK", "SET", "TX BYTES", "RX BYTES", "POE", "NOTES"};
constexpr std::array<bool, kColumns> kRight = {false, false, false, false, true, true, true, false};

std::string watts(int milliwatts) {
  return std::to_string(milliwatts / 1000) + "." + std::to_string(milliwatts % 1000 / 100) + " W";
}

std::string link_text(const json& port) {
  if (port["link"] == 0) {
    return "down";
  }
  return std::to_string(port["speed"].get<int>()) + (port["duplex"] == 1 ? " full" : " half");
}

std::string poe_text(const json& port) {
  if (!port.contains("poe")) {
    return "";
  }
  return port["poe"]["enable"] == 0 ? "off" : watts(port["poe"]["power"].get<int>());
}

std::string notes(const json& port) {
  std::vector<std::string> all;
  if (port["cable"] == 0) {
    all.emplace_back("no cable");
  }
  if (port["stp_blocked"] == 1) {
    all.emplace_back("blocked");
  }
  if (port["loop_blocked"] == 1) {
    all.emplace_back("loop");
  }
  if (port["mirror"] != 0) {
    all.emplace_back("mirror");
  }
  if (port["trunk"] != 0) {
    all.push_back("trunk " + std::to_string(port["trunk"].get<int>()));
  }
  if (port["interface"].is_string()) {
    all.push_back("is " + port["interface"].get<std::string>());
  }
  std::string text;
  for (const std::string& note : all) {
    text += (text.empty() ? "" : ", ") + note;
  }
  return text;
}

Row port_row(const json& port) {
  return {port["name"].get<std::string>(),
          port["enable"] == 1 ? "enabled" : "disabled",
          link_text(port),
          port["speed_name"].get<std::string>(),
          std::to_string(port["counters"]["tx_bytes"].get<uint64_t>()),
          std::to_string(port["counters"]["rx_bytes"].get<uint64_t>()),
          poe_text(port),
          notes(port)};
}

std::string laid_out(const std::vector<Row>& rows) {
  std::array<size_t, kColumns> width{};
  for (const Row& row : rows) {
    for (size_t i = 0; i < kColumns; i++) {
      width[i] = std::max(width[i], row[i].size());
    }
  }
  std::string text;
  for (const Row& row : rows) {
    std::string line;
    for (size_t i = 0; i < kColumns; i++) {
      const std::string gap(width[i] - row[i].size(), ' ');
      line += i == 0 ? "" : "  ";
      line += kRight[i] ? gap + row[i] : row[i] + gap;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

}  // namespace

std::string firmware_text(const json& firmware) {
  static constexpr const char* kStates[] = {"idle", "transfer", "fetching", "writing"};
  const int state = firmware["state"].get<int>();
  const int detail = firmware["detail"].get<int>();
  std::string about = state < 0 ? std::to_string(state) : "";
  if (detail != 0) {
    about += (about.empty() ? "detail " : ", detail ") + std::to_string(detail);
  }
  const std::string name = state >= 0 && state <= 3 ? kStates[state] : "failed";
  return about.empty() ? name : name + " (" + about + ")";
}

std::string switch_table(const json& state) {
  const std::string address = state["address"].get<std::string>();
  std::string text = state["board"].get<std::string>() + "  " + state["mac"].get<std::string>() +
                     "  " + (address.empty() ? "no address" : address) + "\n";
  text += "firmware " + firmware_text(state["firmware"]);
  text += ", layer-2 entries " + std::to_string(state["l2_entries"].get<size_t>());
  if (state["poe"]["total"] != 0) {
    text += ", power " + watts(state["poe"]["used"].get<int>()) + " of " +
            watts(state["poe"]["total"].get<int>());
  }
  text += state["frames_to_cpu"] == 1 ? "\n\n" : ", frames to the agent stopped\n\n";
  std::vector<Row> rows = {kHead};
  for (const json& port : state["ports"]) {
    rows.push_back(port_row(port));
  }
  return text + laid_out(rows);
}

}  // namespace morvactl
