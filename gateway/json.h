// SPDX-License-Identifier: Apache-2.0
//
// Reading JSON that may be hostile: strict syntax, bounded size and depth, no name twice, and
// members that are checked for type and range where they are taken.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace qel_gateway {

using Json = nlohmann::json;

// What is wrong with a reply. The text is fit for a terminal.
class BadReply : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr size_t kJsonSizeMax = 64 * 1024;
inline constexpr int kJsonDepthMax = 32;

// Throws BadReply when `text` is not exactly one JSON value in UTF-8, is longer or deeper than the
// bounds above, or has an object with one name twice.
Json parse_json(std::string_view text);

// Members of an object; each throws BadReply when the member is missing, of another type or out of
// range. `object` need not be an object.
const Json& member(const Json& object, const char* name);
int64_t integer_member(const Json& object, const char* name, int64_t least, int64_t most);
std::string text_member(const Json& object, const char* name, size_t longest = 256);

// Elements of an array, with the same promises.
int64_t integer_at(const Json& array, size_t index, int64_t least, int64_t most);
uint64_t unsigned_at(const Json& array, size_t index);
std::string text_at(const Json& array, size_t index, size_t longest = 256);

// The compact ASCII form in which qelctl writes --json output and requests: nothing in it can
// disturb a terminal or a line-based reader.
std::string dump_json(const Json& value);

// The same with the members in the order in which they were added.
std::string dump_json(const nlohmann::ordered_json& value);

}  // namespace qel_gateway
