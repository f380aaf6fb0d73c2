// SPDX-License-Identifier: Apache-2.0
//
// Checked reading of JSON, see json.h.
#include "platform/linux/json.h"

const cJSON* json_member(const cJSON* object, const char* name) {
  return cJSON_IsObject(object) ? cJSON_GetObjectItemCaseSensitive(object, name) : nullptr;
}

const char* json_text(const cJSON* object, const char* name) {
  return cJSON_GetStringValue(json_member(object, name));
}

bool json_int_value(const cJSON* item, int64_t low, int64_t high, int64_t* out) {
  if (!cJSON_IsNumber(item)) {
    return false;
  }
  const double value = item->valuedouble;
  // Written so that "not a number" fails. Below 2^53 a double holds every whole number.
  if (!(value >= static_cast<double>(low) && value <= static_cast<double>(high)) ||
      !(value >= -9007199254740992.0 && value <= 9007199254740992.0)) {
    return false;
  }
  const int64_t whole = static_cast<int64_t>(value);
  if (static_cast<double>(whole) < value || static_cast<double>(whole) > value) {
    return false;
  }
  *out = whole;
  return true;
}

bool json_int(const cJSON* object, const char* name, int64_t low, int64_t high, int64_t* out) {
  return json_int_value(json_member(object, name), low, high, out);
}

bool json_int_if_there(const cJSON* object, const char* name, int64_t low, int64_t high,
                       int64_t* out) {
  return json_member(object, name) == nullptr || json_int(object, name, low, high, out);
}
