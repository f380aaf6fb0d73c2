// SPDX-License-Identifier: Apache-2.0
//
// The JSON of lldpcli ("json0", the form whose shape does not depend on what it holds), see lldp.h.
// Everything in it was said by somebody on the network.
#include <algorithm>
#include <string_view>

#include "platform/linux/morvad/kernel/lldp.h"
#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

constexpr size_t kTextMax = 512;         // bytes of one member; LLDP has no longer ones
constexpr size_t kNeighboursMax = 1024;  // in one text

/// What a capability is called to the reader of the event; who reads it looks for "Switch".
struct Capability {
  std::string_view type;
  std::string_view name;
};

constexpr Capability kCapabilities[] = {
    {"Bridge", "Bridge/Switch"}, {"Wlan", "WLAN Access Point"}, {"Tel", "Telephone"},
    {"Docsis", "DOCSIS"},        {"Station", "Station Only"},
};

/// Elements of the member `key`, which is an array where it is well-formed.
const json& list_of(const json& object, const char* key) {
  static const json nothing = json::array();
  if (!object.is_object()) {
    return nothing;
  }
  const auto found = object.find(key);
  return found != object.end() && found->is_array() ? *found : nothing;
}

const json& first_of(const json& object, const char* key) {
  static const json nothing;
  const json& list = list_of(object, key);
  return list.empty() ? nothing : list[0];
}

std::string text_of(const json& object, const char* key) {
  if (!object.is_object()) {
    return {};
  }
  const auto found = object.find(key);
  return found != object.end() && found->is_string()
             ? found->get_ref<const std::string&>().substr(0, kTextMax)
             : std::string();
}

/// The text of {"KEY":[{"value":TEXT}]}.
std::string value_of(const json& object, const char* key) {
  return text_of(first_of(object, key), "value");
}

/// The MAC of {"id":[{"type":"mac","value":MAC}]}, or "".
std::string mac_id(const json& object) {
  const json& id = first_of(object, "id");
  const std::string value = text_of(id, "value");
  std::array<uint8_t, 6> mac{};
  return text_of(id, "type") == "mac" && parse_mac(value, mac) ? value : "";
}

std::string management_address(const json& chassis) {
  for (const json& each : list_of(chassis, "mgmt-ip")) {
    std::string ip = text_of(each, "value");
    if (is_host_address(ip)) {
      return ip;
    }
  }
  return {};
}

std::string capabilities(const json& chassis) {
  std::string names;
  for (const json& each : list_of(chassis, "capability")) {
    if (!each.is_object() || each.value("enabled", json()) != json(true)) {
      continue;
    }
    const std::string type = text_of(each, "type");
    const auto* known = std::find_if(std::begin(kCapabilities), std::end(kCapabilities),
                                     [&type](const Capability& row) { return row.type == type; });
    names += names.empty() ? "" : ", ";
    names += known != std::end(kCapabilities) ? known->name : std::string_view(type);
  }
  return names;
}

LldpNeighbour read_neighbour(const json& interface) {
  const json& chassis = first_of(interface, "chassis");
  const json& port = first_of(interface, "port");
  LldpNeighbour out;
  out.interface = text_of(interface, "name");
  out.chassis_id = value_of(chassis, "id");
  out.id = out.chassis_id + " " + value_of(port, "id");
  // The port's address is the one that its frames come from; a chassis has one of several.
  out.mac = mac_id(port);
  out.mac = out.mac.empty() ? mac_id(chassis) : out.mac;
  const std::string vlan = text_of(first_of(interface, "vlan"), "vlan-id");
  out.vlan_id = vlan.empty() ? "0" : vlan;
  out.management_address = management_address(chassis);
  const std::string ttl = value_of(port, "ttl");
  out.time_to_live = ttl.empty() ? value_of(chassis, "ttl") : ttl;
  out.port_description = value_of(port, "descr");
  out.system_name = value_of(chassis, "name");
  out.system_description = value_of(chassis, "descr");
  out.system_capability = capabilities(chassis);
  return out;
}

constexpr std::pair<const char*, const char*> kKinds[] = {{"lldp-added", "added"},
                                                          {"lldp-updated", "updated"},
                                                          {"lldp-deleted", "deleted"},
                                                          {"lldp", "listed"}};

}  // namespace

LldpNews read_lldp(const json& text) {
  LldpNews news;
  for (const auto& [key, what] : kKinds) {
    for (const json& group : list_of(text, key)) {
      for (const json& interface : list_of(group, "interface")) {
        if (news.neighbours.size() < kNeighboursMax) {
          news.neighbours.push_back(read_neighbour(interface));
        }
      }
    }
    if (text.is_object() && text.contains(key)) {
      news.what = what;
      break;
    }
  }
  return news;
}

void JsonStream::add(std::string_view text, const std::function<void(const std::string&)>& object) {
  for (const char c : text) {
    if (depth_ == 0 && c != '{') {
      continue;
    }
    text_ += c;
    if (escaped_) {
      escaped_ = false;
    } else if (in_string_) {
      escaped_ = c == '\\';
      in_string_ = c != '"';
    } else if (c == '"') {
      in_string_ = true;
    } else if (c == '{') {
      depth_++;
    } else if (c == '}' && --depth_ == 0) {
      object(text_);
      text_.clear();
    }
    if (text_.size() > kObjectMax) {
      *this = JsonStream();
    }
  }
}

}  // namespace morvad
