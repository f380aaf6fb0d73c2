// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_table.h"

#include <cstdlib>

#include "qel/qel_alarm.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_eth.h"
#include "qel/qel_mac.h"
#include "qel/qel_udp.h"

namespace {
constexpr char kSource[] = "qel/qel_table";
}

qel_dev g_qel_dev;

qel_port* qel_port_of(const struct uif* uif) {
  if (uif == nullptr || uif_index_is_port(uif->index) == 0) {
    return nullptr;
  }
  return static_cast<qel_port*>(uif->info);
}

void qel_table_dev_init() {
  for (const listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
    if (node->data == nullptr) {
      zlog_assert_failed("(node)->data != ((void *)0)", kSource, __LINE__, __func__);
    }
    auto* uif = static_cast<struct uif*>(node->data);
    if (uif_index_is_port(uif->index) == 0) {
      continue;
    }
    uif->info = std::calloc(1, sizeof(qel_port));
    if (uif->info == nullptr) {
      zlog_assert_failed("uif->info != ((void *)0)", kSource, __LINE__, __func__);
    }
  }
}

void qel_dev_init() {
  g_qel_dev = qel_dev{};
  g_qel_dev.reqid = 1;
  g_qel_dev.enable = 1;
  qel_devinfo_init();
  qel_eth_open();
  qel_udp_init();
  qel_mac_init();
  qel_alarm_init();
}
