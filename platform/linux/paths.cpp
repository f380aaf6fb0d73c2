// SPDX-License-Identifier: Apache-2.0
//
// The one place that knows about the root prefix of the tests.
#include "platform/linux/paths.h"

#include <stdio.h>
#include <stdlib.h>

const char* morva_path(char* buffer, size_t size, const char* path) {
  const char* root = getenv("MORVA_ROOT");
  const int length = snprintf(buffer, size, "%s%s", root != nullptr ? root : "", path);
  if (size > 0 && (length < 0 || static_cast<size_t>(length) >= size)) {
    buffer[0] = '\0';
  }
  return buffer;
}
