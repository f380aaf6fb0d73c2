// SPDX-License-Identifier: Apache-2.0
//
// The load of the benchmarks: sends requests over the cable, matches the answers, and reads what
// other processes spent meanwhile, from their nanosecond counters. Prints one line of JSON.
//
//   qel_bench_driver agent INTERFACE SWITCH-MAC TEXT [OPTION=NUMBER ...]
//   qel_bench_driver echo INTERFACE SWITCH-MAC KIND FRAMES BYTES TEXT [OPTION=NUMBER ...]
//   qel_bench_driver snmp ADDRESS AFTER ROWS REQUESTS [OPTION=NUMBER ...]
//   qel_bench_driver first INTERFACE SWITCH-MAC TEXT
//   qel_bench_driver exec FILE COMMAND ...
//
// Options: count (requests), window (requests on their way at a time), cpu (to run on), frames (of
// one answer; without it they are counted first), pid (whose CPU to count; may be given several
// times). The text's "@@@@@@@@" becomes a number of eight
// digits. "first" asks until it is answered and prints when; "exec" writes the time into FILE and
// becomes COMMAND: both by the same clock.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/gateway_protocol.h"
#include "tests/bench/snmp.h"
#include "tests/bench/wire.h"

namespace {

namespace proto = qel_protocol;

constexpr int kWaitMs = 1000;
constexpr int kQuietMs = 150;  // after which a first request counts as answered whole
constexpr uint32_t kFirstId = 0x40000001;

struct Options {
  long count = 1000;
  long window = 1;
  long frames = 0;
  std::vector<long> pids;
};

// What is sent, and what comes back for one request.
struct Load {
  int fd = -1;
  std::vector<std::string> requests;  // one after the other make one read
  size_t sequence_at = std::string::npos;
  bool snmp = false;
  uint32_t after = 0;
  uint32_t rows = 0;
  size_t frames = 0;  // of one answer; learnt
  size_t bytes = 0;
};

[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "qel_bench_driver: %s\n", why.c_str());
  std::exit(1);
}

uint64_t now_ns() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000U + static_cast<uint64_t>(time.tv_nsec);
}

uint64_t cpu_ns(long pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/schedstat";
  std::FILE* file = std::fopen(path.c_str(), "re");
  unsigned long long figure = 0;
  if (file == nullptr || std::fscanf(file, "%llu", &figure) != 1) {
    die(path + " cannot be read");
  }
  std::fclose(file);
  return figure;
}

bool wait_readable(int fd, int milliseconds) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, milliseconds) == 1;
}

std::string mac_bytes(const char* text) {
  unsigned part[6];
  if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", &part[0], &part[1], &part[2], &part[3], &part[4],
                  &part[5]) != 6) {
    die(std::string("no MAC address: ") + text);
  }
  std::string bytes;
  for (const unsigned one : part) {
    bytes += static_cast<char>(one);
  }
  return bytes;
}

// A raw socket that hears frames of `type` on that interface; `own` receives its MAC.
int open_raw(const char* interface, uint16_t type, std::string& own) {
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(type));
  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(type);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
  ifreq request = {};
  std::strncpy(request.ifr_name, interface, sizeof request.ifr_name - 1);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 ||
      ioctl(fd, SIOCGIFHWADDR, &request) < 0) {
    die(std::string(interface) + ": " + std::strerror(errno));
  }
  own.assign(request.ifr_hwaddr.sa_data, proto::kMacSize);
  return fd;
}

std::string frame(const std::string& to, const std::string& from, uint16_t type,
                  const std::string& text) {
  std::string bytes = to + from;
  bytes += static_cast<char>(type >> 8);
  bytes += static_cast<char>(type & 0xFF);
  bytes.append(proto::kOffsetMessage - bytes.size(), '\0');
  const size_t field = text.size() + proto::kHeaderSize;
  bytes[proto::kOffsetMagic] = static_cast<char>(proto::kMagic >> 8);
  bytes[proto::kOffsetMagic + 1] = static_cast<char>(proto::kMagic & 0xFF);
  bytes[proto::kOffsetLength] = static_cast<char>(field >> 8);
  bytes[proto::kOffsetLength + 1] = static_cast<char>(field & 0xFF);
  return bytes + text;
}

