// SPDX-License-Identifier: Apache-2.0
//
// Module "zebra": the IPv4 address of the management interface. The kernel is asked each time, so
// that an address set by other hands is told as well.
#include <charconv>
#include <cstring>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

void l3if_info_get(Context& context, const Request&, std::string& out) {
  const std::string& interface = context.sw.board().management.interface;
  json rows = json::array();
  Address address;
  if (context.host.address_get(interface, address)) {
    rows.push_back({{"manage_L3IF", interface},
                    {"ip_address", address.ip + "/" + std::to_string(address.prefix)},
                    {"method", context.sw.settings().text(interface + ".method", "0")},
                    {"gateway", ""}});
  }
  answer_data(out, rows);
}

/// Takes "A.B.C.D/N" apart.
Address parse_address(const std::string& text) {
  const size_t slash = text.find('/');
  Address address;
  if (slash != text.npos) {
    address.ip = text.substr(0, slash);
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + slash + 1, end, address.prefix);
    if (read.ec == std::errc() && read.ptr == end && address.prefix >= 0 && address.prefix <= 32 &&
        text[slash + 1] != '-' && is_host_address(address.ip)) {
      return address;
    }
  }
  throw Refused("ip_address: expected an IPv4 address of a host and a prefix of 0 to 32, got " +
                in_quotes(text));
}

/// 0 as it is given, 1 by DHCP (for which this platform has no client: the address counts).
int method_of(const json& row) {
  const auto found = row.find("method");
  if (found == row.end()) {
    return 0;
  }
  if (found->is_string()) {
    const std::string& text = found->get_ref<const std::string&>();
    if (text == "0" || text == "1") {
      return text[0] - '0';
    }
    throw Refused("method: expected 0 or 1");
  }
  return static_cast<int>(as_int(*found, "method", 0, 1));
}

void set_row(Context& context, const json& row) {
  const std::string& interface = context.sw.board().management.interface;
  if (text_member(row, "manage_L3IF") != interface) {
    throw Refused("manage_L3IF: expected " + in_quotes(interface));
  }
  const Address address = parse_address(text_member(row, "ip_address"));
  const int method = method_of(row);
  Address before;
  const bool had = context.host.address_get(interface, before);
  const int result = context.host.address_set(interface, address);
  if (result != 0) {
    log_line(interface + ": address not set: " + strerror(-result));
    throw Refused(interface + ": " + strerror(-result));
  }
  const int stored =
      context.sw.settings().store({{interface + ".ip", address.ip},
                                   {interface + ".mask", std::to_string(address.prefix)},
                                   {interface + ".method", std::to_string(method)}});
  if (stored != 0) {
    // An address that would not survive the next start is worse than the old one.
    if (had) {
      context.host.address_set(interface, before);
    }
    throw Refused(std::string("settings not stored: ") + strerror(-stored));
  }
}

void l3if_info_set(Context& context, const Request& request, std::string& out) {
  const json& payload = request.payload;
  if (payload.is_array() && payload.size() != 1) {
    throw Refused("expected one interface");
  }
  set_row(context, payload.is_array() ? payload[0] : payload);
  answer(out);
}

constexpr Command kCommands[] = {
    {"manage_L3IF_info_get", l3if_info_get},
    {"manage_L3IF_info_set", l3if_info_set},
};

}  // namespace

const Module kZebra = {"zebra", kCommands};

}  // namespace morvad
