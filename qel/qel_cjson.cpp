// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_cjson.h"

namespace {

// A double out of the type's range has no defined conversion, so the ends are compared first.
int64_t to_int64(double number) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (number >= kLimit) {
    return INT64_MAX;
  }
  if (number < -kLimit) {
    return INT64_MIN;
  }
  return static_cast<int64_t>(number);
}

}  // namespace

const char* cJSON_GetObjectItemString(const cJSON* object, const char* name) {
  return cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
}

int32_t cJSON_GetObjectItemInt(const cJSON* object, const char* name) {
  return cJSON_GetObjectItemIntDef(object, name, 0);
}

int32_t cJSON_GetObjectItemIntDef(const cJSON* object, const char* name, int32_t fallback) {
  const cJSON* item = cJSON_GetObjectItem(object, name);
  if (item == nullptr) {
    return fallback;
  }
  return item->valueint;  // cJSON keeps 1 for true, 0 for whatever else is no number
}

int64_t cJSON_GetObjectItemLongIntDef(const cJSON* object, const char* name, int64_t fallback) {
  const cJSON* item = cJSON_GetObjectItem(object, name);
  if (item == nullptr) {
    return fallback;
  }
  return cJSON_IsNumber(item) != 0 ? to_int64(item->valuedouble) : 0;
}
