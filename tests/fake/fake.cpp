// SPDX-License-Identifier: Apache-2.0
//
// The record of all calls, and the reset that every other file takes part in.
#include "tests/fake/fake.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "tests/fake/internal.h"

namespace {

struct State {
  std::vector<std::string> calls;
  std::set<std::string> failing;
};

// Never destroyed, so that the leak checker at exit still sees what it holds.
State& state() {
  static State* const instance = new State;
  return *instance;
}

}  // namespace

namespace fake {

void reset() {
  internal::reset_loop();
  internal::reset_log();
  internal::reset_list();
  internal::reset_vty();
  internal::reset_uif();
  internal::reset_uclient();
  internal::reset_jclient();
  internal::reset_hal();
  internal::reset_sys();
  internal::reset_firmware();
  internal::reset_os();
  state() = State{};  // last: the others may have recorded calls of their own
}

const std::vector<std::string>& calls() {
  return state().calls;
}

std::vector<std::string> calls_of(const std::vector<std::string_view>& prefixes) {
  std::vector<std::string> found;
  for (const std::string& call : state().calls) {
    for (std::string_view prefix : prefixes) {
      if (std::string_view(call).starts_with(prefix)) {
        found.push_back(call);
        break;
      }
    }
  }
  return found;
}

void note(const std::string& text) {
  state().calls.push_back(text);
}

void clear_records() {
  state().calls.clear();
  internal::clear_jclient_records();
  internal::clear_log_records();
  internal::clear_os_records();
  internal::clear_sys_records();
}

void fail_platform(const std::string& function, bool fail) {
  if (fail) {
    state().failing.insert(function);
  } else {
    state().failing.erase(function);
  }
}

namespace internal {

void record(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length >= 0) {
    state().calls.emplace_back(text, static_cast<size_t>(length));
    free(text);
  }
}

bool platform_fails(const std::string& function) {
  return state().failing.contains(function);
}

}  // namespace internal
}  // namespace fake
