// SPDX-License-Identifier: Apache-2.0
//
// One query to a module, taken apart, and the pieces from which its answer is written. What is in
// a request comes from outside and is not trusted: the readers below check type and range and throw
// Refused, which becomes the answer {"ret":-1,"error":"..."}.
#ifndef MORVA_LINUX_MORVAD_REQUEST_H
#define MORVA_LINUX_MORVAD_REQUEST_H

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace morvad {

using nlohmann::json;

/// The module will not do it; what() says why, for the answer.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Request {
  Request() {}  // not noexcept: an empty JSON value may throw
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  std::string module;
  std::string command;
  json payload;   // "data" or "config"; null when there is none
  pid_t pid = 0;  // who asks; 0 when unknown
};

/// Takes a request text apart, into a fresh `request`. Throws Refused when it is not a request.
void parse_request(std::string_view text, Request& request);

/// Members of a payload object. Each throws Refused when `key` is missing or of another kind;
/// `where` names the place in the message.
int64_t int_member(const json& object, const char* key, int64_t low, int64_t high);
std::string text_member(const json& object, const char* key);
bool bool_member(const json& object, const char* key);

/// The same for a member that may be missing.
int64_t int_member_or(const json& object, const char* key, int64_t low, int64_t high,
                      int64_t fallback);
bool bool_member_or(const json& object, const char* key, bool fallback);

/// A whole number, or true or false as 1 and 0, from `low` to `high`.
int64_t as_int(const json& value, const std::string& what, int64_t low, int64_t high);

/// Answers. `out` is empty before.
void answer(std::string& out);                         // {"ret":0}
void answer_data(std::string& out, const json& data);  // {"ret":0,"data":...}
void refuse(std::string& out, std::string_view why);   // {"ret":-1,"error":...}

/// JSON text of a value; bytes that are not UTF-8 are replaced.
std::string to_text(const json& value);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_REQUEST_H
