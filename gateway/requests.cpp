// SPDX-License-Identifier: Apache-2.0
//
// Builders of request texts.
#include "gateway/requests.h"

#include "gateway/json.h"

namespace qel_gateway {

namespace {

OrderedJson object() {
  return OrderedJson::object();
}

std::string set_text(std::string_view mac, std::string_view subject, const OrderedJson& data) {
  return request_text(mac, "set", subject, data);
}

}  // namespace

std::string request_text(std::string_view mac, std::string_view verb, std::string_view subject,
                         const OrderedJson& data) {
  OrderedJson message;
  message["mac"] = mac;
  message["cmd"] = verb;
  message["subcmd"] = subject;
  message["data"] = data;
  return dump_json(message);
}

std::string get_text(std::string_view mac, std::string_view subject) {
  return request_text(mac, "get", subject, object());
}

std::string query_text(std::string_view mac, std::string_view module, std::string_view command,
                       const OrderedJson& payload, bool config_form) {
  OrderedJson data;
  data["mdl"] = module;
  data["cmd"] = command;
  data["cfg_flag"] = config_form ? 1 : 0;
  if (!payload.is_null()) {
    data["data"] = payload;
  }
  return request_text(mac, "get", "qelipc", data);
}

std::string clock_text(std::string_view mac) {
  return set_text(mac, "sys_time", object());
}

std::string upload_text(std::string_view mac, int64_t index) {
  OrderedJson data;
  data["index"] = index;
  return set_text(mac, "config_upload", data);
}

std::string port_enable_text(std::string_view mac, const std::string& port, bool enable) {
  OrderedJson data;
  data[port] = enable ? 1 : 0;
  return set_text(mac, "port_enable", data);
}

std::string port_speed_text(std::string_view mac, const std::string& port,
                            const std::string& speed) {
  OrderedJson data;
  data[port] = speed;
  return set_text(mac, "port_speed", data);
}

std::string port_restart_text(std::string_view mac, const std::string& port, int seconds) {
  OrderedJson data;
  data[port] = seconds;
  return set_text(mac, "port_restart", data);
}

std::string ports_config_text(std::string_view mac, const OrderedJson& ports) {
  return set_text(mac, "ports_conf", ports);
}

std::string address_text(std::string_view mac, const std::string& ip, int prefix) {
  OrderedJson data;
  data["sys_ip"] = ip;
  data["sys_mask"] = prefix;
  data["dhcp"] = 0;
  return set_text(mac, "sys_ip", data);
}

std::string set_clock_text(std::string_view mac, int64_t seconds) {
  OrderedJson data;
  data["timestamp"] = std::to_string(seconds);
  return set_text(mac, "sys_time", data);
}

std::string name_text(std::string_view mac, const std::string& name) {
  OrderedJson data;
  data["name"] = name;
  return set_text(mac, "name", data);
}

std::string active_text(std::string_view mac, int seconds) {
  OrderedJson data;
  data["sys_active"] = seconds;
  return set_text(mac, "sys_active", data);
}

std::string reboot_text(std::string_view mac) {
  return set_text(mac, "sys_reboot", object());
}

std::string reset_text(std::string_view mac) {
  return set_text(mac, "config_reset", object());
}

std::string fetch_firmware_text(std::string_view mac, const std::string& location) {
  OrderedJson data;
  data["upgrade_serverinfo"] = location;
  return set_text(mac, "hfs_upgrade", data);
}

std::string chunk_text(std::string_view mac, std::string_view subject, const ChunkHeader& header) {
  OrderedJson data;
  data["index"] = header.index;
  data["next"] = header.next ? 1 : 0;
  data["file"] = header.file;
  data["total_length"] = header.total_length;
  // Signed, as the switch itself writes CRCs.
  data["crc"] = static_cast<int32_t>(header.crc);
  data["length"] = header.length;
  return request_text(mac, "update", subject, data);
}

}  // namespace qel_gateway
