// SPDX-License-Identifier: Apache-2.0
//
// The interface manager's client. Messages that the test injects wait on a connection until the
// agent reads it; uclient_handle_async then calls the hooks, as on the switch.
#include "platform/uclient.h"

#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

struct uclient_msg {
  enum Kind { kNewIf, kIfStatus, kTrunkSet, kMirrorGet } kind;
  std::string name;
  int value;       // link, trunk or mirror
  int speed_conf;  // of an interface-status message
  uint32_t index;  // of a new interface
};

namespace {

struct State {
  std::unique_ptr<struct uclient> client;
  std::deque<uclient_msg> by_hand;  // a deque: their addresses are handed out
  std::map<int, std::deque<uclient_msg>> waiting;
  std::set<int> closing;
  int target = -1;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

int target_fd() {
  const int own = state().client ? state().client->conn_fd : -1;
  return state().target >= 0 ? state().target : own;
}

void send(const uclient_msg& message) {
  state().waiting[target_fd()].push_back(message);
}

int call_hook(struct uclient* client, const uclient_msg& message) {
  int (*hook)(struct uclient*, const struct uclient_msg*) = nullptr;
  switch (message.kind) {
    case uclient_msg::kNewIf:
      hook = client->new_if;
      break;
    case uclient_msg::kIfStatus:
      hook = client->if_status;
      break;
    case uclient_msg::kTrunkSet:
      hook = client->trunk_set;
      break;
    case uclient_msg::kMirrorGet:
      hook = client->mirror_get;
      break;
  }
  return hook == nullptr ? 0 : hook(client, &message);
}

}  // namespace

extern "C" {

struct uclient* uclient_connect(uint32_t address, unsigned short port, unsigned short listen_port) {
  fake::internal::record("uclient_connect(0x%08x, %u, %u)", address, port, listen_port);
  if (fake::internal::platform_fails("uclient_connect")) {
    return nullptr;
  }
  state().client = std::make_unique<struct uclient>();
  *state().client = {};
  state().client->conn_fd = fake::internal::open_descriptor(AF_INET);
  state().client->listen_fd = fake::internal::open_descriptor(AF_INET);
  return state().client.get();
}

int uclient_handle_async(struct uclient* client, int fd) {
  fake::internal::record("uclient_handle_async(%d)", fd);
  std::deque<uclient_msg> messages;
  messages.swap(state().waiting[fd]);
  for (const uclient_msg& message : messages) {
    // A copy of its own, freed at once: hooks must not keep the message.
    const auto passing = std::make_unique<uclient_msg>(message);
    call_hook(client, *passing);
  }
  return state().closing.erase(fd) != 0 ? -1 : static_cast<int>(messages.size());
}

int uclient_new_if(struct uclient*, const struct uclient_msg* msg) {
  fake::internal::record("uclient_new_if(%s)", msg->name.c_str());
  if (uif_get_by_name(msg->name.c_str()) != nullptr) {
    return -1;
  }
  fake::add_interface(msg->name.c_str(), msg->index);
  return 0;
}

struct uif* uclient_if_status(struct uclient*, const struct uclient_msg* msg) {
  fake::internal::record("uclient_if_status(%s)", msg->name.c_str());
  struct uif* const uif = uif_get_by_name(msg->name.c_str());
  if (uif != nullptr) {
    uif->link = msg->value;
    uif->speed_conf = msg->speed_conf;
    uif->speed = msg->value != 0 ? uif->max_speed : 0;
    uif->duplex = msg->value != 0 ? 1 : 0;
  }
  return uif;
}

int uclient_trunk_set(struct uclient*, const struct uclient_msg* msg) {
  fake::internal::record("uclient_trunk_set(%s, %d)", msg->name.c_str(), msg->value);
  return 0;
}

int uclient_mirror_get(struct uclient*, const struct uclient_msg* msg) {
  fake::internal::record("uclient_mirror_get(%s, %d)", msg->name.c_str(), msg->value);
  struct uif* const uif = uif_get_by_name(msg->name.c_str());
  if (uif == nullptr) {
    return -1;
  }
  uif->mirror = msg->value;
  return 0;
}

}  // extern "C"

namespace fake {

struct uclient* uclient() {
  return state().client.get();
}

const uclient_msg* message_if_status(const std::string& name, int link, int speed_conf) {
  state().by_hand.push_back({uclient_msg::kIfStatus, name, link, speed_conf, 0});
  return &state().by_hand.back();
}

void if_status(const std::string& name, int link, int speed_conf) {
  send({uclient_msg::kIfStatus, name, link, speed_conf, 0});
}

void new_if(const std::string& name, uint32_t index) {
  send({uclient_msg::kNewIf, name, 0, 0, index});
}

void trunk_set(const std::string& name, int trunk) {
  send({uclient_msg::kTrunkSet, name, trunk, 0, 0});
}

void mirror_get(const std::string& name, int mirror) {
  send({uclient_msg::kMirrorGet, name, mirror, 0, 0});
}

void manager_sends_on(int fd) {
  state().target = fd;
}
void manager_closes(int fd) {
  state().closing.insert(fd);
}

namespace internal {

bool manager_readable(int fd) {
  const auto found = state().waiting.find(fd);
  return state().closing.contains(fd) || (found != state().waiting.end() && !found->second.empty());
}

void reset_uclient() {
  state() = State{};
}

}  // namespace internal
}  // namespace fake
