// SPDX-License-Identifier: Apache-2.0
//
// The texts of requests. All have the envelope {"mac","cmd","subcmd","data"}; what tells a read
// from a set is the "cmd", and which may be asked again is said in session.h and settings.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "gateway/mac.h"

namespace qel_gateway {

using OrderedJson = nlohmann::ordered_json;

// Stands where a dry run does not know the switch.
inline constexpr std::string_view kUnknownMac = "<mac>";

// `mac`: the receiver's MAC as mac_text() writes it, or kUnknownMac.
std::string request_text(std::string_view mac, std::string_view verb, std::string_view subject,
                         const OrderedJson& data);

// Reads.
std::string get_text(std::string_view mac, std::string_view subject);
std::string query_text(std::string_view mac, std::string_view module, std::string_view command,
                       const OrderedJson& payload, bool config_form);
std::string clock_text(std::string_view mac);  // asks for the clock without setting it
std::string upload_text(std::string_view mac, int64_t index);

// Sets. A port's name is a key of the data, so that each message concerns one port.
std::string port_enable_text(std::string_view mac, const std::string& port, bool enable);
std::string port_speed_text(std::string_view mac, const std::string& port,
                            const std::string& speed);
std::string port_restart_text(std::string_view mac, const std::string& port, int seconds);
std::string ports_config_text(std::string_view mac, const OrderedJson& ports);
std::string address_text(std::string_view mac, const std::string& ip, int prefix);
std::string set_clock_text(std::string_view mac, int64_t seconds);
std::string name_text(std::string_view mac, const std::string& name);
std::string active_text(std::string_view mac, int seconds);
std::string reboot_text(std::string_view mac);
std::string reset_text(std::string_view mac);
std::string fetch_firmware_text(std::string_view mac, const std::string& location);

// One chunk of a file for the switch.
struct ChunkHeader {
  int64_t index = 0;
  bool next = false;         // more chunks follow
  std::string file;          // echoed by the switch
  int64_t total_length = 0;  // bytes of the file
  uint32_t crc = 0;          // CRC-32 of the file
  int64_t length = 0;        // bytes of this chunk
};

// `subject` is "config_download" or "firm_download".
std::string chunk_text(std::string_view mac, std::string_view subject, const ChunkHeader& header);

}  // namespace qel_gateway
