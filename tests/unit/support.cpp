// SPDX-License-Identifier: Apache-2.0
#include "tests/unit/support.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "qel/qel_alarm.h"
#include "qel/qel_api.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_eth.h"
#include "qel/qel_gw.h"
#include "qel/qel_main.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "qel/qel_upgrade.h"

// The agent's transfer buffers come from malloc; this one, linked in its place, can fail.
extern "C" void* __real_malloc(size_t size);
static size_t g_malloc_fails_at = SIZE_MAX;
extern "C" __attribute__((used)) void* __wrap_malloc(size_t size) {
  if (size == g_malloc_fails_at) {
    g_malloc_fails_at = SIZE_MAX;
    errno = ENOMEM;
    return nullptr;
  }
  return __real_malloc(size);
}

#ifndef __SANITIZE_ADDRESS__
// Where the C++ run-time is linked in, its operator new comes by the wrapper, too. What the tests
// and the fake allocate for themselves must not fail.
void* operator new(size_t size) {
  void* memory = __real_malloc(size > 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}
#endif

// The agent's own hand-over of alarms, under the name that the build gave it.
int qel_alarm_notify_of_agent(uint32_t type);

// Linked in its place.
int qel_alarm_notify(uint32_t type) {
  const qel_alarm_entry& entry = g_qel_alarm_table[type];
  handed_over().push_back({type, {entry.msg, entry.msg_length}, entry.last_time});
  return qel_alarm_notify_of_agent(type);
}

namespace {

constexpr size_t kHeaderEnd = 32;       // where the message of a frame begins
constexpr size_t kLengthOffset = 18;    // of the length field, big-endian
constexpr size_t kLengthIncluded = 16;  // bytes that the length field counts before the message
constexpr size_t kDumpRow = 16;

void put_be16(std::string& out, uint16_t value) {
  out += static_cast<char>(value >> 8);
  out += static_cast<char>(value & 0xff);
}

void put_mac(std::string& out, const fake::Mac& mac) {
  out.append(reinterpret_cast<const char*>(mac.data()), mac.size());
}

std::string header(const fake::Mac& destination, const fake::Mac& source, uint16_t ethertype,
                   uint16_t length_field) {
  std::string out;
  put_mac(out, destination);
  put_mac(out, source);
  put_be16(out, ethertype);
  put_be16(out, 0);
  put_be16(out, 0xBABE);
  put_be16(out, length_field);
  out.append(12, '\0');
  return out;
}

}  // namespace

AgentTest::AgentTest() {
  g_malloc_fails_at = SIZE_MAX;
  handed_over().clear();
  fake::reset();
  reset_agent();
  fake::clear_records();
}

AgentTest::~AgentTest() {
  // What a hook refers to is gone with the test's body.
  fake::on_console(nullptr);
  fake::on_send(nullptr);
  reset_agent();
}

void AgentTest::start() {
  qel_table_dev_init();
  qel_dev_init();
  g_qel_dev.enable = 1;
  fake::clear_records();
}

void AgentTest::receive(std::string_view text, const fake::Mac& source,
                        const fake::Mac& destination, uint16_t length_field) {
  fake::receive_frame(g_qel_dev.eth_fd, gateway_frame(text, source, destination, length_field));
  fake::run_reads();
}

qel_link AgentTest::eth_link() {
  qel_link link = {};
  link.kind = 4;
  std::memcpy(link.gw_mac, kGatewayMac.data(), kGatewayMac.size());
  if (g_qel_dev.eth_fd == 0) {
    g_qel_dev.eth_fd = qel_os_socket(AF_PACKET, SOCK_RAW, htons(0x9301));
  }
  qel_eth_link_init(&link, g_qel_dev.eth_fd);
  return link;
}

qel_link AgentTest::udp_link(const char* ip, uint16_t port) {
  qel_link link = {};
  link.kind = 1;
  link.fd = qel_os_socket(AF_INET, SOCK_DGRAM, 0);
  link.addrlen = 16;
  link.addr.udp.sin_family = AF_INET;
  link.addr.udp.sin_port = htons(port);
  inet_pton(AF_INET, ip, &link.addr.udp.sin_addr);
  return link;
}

void reset_agent() {
  qel_api_conf_release();
  qel_api_download_reset();
  g_qel_conf = qel_conf_transfer{};
  g_qel_upgrade = qel_upgrade_state{};
  g_qel_upgrade_fetch = {};
  g_qel_restart = {};
  g_qel_dev = qel_dev{};
  g_qel_gw = {};
  g_qel_info = {};
  g_qel_master = fake::master();
}

std::string gateway_frame(std::string_view text, const fake::Mac& source,
                          const fake::Mac& destination, uint16_t length_field, uint16_t ethertype) {
  return header(destination, source, ethertype, length_field) + std::string(text);
}

std::string reply_header(uint16_t length_field, const fake::Mac& destination) {
  return header(destination, kSwitchMac, 0x9303, length_field);
}

std::vector<std::string> sent_messages() {
  std::vector<std::string> messages;
  for (const fake::Sent& one : fake::sent()) {
    if (one.family() != AF_PACKET) {
      messages.push_back(one.bytes);
    } else if (one.bytes.size() >= kHeaderEnd) {
      const size_t high = static_cast<unsigned char>(one.bytes[kLengthOffset]);
      const size_t low = static_cast<unsigned char>(one.bytes[kLengthOffset + 1]);
      const size_t field = high * 256 + low;
      messages.push_back(
          one.bytes.substr(kHeaderEnd, field < kLengthIncluded ? 0 : field - kLengthIncluded));
    }
  }
  return messages;
}

std::vector<HandedOver>& handed_over() {
  static auto* const instance = new std::vector<HandedOver>;
  return *instance;
}

void fail_malloc(size_t size) {
  g_malloc_fails_at = size;
}

std::string zeros(size_t count) {
  return std::string(count, '\0');
}

std::string stderr_of(const std::function<void()>& action) {
  std::fflush(stderr);
  testing::internal::CaptureStderr();
  action();
  std::fflush(stderr);
  return testing::internal::GetCapturedStderr();
}

std::string stdout_of(const std::function<void()>& action) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  action();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string hexdump(std::string_view bytes) {
  std::string out;
  char item[24];
  for (size_t row = 0; row < bytes.size(); row += kDumpRow) {
    std::snprintf(item, sizeof item, "  %04x: ", static_cast<unsigned>(row));
    out += item;
    std::string text;
    for (size_t i = row; i < row + kDumpRow; ++i) {
      const bool there = i < bytes.size();
      const auto byte = static_cast<unsigned char>(there ? bytes[i] : ' ');
      std::snprintf(item, sizeof item, "%02x ", byte);
      out += there ? item : "   ";
      text += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
    }
    out += " " + text + "\n";
  }
  return out;
}

bool BytesAre::MatchAndExplain(std::string_view actual,
                               testing::MatchResultListener* listener) const {
  if (actual == expected_) {
    return true;
  }
  size_t first = 0;
  while (first < actual.size() && first < expected_.size() && actual[first] == expected_[first]) {
    ++first;
  }
  *listener << "\nactual (" << actual.size() << " bytes):\n"
            << hexdump(actual) << "expected (" << expected_.size() << " bytes):\n"
            << hexdump(expected_) << "first difference at offset " << first;
  return false;
}

void BytesAre::DescribeTo(std::ostream* stream) const {
  *stream << "is these " << expected_.size() << " bytes";
}

void BytesAre::DescribeNegationTo(std::ostream* stream) const {
  *stream << "is not these " << expected_.size() << " bytes";
}
