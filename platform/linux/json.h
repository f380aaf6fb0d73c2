// SPDX-License-Identifier: Apache-2.0
//
// Checked reading of what other processes say in JSON: an owning tree, and members by exact name.
#ifndef MORVA_LINUX_JSON_H
#define MORVA_LINUX_JSON_H

#include <cjson/cJSON.h>
#include <stdint.h>

// A tree that deletes itself.
class JsonTree {
 public:
  explicit JsonTree(cJSON* tree = nullptr) : tree_(tree) {}
  ~JsonTree() { cJSON_Delete(tree_); }
  JsonTree(const JsonTree&) = delete;
  JsonTree& operator=(const JsonTree&) = delete;

  cJSON* get() const { return tree_; }
  cJSON* release() {
    cJSON* tree = tree_;
    tree_ = nullptr;
    return tree;
  }

 private:
  cJSON* tree_;
};

// The member of that exact name, or null; `object` may be null or no object.
const cJSON* json_member(const cJSON* object, const char* name);

// The text of the member, or null when it is missing or no text.
const char* json_text(const cJSON* object, const char* name);

// Reads a number into *out. False, with *out as it was, when `item` is null, no number, no whole
// number, or outside `low`..`high`.
bool json_int_value(const cJSON* item, int64_t low, int64_t high, int64_t* out);

// Reads the member of that name. False as above, also when it is missing.
bool json_int(const cJSON* object, const char* name, int64_t low, int64_t high, int64_t* out);

// The same, but a missing member is fine and leaves *out as it was.
bool json_int_if_there(const cJSON* object, const char* name, int64_t low, int64_t high,
                       int64_t* out);

#endif  // MORVA_LINUX_JSON_H
