// SPDX-License-Identifier: Apache-2.0
//
// The query connection to the modules, see morva_call.h.
#include "platform/linux/morva_call.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "platform/jclient.h"
#include "platform/linux/fd.h"
#include "platform/linux/json.h"
#include "platform/linux/loop_internal.h"
#include "platform/linux/paths.h"
#include "platform/linux/signals.h"
#include "platform/log.h"

namespace {

constexpr int kDefaultDeadlineMs = 2000;
constexpr int kStartWaitMs = 10000;
constexpr int kMaxWaitMs = 600000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int kBacklogPollMs = 5;
constexpr int kWholeAnswerMs = 10;

// The number in an environment variable, or `fallback` when there is none that will do.
int milliseconds_from(const char* variable, long low, int fallback) {
  const char* text = getenv(variable);
  if (text == nullptr || *text < '0' || *text > '9') {
    return fallback;
  }
  char* end = nullptr;
  const long value = strtol(text, &end, 10);
  return *end == '\0' && value >= low && value <= kMaxWaitMs ? static_cast<int>(value) : fallback;
}

// The one moment at which a query ends, however its bytes trickle in.
class Deadline {
 public:
  explicit Deadline(int64_t milliseconds) : end_(morva_now_ns() + milliseconds * kNsPerMs) {}

  // Rounded up, so that waiting for it never spins; 0 when it has passed.
  int left_ms() const {
    const int64_t left = end_ - morva_now_ns();
    return left > 0 ? static_cast<int>((left + kNsPerMs - 1) / kNsPerMs) : 0;
  }

  // Waits for `events` on `fd`. False when the deadline came first.
  bool wait(int fd, short events) const {
    for (;;) {
      const int left = left_ms();
      const int ready = signals_poll(fd, events, left);
      if (ready > 0) {
        return true;
      }
      if (left == 0 || (ready < 0 && errno != EINTR)) {
        return false;
      }
    }
  }

  // The same for no longer than `milliseconds`, whatever comes of it.
  void linger(int fd, short events, int milliseconds) const {
    signals_poll(fd, events, std::min(left_ms(), milliseconds));
  }

 private:
  int64_t end_;
};

bool socket_address(const char* module, sockaddr_un* address) {
  char plain[sizeof MORVA_RUN_DIR + kMorvaModuleSize + 8];
  snprintf(plain, sizeof plain, MORVA_RUN_DIR "/%s.sock", module);
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  return *morva_path(address->sun_path, sizeof address->sun_path, plain) != '\0';
}

// A connection to the module, or -1. A full backlog cannot be polled for, so it is tried again.
int connect_module(const char* module, const Deadline& deadline) {
  sockaddr_un address;
  if (!socket_address(module, &address)) {
    return -1;
  }
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  while (fd.valid()) {
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return fd.release();
    }
    const int left = deadline.left_ms();
    if ((errno != EAGAIN && errno != EINTR) || left == 0) {
      return -1;
    }
    if (signals_poll(-1, 0, std::min(left, kBacklogPollMs)) < 0 && errno == ECANCELED) {
      return -1;
    }
  }
  return -1;
}

bool send_all(int fd, const char* data, size_t length, const Deadline& deadline) {
  while (length > 0) {
    const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
    if (sent > 0) {
      data += sent;
      length -= static_cast<size_t>(sent);
    } else if (sent < 0 && errno == EAGAIN) {
      if (!deadline.wait(fd, POLLOUT)) {
        return false;
      }
    } else if (sent == 0 || errno != EINTR) {
      return false;
    }
  }
  return shutdown(fd, SHUT_WR) == 0;
}