void send_request(Load& load, size_t part, uint32_t sequence) {
  if (load.snmp) {
    const uint32_t start = load.after + static_cast<uint32_t>(part) * load.rows;
    load.requests[part] = bench::snmp_bulk_request(kFirstId + sequence, start, load.rows);
  } else if (load.sequence_at != std::string::npos) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08u", 10000000U + sequence % 80000000U);
    load.requests[part].replace(load.sequence_at, 8, digits, 8);
  }
  const std::string& bytes = load.requests[part];
  if (send(load.fd, bytes.data(), bytes.size(), 0) < 0) {
    die(std::string("send: ") + std::strerror(errno));
  }
}

// One frame of an answer; an empty text when none came in time.
std::string receive(const Load& load, int milliseconds) {
  static char buffer[65536];
  if (!wait_readable(load.fd, milliseconds)) {
    return {};
  }
  const ssize_t got = recv(load.fd, buffer, sizeof buffer, 0);
  return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
}

// True when the first frame of an answer belongs to that request.
bool matches(const Load& load, const std::string& reply, uint32_t sequence) {
  if (load.snmp) {
    return bench::snmp_is_answer(reply, kFirstId + sequence);
  }
  return load.sequence_at == std::string::npos ||
         reply.find(load.requests[0].substr(load.sequence_at, 8)) != std::string::npos;
}

// Sends one read and learns how many frames and bytes answer it.
void learn(Load& load) {
  for (size_t part = 0; part < load.requests.size(); ++part) {
    send_request(load, part, 0);
    std::string reply = receive(load, kWaitMs);
    if (reply.empty() || !matches(load, reply, 0)) {
      die("the first request was not answered as expected");
    }
    while (!reply.empty()) {
      ++load.frames;
      load.bytes += reply.size();
      reply = receive(load, load.snmp ? 0 : kQuietMs);
    }
  }
}

struct Result {
  uint64_t wall = 0;
  long lost = 0;
  std::vector<uint64_t> round_trips;
};

// One read at a time, each answer matched.
void run_single(Load& load, long count, Result& result) {
  const size_t frames = load.frames / load.requests.size();
  for (long i = 1; i <= count; ++i) {
    const uint64_t before = now_ns();
    bool whole = true;
    for (size_t part = 0; part < load.requests.size(); ++part) {
      const auto sequence =
          static_cast<uint32_t>(static_cast<size_t>(i) * load.requests.size() + part);
      send_request(load, part, sequence);
      for (size_t k = 0; k < frames; ++k) {
        const std::string reply = receive(load, kWaitMs);
        whole = whole && !reply.empty() && (k > 0 || matches(load, reply, sequence));
      }
    }
    result.round_trips.push_back(now_ns() - before);
    result.lost += whole ? 0 : 1;
  }
}

// `window` requests on their way at a time; answers are only counted.
void run_window(Load& load, const Options& options, Result& result) {
  long sent = 0;
  uint64_t frames = 0;
  const auto wanted = static_cast<uint64_t>(options.count) * load.frames;
  while (frames < wanted) {
    while (sent < options.count &&
           sent - static_cast<long>(frames / load.frames) < options.window) {
      ++sent;
      for (size_t part = 0; part < load.requests.size(); ++part) {
        send_request(load, part, static_cast<uint32_t>(sent));
      }
    }
    if (receive(load, kWaitMs).empty()) {
      result.lost = static_cast<long>((wanted - frames + load.frames - 1) / load.frames);
      return;
    }
    ++frames;
  }
}

void run(Load& load, const Options& options) {
  if (options.frames > 0) {
    load.frames = static_cast<size_t>(options.frames);
  } else {
    learn(load);
  }
  Result result;
  std::vector<uint64_t> before;
  for (const long pid : options.pids) {
    before.push_back(cpu_ns(pid));
  }
  const uint64_t start = now_ns();
  if (options.window == 1) {
    run_single(load, options.count, result);
  } else {
    run_window(load, options, result);
  }
  result.wall = now_ns() - start;
  usleep(2000);  // the last answer's sender goes to sleep, and its counter is brought up to date
  std::sort(result.round_trips.begin(), result.round_trips.end());
  const size_t middle = result.round_trips.size() / 2;
  size_t sent_bytes = 0;
  for (const std::string& one : load.requests) {
    sent_bytes += one.size();
  }
  std::printf(
      "{\"count\":%ld,\"lost\":%ld,\"frames\":%zu,\"bytes\":%zu,\"request_frames\":%zu,"
      "\"request_bytes\":%zu,\"wall_ns\":%llu,\"rtt_ns\":%llu,\"cpu_ns\":[",
      options.count, result.lost, load.frames, load.bytes, load.requests.size(), sent_bytes,
      static_cast<unsigned long long>(result.wall),
      static_cast<unsigned long long>(result.round_trips.empty() ? 0 : result.round_trips[middle]));
  for (size_t i = 0; i < options.pids.size(); ++i) {
    std::printf("%s%llu", i > 0 ? "," : "",
                static_cast<unsigned long long>(cpu_ns(options.pids[i]) - before[i]));
  }
  std::puts("]}");
}

