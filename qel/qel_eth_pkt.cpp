// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_eth_pkt.h"

#include "qel/qel_console.h"

namespace {

constexpr char kSource[] = "qel/qel_eth_pkt";
constexpr uint32_t kBlockRecords = 32;
constexpr int32_t kLifetime = 5;

// In 32 bits and then sign-extended: 31 fragments and more give what that gives. A count that no
// shift is defined for is taken modulo 32, as the target's processor does.
uint64_t mask_of(int fragments) {
  const uint32_t bits = (uint32_t{1} << (static_cast<unsigned>(fragments) & 31U)) - 1;
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(bits)));
}

}  // namespace

qel_pool<qel_eth_pkt> g_qel_eth_pkt;
uint32_t g_qel_eth_total;

void qel_eth_pkt_list_init() {
  g_qel_eth_pkt.create(kSource, __LINE__, __func__);
  qel_eth_pkt_list_expand();
}

void qel_eth_pkt_list_expand() {
  g_qel_eth_pkt.expand(kBlockRecords, kSource, __LINE__, __func__);
  g_qel_eth_total += kBlockRecords;
}

void qel_eth_pkt_list_recycle() {
  g_qel_eth_pkt.recycle(kLifetime, kSource, __LINE__, __func__);
}

qel_eth_pkt* qel_eth_pkt_take() {
  if (g_qel_eth_pkt.free->head == nullptr) {
    qel_eth_pkt_list_recycle();
  }
  if (g_qel_eth_pkt.free->head == nullptr) {
    qel_eth_pkt_list_expand();
  }
  return g_qel_eth_pkt.take();
}

qel_eth_pkt* qel_eth_pkt_lookup(uint64_t id) {
  return g_qel_eth_pkt.find(kSource, __LINE__, __func__,
                            [id](const qel_eth_pkt& record) { return record.id == id; });
}

qel_eth_pkt* qel_eth_pkt_lookup_add(uint64_t id, const char* /*text*/, int fragments,
                                    const qel_link* link) {
  qel_eth_pkt* record = qel_eth_pkt_lookup(id);
  if (record == nullptr) {
    record = qel_eth_pkt_take();
    record->id = id;
    record->mask = mask_of(fragments);
    record->link = *link;
  }
  return record;
}

int qel_eth_pkt_release(uint64_t id) {
  qel_eth_pkt* record = qel_eth_pkt_lookup(id);
  if (record == nullptr) {
    return -1;
  }
  g_qel_eth_pkt.release(record);
  return 0;
}

void qel_eth_pkt_show_list() {
  qel_stdout("%s,%d show list g_qel_eth_total=%d \r\n", __func__, __LINE__,
             static_cast<int>(g_qel_eth_total));
  g_qel_eth_pkt.walk(kSource, __LINE__, __func__, [](const qel_eth_pkt* record) {
    qel_stdout("id= %lld \r\n", static_cast<long long>(record->id));
    return true;
  });
}
