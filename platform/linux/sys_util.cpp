// SPDX-License-Identifier: Apache-2.0
//
// The small helpers of platform/sys.h: MAC texts, CRC-32, uptime, appending to a file.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <array>

#include "platform/linux/fd.h"
#include "platform/sys.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr uint32_t kCrcPolynomial = 0xedb88320;  // of IEEE 802.3, lowest bit first

constexpr std::array<uint32_t, 256> make_crc_table() {
  std::array<uint32_t, 256> table = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 1) != 0 ? (value >> 1) ^ kCrcPolynomial : value >> 1;
    }
    table[byte] = value;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = make_crc_table();

int hex_digit(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

bool parse_mac(const char* text, uint8_t mac[6]) {
  const size_t length = strlen(text);
  const bool bare = length == 2 * kMacBytes;
  if (!bare && length != 3 * kMacBytes - 1) {
    return false;
  }
  const char separator = text[2];
  if (!bare && separator != ':' && separator != '-') {
    return false;
  }
  const size_t step = bare ? 2 : 3;
  for (size_t i = 0; i < kMacBytes; ++i) {
    const int high = hex_digit(text[i * step]);
    const int low = hex_digit(text[i * step + 1]);
    if (high < 0 || low < 0 || (!bare && i + 1 < kMacBytes && text[i * step + 2] != separator)) {
      return false;
    }
    mac[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return true;
}

}  // namespace

const char* mac2str(const uint8_t mac[6]) {
  static char text[3 * kMacBytes];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return text;
}

int str2mac(const char* text, uint8_t mac[6]) {
  if (text != nullptr && parse_mac(text, mac)) {
    return 0;
  }
  memset(mac, 0, kMacBytes);
  return -1;
}

uint32_t crc32_sp(uint32_t initial, const void* data, size_t length) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  uint32_t crc = ~initial;
  for (size_t i = 0; i < length; ++i) {
    crc = (crc >> 8) ^ kCrcTable[(crc ^ bytes[i]) & 0xff];
  }
  return ~crc;
}

uint32_t tq_uptime_get(void) {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint32_t>(now.tv_sec);
}

int tq_file_append(const char* path, const void* data, size_t length) {
  // The files live in folders that others may write to: no links, and nothing but a file.
  UniqueFd fd(
      open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0640));
  struct stat info = {};
  // Somebody else's file, or one with a second name, could be changed behind our back.
  if (!fd.valid() || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      info.st_uid != geteuid() || info.st_nlink != 1) {
    return -1;
  }
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  while (done < length) {
    const ssize_t written = write(fd.get(), bytes + done, length - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      // What is half there is taken back, so that the caller may try again.
      [[maybe_unused]] const int cut = ftruncate(fd.get(), info.st_size);
      return -1;
    }
    done += static_cast<size_t>(written);
  }
  return close(fd.release()) == 0 ? 0 : -1;
}