// Reads to the end of the stream. The length, or -1 when there are `size` bytes or more, the
// deadline comes, or the module breaks off.
long receive_all(int fd, char* data, size_t size, const Deadline& deadline) {
  // A module mostly writes its answer in one piece and closes. To be woken for the end alone saves
  // both of us a switch. It may also write more than the socket holds and wait for us: not for
  // long.
  deadline.linger(fd, POLLRDHUP, kWholeAnswerMs);
  size_t total = 0;
  while (total < size) {
    if (deadline.left_ms() == 0) {
      return -1;
    }
    const ssize_t got = recv(fd, data + total, size - total, 0);
    if (got > 0) {
      total += static_cast<size_t>(got);
    } else if (got == 0) {
      return static_cast<long>(total);
    } else if (errno == EAGAIN) {
      if (!deadline.wait(fd, POLLIN)) {
        return -1;
      }
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return -1;
}

// What a byte of JSON text is for the structure: most are nothing. Those from kQuote on also count
// inside a string.
enum byte_kind : uint8_t { kPlain, kOpens, kCloses, kQuote, kBackslash, kEnd };

constexpr std::array<uint8_t, 256> make_byte_kinds() {
  std::array<uint8_t, 256> kinds = {};
  kinds['\0'] = kEnd;
  kinds['"'] = kQuote;
  kinds['\\'] = kBackslash;
  kinds['{'] = kinds['['] = kOpens;
  kinds['}'] = kinds[']'] = kCloses;
  return kinds;
}

constexpr std::array<uint8_t, 256> kByteKinds = make_byte_kinds();

uint8_t kind_of(const char* at) {
  return kByteKinds[static_cast<unsigned char>(*at)];
}

// The end of a string whose inside begins at `at`: its closing quote, or the text's end.
const char* string_end(const char* at) {
  for (;;) {
    while (kind_of(at) < kQuote) {
      ++at;
    }
    if (kind_of(at) != kBackslash) {
      return at;
    }
    at += at[1] != '\0' ? 2 : 1;
  }
}

// True unless brackets or quotes are open at the end: a module that dies in the middle of an answer
// closes its socket as one does that is done.
bool text_is_whole(const char* at) {
  long depth = 0;
  for (;; ++at) {
    while (kind_of(at) == kPlain) {
      ++at;
    }
    const uint8_t kind = kind_of(at);
    if (kind == kQuote) {
      at = string_end(at + 1);
    } else if (kind == kOpens) {
      ++depth;
    } else if (kind == kCloses) {
      --depth;
    }
    if (*at == '\0') {
      return depth <= 0 && kind == kEnd;
    }
  }
}

// Logs the first failure of a row of them, and the first success after it.
void note_result(const char* module, const char* command, bool good) {
  static bool failing = false;
  if (!good && !failing) {
    zlog_err("module %s: no good answer to %s", module, command);
  } else if (good && failing) {
    zlog_notice("module %s: answers again", module);
  }
  failing = !good;
}

char* print_request(const char* module, const char* command, cJSON* data) {
  const JsonTree request(cJSON_CreateObject());
  const bool complete = cJSON_AddStringToObject(request.get(), "mdl", module) != nullptr &&
                        cJSON_AddStringToObject(request.get(), "cmd", command) != nullptr;
  if (data != nullptr && !cJSON_AddItemToObject(request.get(), "data", data)) {
    cJSON_Delete(data);
    return nullptr;
  }
  return complete ? cJSON_PrintUnformatted(request.get()) : nullptr;
}

}  // namespace

bool morva_module_valid(const char* name) {
  const size_t length = strnlen(name, kMorvaModuleSize);
  for (size_t i = 0; i < length; ++i) {
    const char c = name[i];
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) {
      return false;
    }
  }
  return length > 0 && length < kMorvaModuleSize;
}

int64_t morva_now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int morva_deadline_ms() {
  return milliseconds_from("MORVA_QUERY_DEADLINE_MS", 1, kDefaultDeadlineMs);
}

int morva_start_wait_ms() {
  return milliseconds_from("MORVA_START_WAIT_MS", 0, kStartWaitMs);
}

long morva_call(const char* module, const char* request, char* reply, size_t reply_size,
                int deadline_ms) {
  if (!morva_module_valid(module)) {
    return -1;
  }
  const Deadline deadline(reply != nullptr ? deadline_ms : 0);
  const UniqueFd fd(connect_module(module, deadline));
  if (!fd.valid() || !send_all(fd.get(), request, strlen(request), deadline)) {
    return -1;
  }
  if (reply == nullptr) {
    return 0;
  }
  const long length = receive_all(fd.get(), reply, reply_size, deadline);
  loop_new_turn();  // the module may have changed what this callback read before
  if (length <= 0 || memchr(reply, '\0', static_cast<size_t>(length)) != nullptr) {
    return -1;
  }
  reply[length] = '\0';
  return text_is_whole(reply) ? length : -1;
}

cJSON* morva_ask_quietly(const char* module, const char* command, cJSON* data, int deadline_ms) {
  static char reply[JCLIENT_REPLY_SIZE];
  char* request = print_request(module, command, data);
  if (request == nullptr) {
    return nullptr;
  }
  const long length = morva_call(module, request, reply, sizeof reply, deadline_ms);
  cJSON_free(request);
  JsonTree answer(length > 0 ? cJSON_ParseWithOpts(reply, nullptr, 1) : nullptr);
  int64_t ret = -1;
  const bool good = json_int(answer.get(), "ret", INT32_MIN, INT32_MAX, &ret) && ret == 0;
  return good ? answer.release() : nullptr;
}

cJSON* morva_ask(const char* module, const char* command, cJSON* data) {
  cJSON* answer = morva_ask_quietly(module, command, data, morva_deadline_ms());
  note_result(module, command, answer != nullptr);
  return answer;
}

int morva_tell(const char* module, const char* command, cJSON* data) {
  const JsonTree answer(morva_ask(module, command, data));
  return answer.get() != nullptr ? 0 : -1;
}