Options read_options(char** argument) {
  Options options;
  for (; *argument != nullptr; ++argument) {
    const std::string_view text(*argument);
    const size_t equals = text.find('=');
    const long value = equals == std::string_view::npos ? -1 : std::atol(*argument + equals + 1);
    const std::string_view name = text.substr(0, equals);
    if (value < 0) {
      die("not NAME=NUMBER: " + std::string(text));
    } else if (name == "count") {
      options.count = value;
    } else if (name == "window") {
      options.window = value;
    } else if (name == "frames") {
      options.frames = value;
    } else if (name == "pid") {
      options.pids.push_back(value);
    } else if (name == "cpu") {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(static_cast<size_t>(value), &set);
      sched_setaffinity(0, sizeof set, &set);
    } else {
      die("unknown option " + std::string(text));
    }
  }
  return options;
}

void set_frame(Load& load, const std::string& bytes) {
  load.requests = {bytes};
  load.sequence_at = bytes.find("@@@@@@@@");
}

void do_agent(char** argument) {
  Load load;
  std::string own;
  load.fd = open_raw(argument[0], proto::kEthertypeToGateway, own);
  set_frame(load, frame(mac_bytes(argument[1]), own, proto::kEthertypeToSwitch, argument[2]));
  run(load, read_options(argument + 3));
}

void do_echo(char** argument) {
  Load load;
  std::string own;
  load.fd = open_raw(argument[0], bench::kEchoReplyType, own);
  std::string bytes = frame(mac_bytes(argument[1]), own, bench::kEchoRequestType, argument[5]);
  const int size = std::atoi(argument[4]);
  bytes[bench::kOffsetKind] = static_cast<char>(std::atoi(argument[2]));
  bytes[bench::kOffsetCount] = static_cast<char>(std::atoi(argument[3]));
  bytes[bench::kOffsetBytes] = static_cast<char>(size >> 8);
  bytes[bench::kOffsetBytes + 1] = static_cast<char>(size & 0xFF);
  set_frame(load, bytes);
  run(load, read_options(argument + 6));
}

void do_snmp(char** argument) {
  Load load;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(161);
  inet_pton(AF_INET, argument[0], &address.sin_addr);
  load.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (connect(load.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
    die("snmp address");
  }
  load.snmp = true;
  load.after = static_cast<uint32_t>(std::atoi(argument[1]));
  load.rows = static_cast<uint32_t>(std::atoi(argument[2]));
  load.requests.resize(static_cast<size_t>(std::atoi(argument[3])));
  run(load, read_options(argument + 4));
}

// Asks every half millisecond until an answer comes.
void do_first(char** argument) {
  constexpr int kTries = 20000;
  std::string own;
  const int fd = open_raw(argument[0], proto::kEthertypeToGateway, own);
  const std::string bytes =
      frame(mac_bytes(argument[1]), own, proto::kEthertypeToSwitch, argument[2]);
  for (int i = 0; i < kTries; ++i) {
    send(fd, bytes.data(), bytes.size(), 0);
    pollfd entry = {fd, POLLIN, 0};
    const timespec pause = {0, 500000};
    if (ppoll(&entry, 1, &pause, nullptr) == 1) {
      std::printf("%llu\n", static_cast<unsigned long long>(now_ns()));
      return;
    }
  }
  die("no answer");
}

[[noreturn]] void do_exec(char** argument) {
  std::FILE* file = std::fopen(argument[0], "we");
  if (file == nullptr) {
    die(argument[0]);
  }
  std::fprintf(file, "%llu\n", static_cast<unsigned long long>(now_ns()));
  std::fclose(file);
  execvp(argument[1], argument + 1);
  die(argument[1]);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  char** rest = argv + 2;
  if (mode == "agent" && argc >= 5) {
    do_agent(rest);
  } else if (mode == "echo" && argc >= 8) {
    do_echo(rest);
  } else if (mode == "snmp" && argc >= 6) {
    do_snmp(rest);
  } else if (mode == "first" && argc == 5) {
    do_first(rest);
  } else if (mode == "exec" && argc >= 4) {
    do_exec(rest);
  } else {
    die("see the head of tests/bench/driver.cpp");
  }
  return 0;
}
