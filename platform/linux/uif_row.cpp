// SPDX-License-Identifier: Apache-2.0
//
// The members of an interface row, see uif_row.h.
#include "platform/linux/uif_row.h"

#include <stddef.h>
#include <string.h>

#include "platform/linux/json.h"
#include "platform/linux/uif_internal.h"

namespace {

constexpr int32_t kSpeedMax = 1000000;  // Mbit/s
constexpr int32_t kSpeedCodeMax = 14;
constexpr int32_t kPanelMax = 9999;

struct field {
  const char* name;
  size_t offset;  // of an int32_t in struct uif
  int32_t low;
  int32_t high;
  bool status;  // an interface-status message may change it
};

constexpr field kFields[] = {
    {"port_no", offsetof(uif, port_no), 0, kUifPortMax, false},
    {"speed_class", offsetof(uif, speed_class), 0, UIF_CLASS_TEN_GIGA, false},
    {"medium", offsetof(uif, medium), 0, UIF_MEDIUM_FIBRE, false},
    {"max_speed", offsetof(uif, max_speed), 0, kSpeedMax, false},
    {"speed", offsetof(uif, speed), 0, kSpeedMax, true},
    {"duplex", offsetof(uif, duplex), 0, 1, true},
    {"speed_conf", offsetof(uif, speed_conf), 0, kSpeedCodeMax, true},
    {"pos_x", offsetof(uif, pos_x), 0, kPanelMax, false},
    {"pos_y", offsetof(uif, pos_y), 0, kPanelMax, false},
    {"aux_index", offsetof(uif, aux_index), INT32_MIN, INT32_MAX, false},
    {"mirror", offsetof(uif, mirror), 0, INT32_MAX, false},
    {"limit", offsetof(uif, limit), 0, INT32_MAX, false},
    {"link", offsetof(uif, link), 0, 1, true},
};

bool read_fields(const cJSON* object, bool status_only, uif* record) {
  for (const field& entry : kFields) {
    if (status_only && !entry.status) {
      continue;
    }
    int64_t value = 0;
    int32_t* place = reinterpret_cast<int32_t*>(reinterpret_cast<char*>(record) + entry.offset);
    value = *place;
    if (!json_int_if_there(object, entry.name, entry.low, entry.high, &value)) {
      return false;
    }
    *place = static_cast<int32_t>(value);
  }
  int64_t enable = (record->flags & UIF_FLAG_DISABLED) == 0 ? 1 : 0;
  if (!json_int_if_there(object, "enable", 0, 1, &enable)) {
    return false;
  }
  record->flags =
      enable != 0 ? record->flags & ~UIF_FLAG_DISABLED : record->flags | UIF_FLAG_DISABLED;
  return true;
}

// Names go into paths, settings' keys and JSON texts as they are.
bool read_name(const cJSON* row, uif* record) {
  const char* name = json_text(row, "name");
  if (name == nullptr) {
    return false;
  }
  const size_t length = strnlen(name, UIF_NAME_SIZE);
  if (length == 0 || length >= UIF_NAME_SIZE) {
    return false;
  }
  for (size_t i = 0; i < length; ++i) {
    const char c = name[i];
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
          c == '_' || c == '-')) {
      return false;
    }
  }
  memcpy(record->name, name, length + 1);
  return true;
}

}  // namespace

bool uif_row_read(const cJSON* row, uif* record) {
  int64_t index = 0;
  if (!read_name(row, record) || !json_int(row, "index", 1, UINT32_MAX, &index) ||
      !read_fields(row, false, record)) {
    return false;
  }
  record->index = static_cast<uint32_t>(index);
  if (!uif_index_is_port(record->index)) {
    return record->port_no == 0;
  }
  return record->port_no >= 1 && record->speed_class >= UIF_CLASS_FAST &&
         record->medium >= UIF_MEDIUM_COPPER;
}

bool uif_status_read(const cJSON* message, uif* record) {
  return read_fields(message, true, record);
}
