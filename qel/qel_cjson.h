// SPDX-License-Identifier: Apache-2.0
//
// Reading JSON that came from outside: an owning tree and the member accessors over cJSON.
//
// Member names are matched as cJSON_GetObjectItem does (case folded, the first of equal names), so
// that every reader of the system sees the same member.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>

#include "qel/qel_text.h"

struct qel_cjson_delete {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
// A parsed tree; null when the text was not JSON.
using qel_cjson_tree = std::unique_ptr<cJSON, qel_cjson_delete>;

struct qel_cjson_free {
  void operator()(char* text) const { cJSON_free(text); }
};
// A text printed by cJSON; null when memory was short.
using qel_cjson_text = std::unique_ptr<char, qel_cjson_free>;

// The member's text, owned by the tree; null when missing or not a string. `object` may be null.
const char* cJSON_GetObjectItemString(const cJSON* object, const char* name);

// The member's integer, clamped to 32 bits; 1 for true, 0 when missing or anything else that is no
// number. `object` may be null.
int32_t cJSON_GetObjectItemInt(const cJSON* object, const char* name);

// The same with a default for a missing member (a member of another type as above).
int32_t cJSON_GetObjectItemIntDef(const cJSON* object, const char* name, int32_t fallback);

// 64-bit form; exact up to 2^53, beyond that as near as a double is, clamped to the type.
int64_t cJSON_GetObjectItemLongIntDef(const cJSON* object, const char* name, int64_t fallback);

// Appends an object as cJSON_Print does, byte for byte, but without its memory and its detours over
// floating-point formats. Only for objects that hold nothing but whole numbers below 10^15, true,
// false, null and strings that need no escaping. False for others; `out` then holds rubbish.
bool qel_cjson_print_flat(qel_text& out, const cJSON* object);
