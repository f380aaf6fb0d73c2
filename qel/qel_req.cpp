// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_req.h"

#include <cstring>

#include "qel/qel_console.h"
#include "qel/qel_table.h"

namespace {
constexpr char kSource[] = "qel/qel_req";
constexpr uint32_t kBlockRecords = 64;
constexpr int32_t kLifetime = 3;
}  // namespace

qel_pool<qel_req> g_qel_req;

void qel_req_list_init() {
  g_qel_req.create(kSource, __LINE__, __func__);
  qel_req_list_expand();
}

void qel_req_list_expand() {
  g_qel_req.expand(kBlockRecords, kSource, __LINE__, __func__);
}

void qel_req_recycle_timeout() {
  g_qel_req.recycle(kLifetime, kSource, __LINE__, __func__);
}

qel_req* qel_req_add(const qel_req_context* context, qel_req_callback callback) {
  if (g_qel_req.free->head == nullptr) {
    qel_req_recycle_timeout();
  }
  if (g_qel_req.free->head == nullptr) {
    qel_req_list_expand();
  }
  qel_req* record = g_qel_req.take();
  record->reqid = g_qel_dev.reqid++;
  record->time = static_cast<uint32_t>(qel_os_time());
  record->context = *context;
  record->callback = callback;
  return record;
}

qel_req* qel_req_lookup(uint64_t reqid) {
  return g_qel_req.find(kSource, __LINE__, __func__,
                        [reqid](const qel_req& record) { return record.reqid == reqid; });
}

int qel_req_answer(uint64_t reqid, const cJSON* answer) {
  qel_req* record = qel_req_lookup(reqid);
  const qel_cjson_text text(cJSON_Print(answer));
  if (record == nullptr || text == nullptr) {
    qel_stdout("error reqid \r");
    return -1;
  }
  record->callback(&record->context, text.get());
  g_qel_req.release(record);
  qel_req_show_list();
  return 0;
}

void qel_req_callback_write(const qel_req_context* context, const char* text) {
  qel_stdout("callback write fd start\r");
  qel_os_write(context->fd, text, std::strlen(text));
  qel_stdout("callback write fd end\r");
}

void qel_req_show_list() {
  qel_stdout("%s,%d show list \r\n", __func__, __LINE__);
  g_qel_req.walk(kSource, __LINE__, __func__, [](const qel_req* record) {
    qel_stdout("id= %lld \r\n", static_cast<long long>(record->reqid));
    return true;
  });
}
