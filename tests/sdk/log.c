/* SPDX-License-Identifier: Apache-2.0 */
/* The log of the stand-in SDK: lines on standard error. */
#include "platform/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

struct zlog {
  char name[32];
};

struct zlog* zlog_default;

struct zlog* openzlog(const char* name, int protocol, int flags, int facility) {
  static struct zlog only;
  (void)flags;
  (void)facility;
  snprintf(only.name, sizeof only.name, "%s", name);
  fprintf(stderr, "sdk: openzlog %s %d\n", name, protocol);
  return &only;
}

static void line(const char* level, const char* format, va_list arguments) {
  if (zlog_default == NULL) {
    return;
  }
  fprintf(stderr, "%s: %s: ", zlog_default->name, level);
  vfprintf(stderr, format, arguments);
  fputc('\n', stderr);
}

void zlog_notice(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  line("notice", format, arguments);
  va_end(arguments);
}

void zlog_err(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  line("error", format, arguments);
  va_end(arguments);
}

void zlog_assert_failed(const char* assertion, const char* file, unsigned number,
                        const char* function) {
  fprintf(stderr, "%s:%u: %s: %s\n", file, number, function, assertion);
  abort();
}
