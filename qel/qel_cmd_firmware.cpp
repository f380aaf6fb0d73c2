// SPDX-License-Identifier: Apache-2.0
//
// Handlers of the firmware transfer: chunks pushed by the gateway, or an image fetched by the
// switch.
#include <cstring>

#include "platform/firmware.h"
#include "platform/log.h"
#include "protocol/gateway_protocol.h"
#include "qel/qel_api.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_send.h"
#include "qel/qel_upgrade.h"

namespace proto = qel_protocol;

namespace {

// States of the answer to a chunk.
constexpr int32_t kStateUpgrading = -1;
constexpr int32_t kStateIncomplete = -2;
constexpr int32_t kStateAccepted = 2;
constexpr int32_t kStateComplete = 3;

constexpr size_t kCommandSize = 256;

void answer(const qel_link* link, int32_t index, const char* file, int32_t state) {
  static qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  qel_json_firm_download(text, index, file, state);
  qel_cmd_send_text(link, text);
}

// A location stands in a shell command, unquoted: nothing passes that a shell could misread.
bool location_is_safe(const char* location) {
  static constexpr char kAllowed[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:/._~%=+@,-";
  return location[0] != '\0' && location[0] != '-' && location[0] != '~' &&
         location[std::strspn(location, kAllowed)] == '\0';
}

// Starts to fetch the image, see qel_upgrade_fetch. Returns false when the location is refused.
bool fetch_and_upgrade(const char* location) {
  char area[kCommandSize] = {};
  qel_text command(area, sizeof area);
  command.put("wget -O /tmp/linux.trx ");
  command.put(location);
  if (!location_is_safe(location) || command.overflowed()) {
    return false;
  }
  qel_upgrade_fetch(command.c_str());
  return true;
}

}  // namespace

int qel_cmd_handle_firm_download(qel_link* link, const cJSON* root, const char* text,
                                 uint16_t lenfield, size_t received) {
  const int32_t position = lenfield - static_cast<int32_t>(proto::kHeaderSize);
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (cJSON_IsObject(data) == 0) {
    return 0;
  }
  const int32_t index = cJSON_GetObjectItemInt(data, "index");
  const bool more = cJSON_GetObjectItemInt(data, "next") != 0;
  const char* file = cJSON_GetObjectItemString(data, "file");
  // Bytes that did not arrive are not appended and do not count; as chunk 0 they begin nothing.
  std::span<const uint8_t> chunk;
  const bool arrived = qel_api_chunk({reinterpret_cast<const uint8_t*>(text), received}, position,
                                     cJSON_GetObjectItemInt(data, "length"), &chunk);
  if (index == 0 && arrived &&
      qel_upgrade_init(link, cJSON_GetObjectItemInt(data, "total_length")) != 0) {
    qel_console("%s device upgrading \r\n", __func__);
    answer(link, 0, file, kStateUpgrading);
    return 0;
  }
  if (!more && qel_debug(kDebugFrame)) {
    qel_console("%s device upgrading recvlen[%d] writeindex[%d] totalsize[%d]\r\n", __func__,
                g_qel_upgrade.received, g_qel_upgrade.last_index, g_qel_upgrade.total);
  }
  qel_upgrade_overtime_clear();
  // An overrun leaves the state at "accepted" while more is to come.
  int32_t state = kStateAccepted;
  if (arrived && qel_upgrade_append(link, chunk, index) == 1) {
    state = kStateComplete;
  } else if (!more) {
    state = kStateIncomplete;
  }
  const int32_t next_index = static_cast<int32_t>(static_cast<uint32_t>(index) + 1);
  answer(link, more ? next_index : 0, file, state);
  if (state == kStateComplete) {
    sys_upgrade_firmware(kQelFirmwarePath);
  }
  return 0;
}

int qel_cmd_handle_hfs_upgrade(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  int state = 0;
  int detail = 0;
  sys_upgrade_state_get(&state, &detail);
  if (state == 0 && qel_upgrade_is_fetching()) {
    state = kQelUpgradeFetching;
  }
  if (state != 0) {
    qel_console("Current upgrade state[%d] \n", state);
    return 0;
  }
  const char* location =
      cJSON_GetObjectItemString(cJSON_GetObjectItem(root, "data"), "upgrade_serverinfo");
  if (location != nullptr && !fetch_and_upgrade(location)) {
    zlog_err("firmware location refused: it is too long or holds what a shell could misread");
  }
  qel_console("Upgrading .....\n");
  return 0;
}

int qel_cmd_handle_upgrade(qel_link* link, const cJSON* root, const char* text, size_t area) {
  const int32_t index = cJSON_GetObjectItemIntDef(root, "index", 0);
  const int32_t binlen = cJSON_GetObjectItemIntDef(root, "binlen", 0);
  const int32_t totallen = cJSON_GetObjectItemIntDef(root, "totallen", -1);
  if (totallen < 0) {
    return -1;
  }
  if (index == 0 && binlen == 0 && qel_upgrade_init(link, totallen) != 0) {
    qel_stdout("%s device upgrading \r\n", __func__);
    return -1;
  }
  // The bytes stand behind the text's closing NUL; without bytes there need not be anything.
  const size_t position = strnlen(text, area) + 1;
  std::span<const uint8_t> chunk;
  if (binlen != 0) {
    if (binlen < 0 || position > area || static_cast<size_t>(binlen) > area - position) {
      return -1;
    }
    chunk = {reinterpret_cast<const uint8_t*>(text) + position, static_cast<size_t>(binlen)};
  }
  qel_upgrade_overtime_clear();
  qel_upgrade_append(link, chunk, index);
  return 0;
}
