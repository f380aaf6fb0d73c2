// SPDX-License-Identifier: Apache-2.0
//
// morvad plays the rest of the switch around the agent: the modules that answer queries, the
// interface manager, the hardware layer. This file reads the command line, puts the pieces
// together and runs the loop. Exit status: 0 ended by a signal, 1 could not start, 2 wrong command
// line, 75 the switch restarts and somebody has to start morvad again.
#include <event2/event.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "platform/linux/morvad/board.h"
#include "platform/linux/morvad/host_linux.h"
#include "platform/linux/morvad/kernel/kernel_switch.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/management.h"
#include "platform/linux/morvad/manager.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/only_one.h"
#include "platform/linux/morvad/query_server.h"
#include "platform/linux/notify.h"
#include "platform/linux/paths.h"
#include "platform/linux/usage.h"

namespace morvad {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct BaseDeleter {
  void operator()(event_base* base) const { event_base_free(base); }
};
struct EventDeleter {
  void operator()(event* watch) const { event_free(watch); }
};
using EventPtr = std::unique_ptr<event, EventDeleter>;

/// Opens /dev/null for each standard stream that is closed: a socket that got the number of one
/// would be written to with every line of the log.
void open_standard_streams() {
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR);  // gets the lowest number that is free
  } while (fd >= 0 && fd < STDERR_FILENO);
  if (fd > STDERR_FILENO) {
    close(fd);
  }
}

/// Creates a folder of ours below folders that exist; an existing one is good.
void make_folder(const char* place, mode_t mode) {
  char path[kMorvaPathSize];
  morva_path(path, sizeof path, place);
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (mkdir(path, mode) != 0 && errno != EEXIST) {
    log_line(std::string(path) + ": " + strerror(errno));
  }
}

bool bind_modules(QueryServer& server) {
  bool good = true;
  for (const Module* module : all_modules()) {
    const int result = server.bind(*module);
    const std::string name(module->name);
    if (result == 0) {
      log_line("module " + name + " is served by another process, left to it");
    } else if (result < 0) {
      log_line("module " + name + " cannot be served: " + strerror(-result));
      good = false;
    }
  }
  return good;
}

EventPtr on_signal(event_base* base, int signal, event_callback_fn action, void* argument) {
  EventPtr watch(evsignal_new(base, signal, action, argument));
  evsignal_add(watch.get(), nullptr);
  return watch;
}

/// A client's connect() wakes us, but there is nothing to do before its request is there. As a
/// batch process we do not take the processor from it in between, which would cost it and us a
/// switch for each query. A kernel that refuses leaves us slower, no more.
void let_clients_finish() {
  const sched_param none = {};
  sched_setscheduler(0, SCHED_BATCH | SCHED_RESET_ON_FORK, &none);
}

void end_loop(evutil_socket_t, short, void* base) {
  event_base_loopbreak(static_cast<event_base*>(base));
}

/// The switch at work, until the loop ends: the exit status. Nothing of it is open afterwards, so
/// that nobody waits for an answer while the processes of the switch end.
int serve(event_base* base, Board board, Settings& settings, HostLinux& host) {
  Switch sw(std::move(board), settings, host);
  apply_management(sw, host);

  Context context{sw, host};
  Manager manager(base, sw);
  sw.observe([&manager](const Port& port, PortEvent event) { manager.tell(port, event); });
  KernelSwitch kernel(base, sw, host);
  QueryServer server(base, context);
  const std::string refusal = kernel.start();
  if (!refusal.empty()) {
    log_line("ports in the kernel: " + refusal);
    return kExitFailed;
  }
  const int started = manager.start();
  if (started != 0) {
    log_line("interface manager: 127.0.0.1:30000: " + std::string(strerror(-started)));
    return kExitFailed;
  }
  if (!bind_modules(server)) {
    return kExitFailed;
  }
  send_poe_update_soon(context);  // an agent that lived on knows the figures of before
  log_line("board " + sw.board().name + ", " + std::to_string(sw.ports().size()) + " ports, ready");
  notify_ready(base);
  event_base_dispatch(base);
  return 0;
}

int run(Board board) {
  notify_read_environment();
  make_folder(MORVA_RUN_DIR, 0750);
  make_folder("/var/conf", 0755);
  signal(SIGPIPE, SIG_IGN);
  if (!hold_switch()) {
    return kExitFailed;
  }
  let_clients_finish();

  const std::unique_ptr<event_base, BaseDeleter> base(event_base_new());
  Settings settings;
  settings.fill(board.nvram);
  HostLinux host(base.get());
  const EventPtr watches[] = {
      on_signal(base.get(), SIGTERM, end_loop, base.get()),
      on_signal(base.get(), SIGINT, end_loop, base.get()),
      on_signal(
          base.get(), SIGCHLD,
          [](evutil_socket_t, short, void* raw) { static_cast<HostLinux*>(raw)->reap(); }, &host),
  };
  const int failed = serve(base.get(), std::move(board), settings, host);
  if (failed != 0) {
    return failed;
  }
  const int status = host.finish();
  if (status == kExitRestart) {
    settings.clear_temporary();
  }
  return status;
}

int start(int argc, char** argv) {
  CLI::App app("morvad plays the rest of the switch around the qel agent", "morvad");
  app.failure_message(morva::usage_fault);
  std::string file;
  bool foreground = false;
  app.add_option("--board", file, "Board file, see docs/platform-linux.md")->required();
  app.add_flag("--foreground", foreground, "Accepted for symmetry: morvad never detaches");
  app.footer("Example: morvad --board boards/ge28.json");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error) == 0 ? 0 : kExitUsage;
    return status != 0 || morva::all_written("morvad") ? status : kExitFailed;
  }
  return run(read_board(file));
}

}  // namespace
}  // namespace morvad

int main(int argc, char** argv) {
  morvad::open_standard_streams();
  try {
    return morvad::start(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "morvad: %s\n", error.what());
    return morvad::kExitFailed;
  }
}
