// SPDX-License-Identifier: Apache-2.0
//
// See names.h.
#include "platform/linux/morvad/names.h"

#include <arpa/inet.h>

#include <algorithm>

namespace morvad {
namespace {

bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_word(char c) {
  return is_letter(c) || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

bool too_deep(std::string_view json, int limit) {
  int depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < json.size(); i++) {
    const char c = json[i];
    if (in_string) {
      if (c == '\\') {
        i++;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) {
        return true;
      }
    } else if (c == ']' || c == '}') {
      depth--;
    }
  }
  return false;
}

bool is_port_name(std::string_view text) {
  return !text.empty() && text.size() <= 31 && is_letter(text[0]) &&
         std::all_of(text.begin(), text.end(), is_word);
}

bool is_linux_interface(std::string_view text) {
  return !text.empty() && text.size() <= 15 && std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c < 0x7f && c != '/' && c != '"' && c != '\\';
  });
}

bool is_setting_key(std::string_view text) {
  return !text.empty() && text.size() <= 63 && std::all_of(text.begin(), text.end(), is_word);
}

bool is_printable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte != 0x7f;
  });
}

bool is_plain(std::string_view text) {
  return is_printable(text) && text.find_first_of("\"\\") == text.npos;
}

bool is_setting_value(std::string_view text) {
  return text.size() <= 255 && is_printable(text);
}

bool is_host_address(const std::string& text) {
  in_addr address{};
  if (text.size() > 15 || inet_pton(AF_INET, text.c_str(), &address) != 1) {
    return false;
  }
  const uint32_t first = ntohl(address.s_addr) >> 24;
  return first != 0 && first != 127 && first < 224;
}

bool parse_mac(std::string_view text, std::array<uint8_t, 6>& mac) {
  if (text.size() != 17) {
    return false;
  }
  std::array<uint8_t, 6> read{};
  for (size_t i = 0; i < 6; i++) {
    const int high = hex_digit(text[3 * i]);
    const int low = hex_digit(text[3 * i + 1]);
    if (high < 0 || low < 0 || (i < 5 && text[3 * i + 2] != ':')) {
      return false;
    }
    read[i] = static_cast<uint8_t>(high * 16 + low);
  }
  mac = read;
  return true;
}

void append_mac(std::string& out, const std::array<uint8_t, 6>& mac) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < mac.size(); i++) {
    if (i > 0) {
      out += ':';
    }
    out += kDigits[mac[i] >> 4];
    out += kDigits[mac[i] & 15];
  }
}

std::string switch_key(std::string_view name, std::string_view port) {
  return port_key(name, port, "enable");
}

std::string port_key(std::string_view group, std::string_view port, std::string_view property) {
  std::string key(group);
  key += '.';
  key += port;
  key += '.';
  key += property;
  return key;
}

std::string in_quotes(std::string_view text) {
  constexpr size_t kShown = 40;
  std::string out = "\"";
  for (const char c : text.substr(0, kShown)) {
    out += is_printable({&c, 1}) ? c : '?';
  }
  out += text.size() > kShown ? "...\"" : "\"";
  return out;
}

}  // namespace morvad
