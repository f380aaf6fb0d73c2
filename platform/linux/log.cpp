// SPDX-License-Identifier: Apache-2.0
//
// The log of platform/log.h: syslog, and standard error in the foreground.
#include "platform/log.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

struct zlog {
  char name[32];  // openlog() keeps the pointer
  int protocol;   // the platform's number of the daemon, for a reader of a core file
};

zlog* zlog_default = nullptr;

namespace {

constexpr size_t kLineSize = 1024;  // longer lines are cut

// True where the service manager reads standard error into the journal. It has the syslog line too.
bool stderr_is_journal() {
  const char* journal = getenv("JOURNAL_STREAM");
  struct stat stream;
  if (journal == nullptr || fstat(STDERR_FILENO, &stream) < 0) {
    return false;
  }
  char own[64];
  snprintf(own, sizeof own, "%ju:%ju", static_cast<uintmax_t>(stream.st_dev),
           static_cast<uintmax_t>(stream.st_ino));
  return strcmp(own, journal) == 0;
}

// True while the process is in the foreground, or told so. A daemon's standard error is /dev/null,
// so what is written there needs no asking.
bool wants_stderr() {
  const char* choice = getenv("MORVA_LOG");
  if (choice != nullptr) {
    return strcmp(choice, "stderr") == 0;
  }
  return !stderr_is_journal();
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
  if (zlog_default == nullptr || !stderr_is_journal()) {
    write_stderr("assertion", text);  // whatever MORVA_LOG says: the process ends here
  }
  abort();
}
