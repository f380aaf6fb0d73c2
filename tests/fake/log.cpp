// SPDX-License-Identifier: Apache-2.0
//
// The log keeps its lines for the test. A broken invariant is printed, so that a death test can
// match its text, and ends the process as it does on the switch.
#include "platform/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

struct zlog {
  int protocol;
};

struct zlog* zlog_default = nullptr;

namespace {

std::vector<std::string>& lines() {
  static auto* const instance = new std::vector<std::string>;
  return *instance;
}

zlog the_log{0};

__attribute__((format(printf, 2, 0))) void add_line(const char* level, const char* format,
                                                    va_list args) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, args);
  if (length >= 0) {
    lines().push_back(std::string(level) + text);
    fake::internal::record("zlog_%s", lines().back().c_str());
    free(text);
  }
}

}  // namespace

extern "C" {

struct zlog* openzlog(const char* name, int protocol, int flags, int facility) {
  fake::internal::record("openzlog(%s, %d, %d, %d)", name, protocol, flags, facility);
  the_log.protocol = protocol;
  return fake::internal::platform_fails("openzlog") ? nullptr : &the_log;
}

void zlog_notice(const char* format, ...) {
  va_list args;
  va_start(args, format);
  add_line("notice: ", format, args);
  va_end(args);
}

void zlog_err(const char* format, ...) {
  va_list args;
  va_start(args, format);
  add_line("err: ", format, args);
  va_end(args);
}

void zlog_assert_failed(const char* assertion, const char* file, unsigned line,
                        const char* function) {
  fake::internal::record("zlog_assert_failed(%s, %s, %s)", assertion, file, function);
  std::fprintf(stderr, "assertion failed: %s, file %s, line %u, function %s\n", assertion, file,
               line, function);
  std::abort();
}

}  // extern "C"

namespace fake {

const std::vector<std::string>& log_lines() {
  return lines();
}

namespace internal {

void reset_log() {
  lines().clear();
  zlog_default = nullptr;
}

void clear_log_records() {
  lines().clear();
}

}  // namespace internal
}  // namespace fake
