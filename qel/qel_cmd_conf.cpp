// SPDX-License-Identifier: Apache-2.0
//
// Handlers of the configuration transfer: the archive out, chunk by chunk, and one in.
#include "platform/log.h"
#include "protocol/gateway_protocol.h"
#include "qel/qel_api.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"

namespace proto = qel_protocol;

namespace {

// States of the answer to a chunk.
constexpr int32_t kStateFailed = 0;
constexpr int32_t kStateStored = 2;
constexpr int32_t kStateApplying = 3;

constexpr uint32_t kLargeTotal = 65535;
// An upload answer is a short text and a chunk.
constexpr size_t kUploadAnswerSize = 2048;

struct download_request {
  int32_t index;
  int32_t next;
  const char* file;
  int32_t total_length;
  uint32_t crc;
  int32_t length;
};

// A CRC may come as the signed number that uploads send or as the unsigned one.
uint32_t crc_of(const cJSON* data) {
  return static_cast<uint32_t>(cJSON_GetObjectItemLongIntDef(data, "crc", 0));
}

download_request read_request(const cJSON* data) {
  return {.index = cJSON_GetObjectItemInt(data, "index"),
          .next = cJSON_GetObjectItemInt(data, "next"),
          .file = cJSON_GetObjectItemString(data, "file"),
          .total_length = cJSON_GetObjectItemInt(data, "total_length"),
          .crc = crc_of(data),
          .length = cJSON_GetObjectItemInt(data, "length")};
}

int32_t next_index(const download_request& request) {
  return request.next != 0 ? static_cast<int32_t>(static_cast<uint32_t>(request.index) + 1) : 0;
}

// Ends a download whose last chunk was stored and returns the state of its answer: what was
// received is unpacked and looked at before the answer says that it will be applied.
int32_t end_download(uint32_t crc) {
  const bool empty = g_qel_conf.download_length == 0;
  // A mismatch is only logged: an archive that can be unpacked is applied all the same.
  qel_api_download_conf_check(crc);
  if (empty) {
    zlog_err("configuration archive refused: it has no bytes");
    return kStateFailed;
  }
  return qel_api_download_unpack() ? kStateApplying : kStateFailed;
}

// Stores the chunk and returns the state of its answer.
int32_t store_chunk(const download_request& request, std::span<const uint8_t> received,
                    int32_t position) {
  std::span<const uint8_t> chunk;
  if (!qel_api_chunk(received, position, request.length, &chunk)) {
    qel_api_download_reset();
    return kStateFailed;
  }
  if (request.index == 0 && g_qel_conf.download_file == nullptr &&
      qel_api_download_begin(request.total_length) == -2) {
    return kStateFailed;
  }
  if (qel_api_download_conf_write(chunk) != 0) {
    return kStateFailed;
  }
  if (g_qel_conf.download_length != static_cast<uint32_t>(request.total_length) &&
      request.next != 0) {
    return kStateStored;
  }
  // Without an open file nothing was stored: the answers stay those of a download, and the
  // configuration stays as it is.
  if (g_qel_conf.download_file == nullptr) {
    qel_api_download_conf_check(request.crc);
    return kStateApplying;
  }
  return end_download(request.crc);
}

// The position is told before anything is checked, so the bytes are looked at only where they are.
void trace_offset(const char* function, unsigned line, const char* text, int32_t position) {
  // Behind the last byte that is looked at stands one more, which is zero.
  const bool inside = position >= 0 && position < static_cast<int32_t>(proto::kTextReadSize);
  const auto* bytes = reinterpret_cast<const uint8_t*>(text);
  qel_console("[%s,%d] offset[%d] pdata0[0x%x] pdata1[0x%x]\n", function, static_cast<int>(line),
              position, inside ? bytes[position] : 0U, inside ? bytes[position + 1] : 0U);
}

}  // namespace

int qel_cmd_handle_conf_get(qel_link* link, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (cJSON_IsObject(data) == 0) {
    return 0;
  }
  const int32_t index = cJSON_GetObjectItemInt(data, "index");
  if (g_qel_dev.conf_busy == 0) {
    g_qel_dev.conf_busy = 1;
    if (qel_api_conf_pack() < 0) {
      // No answer; the busy mark stays until the idle clean-up takes it away.
      qel_console("[%s,%d] \n", __func__, __LINE__);
      return 0;
    }
  }
  g_qel_dev.conf_age = 0;
  char area[kUploadAnswerSize] = {};
  uint16_t tail = 0;
  const size_t length = qel_json_conf_get(area, index, &tail);
  if (length > 0) {
    qel_cmd_send_tail(link, area, length, tail);
  }
  return 0;
}

int qel_cmd_handle_conf_download(qel_link* link, const cJSON* root, const char* text,
                                 uint16_t lenfield, size_t received) {
  const int32_t position = lenfield - static_cast<int32_t>(proto::kHeaderSize);
  trace_offset(__func__, __LINE__, text, position);
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (cJSON_IsObject(data) == 0) {
    return 0;
  }
  const download_request request = read_request(data);
  if (static_cast<uint32_t>(request.total_length) >= kLargeTotal) {
    qel_console("[%s,%d] total_length[%d] \n", __func__, __LINE__, request.total_length);
  }
  const int32_t state =
      store_chunk(request, {reinterpret_cast<const uint8_t*>(text), received}, position);
  static qel_text_area<kQelMessageSize> area;
  qel_text& answer = area.begin();
  qel_json_conf_download(answer, next_index(request), request.file, state);
  qel_cmd_send_text(link, answer);
  if (state == kStateApplying) {
    qel_api_update_down_config(1);
  }
  return 0;
}
