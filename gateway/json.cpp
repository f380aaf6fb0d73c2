// SPDX-License-Identifier: Apache-2.0
//
// Strict parsing and checked access.
#include "gateway/json.h"

#include <set>
#include <vector>

#include <fmt/format.h>

namespace qel_gateway {

namespace {

// Watches a parse for depth and repeated names.
class Guard {
 public:
  bool operator()(int depth, Json::parse_event_t event, Json& value) {
    if (depth > kJsonDepthMax) {
      throw BadReply(fmt::format("JSON nested deeper than {}", kJsonDepthMax));
    }
    switch (event) {
      case Json::parse_event_t::object_start:
        names_.emplace_back();
        break;
      case Json::parse_event_t::object_end:
        names_.pop_back();
        break;
      case Json::parse_event_t::key:
        if (!names_.back().insert(value.get<std::string>()).second) {
          throw BadReply("JSON object with one name twice");
        }
        break;
      case Json::parse_event_t::array_start:
      case Json::parse_event_t::array_end:
      case Json::parse_event_t::value:
        break;
    }
    return true;
  }

 private:
  std::vector<std::set<std::string>> names_;
};

const Json& element(const Json& array, size_t index) {
  if (!array.is_array() || index >= array.size()) {
    throw BadReply(fmt::format("array with no element {}", index));
  }
  return array[index];
}

int64_t to_integer(const Json& value, int64_t least, int64_t most) {
  if (!value.is_number_integer()) {
    throw BadReply("no whole number where one belongs");
  }
  if (value.is_number_unsigned() && value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX)) {
    throw BadReply("number out of range");
  }
  const auto number = value.get<int64_t>();
  if (number < least || number > most) {
    throw BadReply(fmt::format("number {} outside {}..{}", number, least, most));
  }
  return number;
}

std::string to_text(const Json& value, size_t longest) {
  if (!value.is_string()) {
    throw BadReply("a value where a text belongs");
  }
  auto text = value.get<std::string>();
  if (text.size() > longest) {
    throw BadReply(fmt::format("text of more than {} bytes", longest));
  }
  return text;
}

}  // namespace

Json parse_json(std::string_view text) {
  if (text.size() > kJsonSizeMax) {
    throw BadReply(fmt::format("more than {} bytes of JSON", kJsonSizeMax));
  }
  try {
    Guard guard;
    return Json::parse(text, [&guard](int depth, Json::parse_event_t event, Json& value) {
      return guard(depth, event, value);
    });
  } catch (const Json::parse_error& error) {
    throw BadReply(fmt::format("no JSON from byte {} on", error.byte));
  } catch (const Json::exception&) {
    throw BadReply("JSON with a number that no computer holds");
  }
}

const Json& member(const Json& object, const char* name) {
  if (!object.is_object()) {
    throw BadReply(fmt::format("no object around \"{}\"", name));
  }
  const auto found = object.find(name);
  if (found == object.end()) {
    throw BadReply(fmt::format("\"{}\" is missing", name));
  }
  return *found;
}

int64_t integer_member(const Json& object, const char* name, int64_t least, int64_t most) {
  const Json& value = member(object, name);
  try {
    return to_integer(value, least, most);
  } catch (const BadReply& reason) {
    throw BadReply(fmt::format("\"{}\": {}", name, reason.what()));
  }
}

std::string text_member(const Json& object, const char* name, size_t longest) {
  const Json& value = member(object, name);
  try {
    return to_text(value, longest);
  } catch (const BadReply& reason) {
    throw BadReply(fmt::format("\"{}\": {}", name, reason.what()));
  }
}

int64_t integer_at(const Json& array, size_t index, int64_t least, int64_t most) {
  return to_integer(element(array, index), least, most);
}

uint64_t unsigned_at(const Json& array, size_t index) {
  const Json& value = element(array, index);
  if (!value.is_number_unsigned()) {
    throw BadReply("no unsigned number where one belongs");
  }
  return value.get<uint64_t>();
}

std::string text_at(const Json& array, size_t index, size_t longest) {
  return to_text(element(array, index), longest);
}

std::string dump_json(const Json& value) {
  return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string dump_json(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace qel_gateway
