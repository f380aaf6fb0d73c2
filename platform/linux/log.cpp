// SPDX-License-Identifier: Apache-2.0
//
// The log of platform/log.h: syslog, and standard error while somebody watches it.
#include "platform/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

struct zlog {
  char name[32];  // openlog() keeps the pointer
  int protocol;   // the platform's number of the daemon, for a reader of a core file
};

zlog* zlog_default = nullptr;

namespace {

constexpr size_t kLineSize = 1024;  // longer lines are cut

// True while the process is in the foreground: on a terminal, or told so (a lab, a test).
bool wants_stderr() {
  const char* choice = getenv("MORVA_LOG");
  if (choice != nullptr) {
    return strcmp(choice, "stderr") == 0;
  }
  return isatty(STDERR_FILENO) == 1;
}

// Line ends at the end are dropped, other control bytes become '?': what a line quotes may come
// from the network, and one call makes one line.
void clean_line(char* text) {
  size_t length = strlen(text);
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) {
    text[--length] = '\0';
  }
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if ((c < 0x20 && c != '\t') || c == 0x7f) {
      text[i] = '?';
    }
  }
}

void write_stderr(const char* level, const char* text) {
  char line[kLineSize + 64];
  const int length = snprintf(line, sizeof line, "%s[%d]: %s: %s\n",
                              zlog_default != nullptr ? zlog_default->name : "-",
                              static_cast<int>(getpid()), level, text);
  if (length > 0) {
    const size_t size =
        static_cast<size_t>(length) < sizeof line ? static_cast<size_t>(length) : sizeof line - 1;
    // A log line that cannot be written has nowhere else to go.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, size);
  }
}

__attribute__((format(printf, 3, 0))) void log_line(int priority, const char* level,
                                                    const char* format, va_list args) {
  if (zlog_default == nullptr) {
    return;
  }
  char text[kLineSize];
  vsnprintf(text, sizeof text, format, args);
  clean_line(text);
  syslog(priority, "%s", text);
  if (wants_stderr()) {
    write_stderr(level, text);
  }
}

}  // namespace

zlog* openzlog(const char* name, int protocol, int flags, int facility) {
  zlog* log = static_cast<zlog*>(calloc(1, sizeof(zlog)));
  if (log == nullptr) {
    return nullptr;
  }
  snprintf(log->name, sizeof log->name, "%s", name != nullptr ? name : "");
  log->protocol = protocol;
  openlog(log->name, flags, facility);
  return log;
}

void zlog_notice(const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_line(LOG_NOTICE, "notice", format, args);
  va_end(args);
}

void zlog_err(const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_line(LOG_ERR, "error", format, args);
  va_end(args);
}

void zlog_assert_failed(const char* assertion, const char* file, unsigned line,
                        const char* function) {
  char text[kLineSize];
  snprintf(text, sizeof text, "Assertion `%s' failed in file %s, line %u, function %s", assertion,
           file, line, function);
  clean_line(text);
  if (zlog_default != nullptr) {
    syslog(LOG_CRIT, "%s", text);
  }
  write_stderr("assertion", text);  // always: the process ends here
  abort();
}
