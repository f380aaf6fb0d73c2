// SPDX-License-Identifier: Apache-2.0
//
// The one place that knows about the root prefix of the tests.
#include "platform/linux/paths.h"

#include <stdlib.h>
#include <string.h>

const char* morva_path(char* buffer, size_t size, const char* path) {
  const char* root = getenv("MORVA_ROOT");
  const size_t root_length = root != nullptr ? strlen(root) : 0;
  const size_t length = strlen(path);
  if (size == 0) {
    return buffer;
  }
  if (root_length >= size || length >= size - root_length) {
    buffer[0] = '\0';
    return buffer;
  }
  if (root_length > 0) {
    memcpy(buffer, root, root_length);
  }
  memcpy(buffer + root_length, path, length + 1);
  return buffer;
}
