// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_cjson.h"

#include <cmath>
#include <string_view>

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

bool put_plain(qel_text& out, const char* text) {
  constexpr unsigned char kFirstPrintable = 0x20;
  if (text == nullptr) {
    return false;
  }
  const std::string_view view(text);
  for (const char c : view) {
    if (static_cast<unsigned char>(c) < kFirstPrintable || c == '"' || c == '\\') {
      return false;
    }
  }
  out.put('"');
  out.put(view);
  out.put('"');
  return true;
}

bool put_whole(qel_text& out, double number) {
  constexpr double kLimit = 1e15;
  if (!(number > -kLimit && number < kLimit)) {
    return false;
  }
  const auto whole = static_cast<int64_t>(number);
  if (static_cast<double>(whole) != number || (whole == 0 && std::signbit(number))) {
    return false;
  }
  out.put_int(whole);
  return true;
}

bool put_flat_value(qel_text& out, const cJSON* item) {
  switch (item->type & 0xFF) {
    case cJSON_Number:
      return put_whole(out, item->valuedouble);
    case cJSON_String:
      return put_plain(out, item->valuestring);
    case cJSON_True:
      out.put("true");
      return true;
    case cJSON_False:
      out.put("false");
      return true;
    case cJSON_NULL:
      out.put("null");
      return true;
    default:
      return false;
  }
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

bool qel_cjson_print_flat(qel_text& out, const cJSON* object) {
  if (cJSON_IsObject(object) == 0) {
    return false;
  }
  out.put("{\n");
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, object) {
    out.put('\t');
    if (!put_plain(out, item->string)) {
      return false;
    }
    out.put(":\t");
    if (!put_flat_value(out, item)) {
      return false;
    }
    out.put(item->next != nullptr ? ",\n" : "\n");
  }
  out.put('}');
  return true;
}
