// SPDX-License-Identifier: Apache-2.0
//
// Module queries of platform/jclient.h, and the log of them that the lab reads.
#include "platform/jclient.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/linux/fd.h"
#include "platform/linux/json.h"
#include "platform/linux/morva_call.h"
#include "platform/log.h"

namespace {

constexpr char kUsualStart[] = "{\"mdl\":\"";
constexpr size_t kEscapedMax = 6;  // bytes that one byte of text can become: \u00xx

// The module that a request is for. Requests usually begin with its name; only others are parsed,
// so that a payload that is not JSON still reaches its module, which is the one to refuse it.
bool find_module(const char* request, char* module) {
  const size_t start = sizeof kUsualStart - 1;
  if (strncmp(request, kUsualStart, start) == 0) {
    const size_t length = strcspn(request + start, "\"\\");
    if (length < kMorvaModuleSize && request[start + length] == '"') {
      memcpy(module, request + start, length);
      module[length] = '\0';
      return morva_module_valid(module);
    }
    return false;
  }
  const JsonTree tree(cJSON_Parse(request));
  const char* name = json_text(tree.get(), "mdl");
  if (name == nullptr || !morva_module_valid(name)) {
    return false;
  }
  snprintf(module, kMorvaModuleSize, "%s", name);
  return true;
}

// Bytes of the UTF-8 sequence that begins at `text`, or 0 when it is none.
size_t utf8_length(const unsigned char* text) {
  const unsigned char lead = text[0];
  const size_t length = lead >= 0xc2 && lead <= 0xdf   ? 2
                        : lead >= 0xe0 && lead <= 0xef ? 3
                        : lead >= 0xf0 && lead <= 0xf4 ? 4
                                                       : 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xc0) != 0x80) {  // also stops at the closing NUL
      return 0;
    }
  }
  const bool overlong = (lead == 0xe0 && text[1] < 0xa0) || (lead == 0xf0 && text[1] < 0x90);
  const bool beyond = (lead == 0xed && text[1] > 0x9f) || (lead == 0xf4 && text[1] > 0x8f);
  return length > 0 && !overlong && !beyond ? length : 0;
}

// Writes `text` as the inside of a JSON string. `out` has room for kEscapedMax times its length.
char* append_escaped(char* out, const char* text) {
  const unsigned char* at = reinterpret_cast<const unsigned char*>(text);
  while (*at != '\0') {
    const size_t sequence = *at >= 0x80 ? utf8_length(at) : 0;
    if (sequence > 0) {
      memcpy(out, at, sequence);
      out += sequence;
      at += sequence;
      continue;
    }
    if (*at == '"' || *at == '\\') {
      *out++ = '\\';
      *out++ = static_cast<char>(*at);
    } else if (*at < 0x20 || *at >= 0x7f) {
      out += snprintf(out, kEscapedMax + 1, "\\u%04x", static_cast<unsigned>(*at));
    } else {
      *out++ = static_cast<char>(*at);
    }
    ++at;
  }
  return out;
}

// Appends one line to the query log, if there is one, with a single write: lines of several
// processes never mix.
void log_query(const char* module, const char* request, long reply_bytes, int64_t microseconds) {
  const char* path = getenv("MORVA_QUERY_LOG");
  if (path == nullptr || *path == '\0') {
    return;
  }
  const size_t room = strlen(request) * kEscapedMax + kMorvaModuleSize + 128;
  char* line = static_cast<char*>(malloc(room));
  if (line == nullptr) {
    return;
  }
  char* end = line + snprintf(line, room, "{\"module\":\"%s\",\"request\":\"", module);
  end = append_escaped(end, request);
  end +=
      snprintf(end, room - static_cast<size_t>(end - line), "\",\"reply_bytes\":%ld,\"us\":%lld}\n",
               reply_bytes > 0 ? reply_bytes : 0, static_cast<long long>(microseconds));
  const UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0640));
  const size_t size = static_cast<size_t>(end - line);
  static bool failing = false;
  const bool good = fd.valid() && write(fd.get(), line, size) == static_cast<ssize_t>(size);
  if (!good && !failing) {
    zlog_err("query log %s: %s", path, strerror(errno));
  }
  failing = !good;
  free(line);
}

// morvad serves the library by these modules: restart, hardware, settings of the maker, the
// firmware service. A query that somebody outside wrote must not reach them.
bool is_internal(const char* module) {
  static constexpr const char* kInternal[] = {"sys", "hal", "ifmgr", "morvad"};
  for (const char* each : kInternal) {
    if (strcmp(module, each) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

int jclient_query(const char* request, char* reply) {
  static char answer[JCLIENT_REPLY_SIZE];
  char module[kMorvaModuleSize] = "";
  const int64_t start = morva_now_ns();
  long length = -1;
  if (find_module(request, module) && !is_internal(module)) {
    length = morva_call(module, request, reply != nullptr ? answer : nullptr, sizeof answer,
                        morva_deadline_ms());
  } else {
    module[0] = '\0';
  }
  if (reply != nullptr && length > 0) {
    memcpy(reply, answer, static_cast<size_t>(length) + 1);
  }
  log_query(module, request, length, (morva_now_ns() - start) / 1000);
  return length >= 0 ? 0 : -1;
}
