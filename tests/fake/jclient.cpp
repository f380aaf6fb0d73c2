// SPDX-License-Identifier: Apache-2.0
//
// Module queries: requests are kept whole, answers are what the test laid down. The whole reply
// area is touched, so that a caller's area that is too small is caught by the sanitizer.
#include "platform/jclient.h"

#include <cjson/cJSON.h>

#include <cstring>
#include <deque>
#include <map>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

using Key = std::pair<std::string, std::string>;

struct State {
  std::vector<fake::Query> queries;
  std::map<Key, std::string> replies;
  std::map<Key, std::deque<std::string>> once;
  std::function<void(const fake::Query&)> action;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

std::string member(const cJSON* root, const char* name) {
  const cJSON* const item = cJSON_GetObjectItem(root, name);
  return cJSON_IsString(item) ? item->valuestring : "";
}

std::optional<std::string> answer_to(const fake::Query& query) {
  const Key key{query.module, query.command};
  std::deque<std::string>& queue = state().once[key];
  if (!queue.empty()) {
    std::string text = queue.front();
    queue.pop_front();
    return text;
  }
  const auto found = state().replies.find(key);
  if (found == state().replies.end()) {
    return std::nullopt;
  }
  return found->second;
}

}  // namespace

extern "C" int jclient_query(const char* request, char* reply) {
  cJSON* const root = cJSON_Parse(request);
  const fake::Query query{member(root, "mdl"), member(root, "cmd"), request, reply != nullptr};
  cJSON_Delete(root);
  fake::internal::record("jclient_query(%s)", request);
  state().queries.push_back(query);
  if (state().action) {
    state().action(query);
  }
  if (reply == nullptr) {
    return 0;
  }
  volatile char* const last = reply + JCLIENT_REPLY_SIZE - 1;
  *last = *last;
  const std::optional<std::string> text = answer_to(query);
  if (!text || text->size() >= JCLIENT_REPLY_SIZE) {
    return -1;
  }
  std::memcpy(reply, text->c_str(), text->size() + 1);
  return 0;
}

namespace fake {

const std::vector<Query>& queries() {
  return state().queries;
}

std::vector<std::string> query_texts() {
  std::vector<std::string> texts;
  for (const Query& query : state().queries) {
    texts.push_back(query.request);
  }
  return texts;
}

void reply(const std::string& module, const std::string& command, const std::string& text) {
  state().replies[{module, command}] = text;
}

void reply_once(const std::string& module, const std::string& command, const std::string& text) {
  state().once[{module, command}].push_back(text);
}

void no_reply(const std::string& module, const std::string& command) {
  state().replies.erase({module, command});
  state().once.erase({module, command});
}

void on_query(std::function<void(const Query&)> action) {
  state().action = std::move(action);
}

void internal::reset_jclient() {
  state() = State{};
}
void internal::clear_jclient_records() {
  state().queries.clear();
}

}  // namespace fake
