// SPDX-License-Identifier: Apache-2.0
//
// The interface cache. Tests fill it before the agent starts; uif_init and uvlan_init only say that
// they were called. Records of earlier tests are kept, because the agent's data hangs on them.
#include "platform/uif.h"

#include <cstring>
#include <memory>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

struct list* g_uif_list = nullptr;
int g_port_max = 0;

namespace {

int g_yes = 1;

std::vector<std::unique_ptr<struct uif>>& all_records() {
  static auto* const instance = new std::vector<std::unique_ptr<struct uif>>;
  return *instance;
}

// The first record that `matches`; null data is skipped, the look-ups do not judge.
template <typename Predicate>
struct uif* find(Predicate matches) {
  for (listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
    auto* const uif = static_cast<struct uif*>(node->data);
    if (uif != nullptr && matches(*uif)) {
      return uif;
    }
  }
  return nullptr;
}

struct uif* add_record(const char* name, uint32_t index) {
  all_records().push_back(std::make_unique<struct uif>());
  struct uif* const uif = all_records().back().get();
  *uif = {};
  uif->index = index;
  std::strncpy(uif->name, name, sizeof uif->name - 1);
  listnode_add(g_uif_list, uif);
  return uif;
}

}  // namespace

extern "C" {

void uif_init(void) {
  fake::internal::record("uif_init()");
}

void uvlan_init(void) {
  fake::internal::record("uvlan_init()");
}

struct uif* uif_get_by_name(const char* name) {
  return name == nullptr
             ? nullptr
             : find([name](const struct uif& uif) { return std::strcmp(uif.name, name) == 0; });
}

struct uif* uif_lookup_by_name(const char* name) {
  return uif_get_by_name(name);
}

struct uif* uif_lookup_by_index(uint32_t index) {
  return find([index](const struct uif& uif) { return uif.index == index; });
}

struct uif* uif_lookup_by_port_index(int port_index) {
  return find([port_index](const struct uif& uif) {
    return uif_index_is_port(uif.index) && uif.port_no - 1 == port_index;
  });
}

int uif_is_enable(const struct uif* uif) {
  return (uif->flags & UIF_FLAG_DISABLED) == 0 ? g_yes : 0;
}

int uif_is_linkup(const struct uif* uif) {
  return uif->link != 0 ? g_yes : 0;
}

}  // extern "C"

namespace fake {

struct uif* add_port(const char* name, const PortSpec& spec) {
  ++g_port_max;
  const int32_t number = spec.port_no != 0 ? spec.port_no : g_port_max;
  struct uif* const uif = add_record(name, 0x01000000U + static_cast<uint32_t>(number));
  uif->port_no = number;
  uif->speed_class = spec.speed_class;
  uif->medium = spec.medium;
  uif->max_speed = spec.max_speed;
  uif->speed = spec.speed;
  uif->duplex = spec.duplex;
  uif->speed_conf = spec.speed_conf;
  uif->pos_x = spec.pos_x;
  uif->pos_y = spec.pos_y;
  uif->aux_index = spec.aux_index;
  uif->mirror = spec.mirror;
  uif->limit = spec.limit;
  uif->link = spec.link;
  uif->flags = spec.disabled ? UIF_FLAG_DISABLED : 0;
  return uif;
}

void add_ports(int count) {
  for (int i = 1; i <= count; ++i) {
    add_port(("ge" + std::to_string(i)).c_str());
  }
}

struct uif* add_interface(const char* name, uint32_t index) {
  return add_record(name, index);
}

void add_null_interface() {
  listnode_add(g_uif_list, nullptr);
}

void set_uif_yes(int value) {
  g_yes = value;
}

void internal::reset_uif() {
  static struct list* const list = list_new();
  while (list->head != nullptr) {
    listnode_delete(list, list->head->data);
  }
  g_uif_list = list;
  g_port_max = 0;
  g_yes = 1;
}

}  // namespace fake
