// SPDX-License-Identifier: Apache-2.0
//
// See request.h.
#include "platform/linux/morvad/request.h"

#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

/// Takes apart the one form that has no payload, {"mdl":"M","cmd":"C"}, which most queries are:
/// no tree is built for it. False for everything else.
bool parse_plain(std::string_view text, Request& out) {
  constexpr std::string_view kHead = "{\"mdl\":\"";
  constexpr std::string_view kMiddle = "\",\"cmd\":\"";
  constexpr std::string_view kTail = "\"}";
  if (!text.starts_with(kHead) || !text.ends_with(kTail) ||
      text.size() < kHead.size() + kMiddle.size() + kTail.size()) {
    return false;
  }
  text = text.substr(kHead.size(), text.size() - kHead.size() - kTail.size());
  const size_t end = text.find('"');
  if (end == text.npos || !text.substr(end).starts_with(kMiddle)) {
    return false;
  }
  const std::string_view module = text.substr(0, end);
  const std::string_view command = text.substr(end + kMiddle.size());
  if (!is_setting_key(module) || !is_setting_key(command)) {
    return false;
  }
  out.module = module;
  out.command = command;
  return true;
}

const json& member(const json& object, const char* key) {
  if (!object.is_object()) {
    throw Refused("expected an object with \"" + std::string(key) + "\"");
  }
  const auto found = object.find(key);
  if (found == object.end()) {
    throw Refused(std::string(key) + ": missing");
  }
  return *found;
}

bool has(const json& object, const char* key) {
  return object.is_object() && object.find(key) != object.end();
}

}  // namespace

void parse_request(std::string_view text, Request& request) {
  if (parse_plain(text, request)) {
    return;
  }
  if (too_deep(text, kMaxDepth)) {
    throw Refused("nested too deep");
  }
  json document = json::parse(text, nullptr, false);
  if (!document.is_object()) {
    throw Refused("not a JSON object");
  }
  request.module = text_member(document, "mdl");
  request.command = text_member(document, "cmd");
  for (const char* key : {"data", "config"}) {
    const auto found = document.find(key);
    if (found != document.end()) {
      request.payload = std::move(*found);
      break;
    }
  }
}

int64_t as_int(const json& value, const std::string& what, int64_t low, int64_t high) {
  int64_t number = 0;
  bool whole = true;
  if (value.is_boolean()) {
    number = value.get<bool>() ? 1 : 0;
  } else if (value.is_number_unsigned()) {
    whole = value.get<uint64_t>() <= INT64_MAX;
    number = whole ? value.get<int64_t>() : 0;
  } else if (value.is_number_integer()) {
    number = value.get<int64_t>();
  } else {
    whole = false;
  }
  if (!whole || number < low || number > high) {
    throw Refused(what + ": expected a whole number from " + std::to_string(low) + " to " +
                  std::to_string(high));
  }
  return number;
}

int64_t int_member(const json& object, const char* key, int64_t low, int64_t high) {
  return as_int(member(object, key), key, low, high);
}

std::string text_member(const json& object, const char* key) {
  const json& value = member(object, key);
  if (!value.is_string()) {
    throw Refused(std::string(key) + ": expected a text");
  }
  return value.get<std::string>();
}

bool bool_member(const json& object, const char* key) {
  return int_member(object, key, 0, 1) != 0;
}

int64_t int_member_or(const json& object, const char* key, int64_t low, int64_t high,
                      int64_t fallback) {
  return has(object, key) ? int_member(object, key, low, high) : fallback;
}

bool bool_member_or(const json& object, const char* key, bool fallback) {
  return has(object, key) ? bool_member(object, key) : fallback;
}

std::string to_text(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void answer(std::string& out) {
  out = "{\"ret\":0}";
}

void answer_data(std::string& out, const json& data) {
  out = "{\"ret\":0,\"data\":";
  out += to_text(data);
  out += '}';
}

void refuse(std::string& out, std::string_view why) {
  out = "{\"ret\":-1,\"error\":";
  out += to_text(json(std::string(why)));
  out += '}';
}

}  // namespace morvad
