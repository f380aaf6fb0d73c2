// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_console.h"

#include <cstdarg>
#include <cstdio>

#include "qel/qel_os.h"
#include "qel/qel_table.h"

namespace {
constexpr char kConsolePath[] = "/dev/console";
}

bool qel_debug(uint32_t bit) {
  return (g_qel_dev.debug & bit) != 0;
}

void qel_console(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::FILE* console = qel_os_fopen(kConsolePath, "w");
  std::vfprintf(console != nullptr ? console : stderr, format, arguments);
  if (console != nullptr) {
    std::fclose(console);
  }
  va_end(arguments);
}

void qel_stdout(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}
