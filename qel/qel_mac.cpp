// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_mac.h"

#include <cstdlib>
#include <cstring>
#include <span>

#include "platform/log.h"
#include "platform/sys.h"
#include "platform/uif.h"
#include "qel/qel_alarm.h"
#include "qel/qel_console.h"
#include "qel/qel_text.h"

namespace {

constexpr char kSource[] = "qel/qel_mac";
constexpr uint32_t kBatch = 20;
constexpr uint32_t kTable = 3;               // which of the chip's tables is read
constexpr uint32_t kTypeLearnt = 2;          // the entries that are watched
constexpr int32_t kMoveInterval = 12;        // seconds between two alarms
constexpr uint32_t kPositionMax = 1U << 20;  // no chip's table is longer: a reader must end

// The platform fills an array of them.
static_assert(sizeof(struct hal_mac_entry) == 20);

// A node without a record is a broken invariant, as it is in the list of interfaces.
qel_mac_entry* record_of(const struct listnode* node, unsigned line, const char* function) {
  if (node->data == nullptr) {
    zlog_assert_failed("(node)->data != ((void *)0)", kSource, line, function);
  }
  return static_cast<qel_mac_entry*>(node->data);
}

bool same_address(const qel_mac_entry& record, const struct hal_mac_entry& entry) {
  return record.vid == entry.vid && std::memcmp(record.mac, entry.mac, sizeof record.mac) == 0;
}

// Deletes every record that `doomed` picks, for `function`.
template <typename Doomed>
void delete_records(struct list* list, const char* function, Doomed doomed) {
  for (struct listnode* node = list->head; node != nullptr;) {
    qel_mac_entry* record = record_of(node, __LINE__, function);
    node = node->next;
    if (doomed(*record)) {
      listnode_delete(list, record);
    }
  }
}

int alarm_move(uint32_t old_port, const struct hal_mac_entry& entry) {
  qel_stdout("find move alarm ..............\r\n");
  const struct uif* from = uif_lookup_by_index(old_port);
  const struct uif* to = uif_lookup_by_index(entry.port);
  if (from == nullptr || to == nullptr) {
    return 0;
  }
  char area[256] = {};
  qel_text msg(area, sizeof area);
  msg.printf("{\"ports\":\"%s,%s\"", from->name, to->name);
  // The blank before the closing quote is part of the text.
  msg.printf(",\"value\":\"%s \"}", mac2str(entry.mac));
  qel_alarm_update(kAlarmMacMove, 1, 0, kMoveInterval, msg.c_str());
  return static_cast<int>(msg.length());
}

void remember(struct list* list, const struct hal_mac_entry& entry) {
  auto* record = static_cast<qel_mac_entry*>(std::calloc(1, sizeof(qel_mac_entry)));
  if (record == nullptr) {
    return;  // not known means not watched; the next scan tries again
  }
  record->port = entry.port;
  record->type = entry.type;
  record->vid = entry.vid;
  std::memcpy(record->mac, entry.mac, sizeof record->mac);
  record->aging_time = entry.aging_time;
  listnode_add(list, record);
}

// A full list takes nothing more of a batch, so that after such a scan it is empty and begins anew.
void apply_batch(std::span<const struct hal_mac_entry> batch) {
  for (const struct hal_mac_entry& entry : batch) {
    if (entry.type != kTypeLearnt) {
      continue;
    }
    if (g_qel_cur_mac_list->count >= kQelMacRecords) {
      return;
    }
    qel_mac_find_move_process(g_qel_cur_mac_list, &entry);
  }
}

}  // namespace

struct list* g_qel_cur_mac_list;

void qel_mac_init() {
  g_qel_cur_mac_list = list_new();
  if (g_qel_cur_mac_list == nullptr) {
    zlog_assert_failed("g_qel_cur_mac_list != ((void *)0)", kSource, __LINE__, __func__);
  }
  g_qel_cur_mac_list->del = std::free;
}

int qel_mac_scan_check_l2_map() {
  qel_mac_reset_list(g_qel_cur_mac_list);
  uint32_t count = kBatch;
  for (uint32_t position = 0; count == kBatch && position < kPositionMax; position += count) {
    struct hal_mac_entry entries[kBatch] = {};
    count = 0;
    if (hal_mac_get(entries, position, kBatch, kTable, &count, 0, 0, 0) != 0) {
      // What is known stays: a table that could not be read says nothing about who left.
      qel_stdout("%s get error \r\n", __func__);
      return -1;
    }
    apply_batch(std::span(entries).first(std::min(count, kBatch)));
  }
  qel_mac_clear_old_list(g_qel_cur_mac_list);
  return 0;
}

int qel_mac_find_move_process(struct list* list, const struct hal_mac_entry* entry) {
  bool known = false;
  const qel_mac_entry* moved = nullptr;
  for (struct listnode* node = list->head; node != nullptr && moved == nullptr; node = node->next) {
    qel_mac_entry* record = record_of(node, __LINE__, __func__);
    if (!same_address(*record, *entry)) {
      continue;
    }
    known = true;
    if (record->port != entry->port) {
      // Its aging time stays 0, so that this scan drops it and the next learns the new port.
      moved = record;
    } else {
      record->aging_time = entry->aging_time;
    }
  }
  if (moved != nullptr) {
    return alarm_move(moved->port, *entry);
  }
  if (!known) {
    remember(list, *entry);
  }
  return 0;
}

void qel_mac_reset_list(struct list* list) {
  for (struct listnode* node = list->head; node != nullptr; node = node->next) {
    record_of(node, __LINE__, __func__)->aging_time = 0;
  }
}

void qel_mac_clear_old_list(struct list* list) {
  delete_records(list, __func__,
                 [](const qel_mac_entry& record) { return record.aging_time == 0; });
}

void qel_mac_clear_port_list(uint32_t port) {
  delete_records(g_qel_cur_mac_list, __func__, [port](const qel_mac_entry& record) {
    if (record.port == port) {
      qel_stdout("%s,%d %x \r\n", "qel_mac_clear_port_list", __LINE__, port);
    }
    return record.port == port;
  });
}

void qel_mac_list_show(const struct list* list) {
  for (const struct listnode* node = list->head; node != nullptr; node = node->next) {
    const qel_mac_entry* record = record_of(node, __LINE__, __func__);
    const uint8_t* mac = record->mac;
    qel_stdout("%02x-%02x-%02x-%02x-%02x-%02x  %x vid %d aging_time=%u \r\n", mac[0], mac[1],
               mac[2], mac[3], mac[4], mac[5], record->port, record->vid, record->aging_time);
  }
}

qel_mac_entry* qel_mac_look_up_by_node(const struct list* list, const qel_mac_entry* key) {
  for (struct listnode* node = list->head; node != nullptr; node = node->next) {
    qel_mac_entry* record = record_of(node, __LINE__, __func__);
    if (record->port == key->port && std::memcmp(record->mac, key->mac, sizeof key->mac) == 0) {
      return record;
    }
  }
  return nullptr;
}

int qel_mac_delete_node(struct list* list, const qel_mac_entry* key) {
  qel_mac_entry* record =
      list != nullptr && key != nullptr ? qel_mac_look_up_by_node(list, key) : nullptr;
  if (record == nullptr) {
    return -1;
  }
  listnode_delete(list, record);
  return 0;
}
