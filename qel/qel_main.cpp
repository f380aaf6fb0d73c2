// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_main.h"

#include <getopt.h>
#include <netinet/in.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/sys.h"
#include "platform/uclient.h"
#include "platform/uif.h"
#include "platform/vty.h"
#include "qel/qel_api.h"
#include "qel/qel_eth.h"
#include "qel/qel_eth_pkt.h"
#include "qel/qel_gw.h"
#include "qel/qel_ipc.h"
#include "qel/qel_os.h"
#include "qel/qel_req.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "qel/qel_upgrade.h"
#include "qel/qel_vty.h"

namespace {

constexpr char kSource[] = "qel/qel_main";
constexpr char kPidPath[] = "/var/run/qel.pid";
constexpr char kVtyPath[] = "/var/run/qel.vty";
constexpr unsigned kUmask = 027;

// Numbers by which the platform knows this daemon.
constexpr int kLogProtocol = 33;
constexpr int kHalClient = 23;
constexpr unsigned kHostProtocols = 0x28000;

constexpr unsigned short kVtyPort = 2625;
constexpr uint32_t kManagerAddress = 0x7f000001;  // 127.0.0.1, host byte order
constexpr unsigned short kManagerPort = 30000;
constexpr unsigned short kManagerBackPort = 30056;

constexpr std::array kSignals = {
    loop_signal{SIGINT, qel_terminate},
    loop_signal{SIGTERM, qel_terminate},
    loop_signal{SIGTSTP, qel_terminate},
    loop_signal{SIGQUIT, qel_terminate},
};

const char* base_name(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

bool wants_daemon(int argc, char** argv) {
  static const struct option kOptions[] = {{"daemon", no_argument, nullptr, 'd'},
                                           {nullptr, 0, nullptr, 0}};
  bool daemon = false;
  int letter = 0;
  opterr = 0;  // an unknown option is ignored, without a word
  while ((letter = getopt_long(argc, argv, "d", kOptions, nullptr)) != -1) {
    if (letter == 'd') {
      daemon = true;
    }
  }
  return daemon;
}

void register_read(struct uclient* client, int fd) {
  funcname_thread_add_read(g_qel_master, qel_read, client, fd, "qel_read", kSource, __LINE__);
}

void register_serv(struct uclient* client) {
  funcname_thread_add_read(g_qel_master, qel_serv, client, client->listen_fd, "qel_serv", kSource,
                           __LINE__);
}

void register_timer() {
  funcname_thread_add_timer(g_qel_master, qel_timer_second, nullptr, 1, "qel_timer_second", kSource,
                            __LINE__);
}

int new_if(struct uclient* client, const struct uclient_msg* msg) {
  return uclient_new_if(client, msg);
}

int trunk_set(struct uclient* client, const struct uclient_msg* msg) {
  return uclient_trunk_set(client, msg);
}

void init_platform() {
  g_qel_master = thread_master_create();
  hal_init(kHalClient);
  signal_init(g_qel_master, static_cast<int>(kSignals.size()), kSignals.data());
  cmd_init(1);
  vty_init(g_qel_master);
  memory_init();
  uif_init();
  uvlan_init();
}

void become_daemon() {
  if (qel_os_daemon() < 0) {
    zlog_err("Timer daemon failed: %s", std::strerror(errno));
    qel_os_exit(1);
  }
}

void connect_manager() {
  // Lives until exit; kept here too, for nothing is registered any more once a restart is ordered.
  static struct uclient* client;
  client = uclient_connect(kManagerAddress, kManagerPort, kManagerBackPort);
  if (client == nullptr) {
    zlog_err("Failed to create uclient");
    qel_os_exit(1);
  }
  client->new_if = new_if;
  client->if_status = qel_if_status;
  client->trunk_set = trunk_set;
  client->mirror_get = uclient_mirror_get;
  register_read(client, client->conn_fd);
  register_serv(client);
}

// An archive is held for 31 ticks from the last request for it.
void expire_archive() {
  constexpr uint8_t kLastAge = 30;
  if (g_qel_dev.conf_busy == 0) {
    return;
  }
  if (g_qel_dev.conf_age++ >= kLastAge) {
    qel_api_conf_release();
    g_qel_dev.conf_busy = 0;
    g_qel_dev.conf_age = 0;
  }
}

// Any value but 0 is lowered, so a negative one never ends. The wrap at the lowest is defined here.
void count_down_active() {
  if (g_qel_dev.sys_active == 0) {
    return;
  }
  g_qel_dev.sys_active = static_cast<int32_t>(static_cast<uint32_t>(g_qel_dev.sys_active) - 1);
  nvram_set_int("qel_sys_active", g_qel_dev.sys_active);
}

}  // namespace

struct thread_master* g_qel_master;

int qel_main(int argc, char** argv) {
  qel_os_umask(kUmask);
  zlog_default = openzlog(argc > 0 ? base_name(argv[0]) : "qel", kLogProtocol,
                          LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);
  const bool daemon = wants_daemon(argc, argv);
  init_platform();
  qel_vty_init();
  qel_init();
  qel_api_conf_init();
  morva_init();
  if (daemon) {
    become_daemon();
  }
  pid_output(kPidPath);
  vty_serv_sock(nullptr, kVtyPort, kVtyPath);
  connect_manager();
  register_timer();
  host_init(kHostProtocols, 0);
  qel_enable_init();
  zlog_notice("qel %s starting", kQelVersion);
  thread_main(g_qel_master);
  return 0;
}

void qel_init() {
  qel_table_dev_init();
  qel_req_list_init();
  qel_eth_pkt_list_init();
  qel_dev_init();
  qel_ipc_sock_init();
  qel_eth_check_mtu();
}

void qel_enable(int value) {
  g_qel_dev.enable = static_cast<uint32_t>(value);
  nvram_set_int_temp("qel_enable", value);
  hal_qel_enable(value);
}

void qel_enable_init() {
  struct oem_info oem = {};
  oem_info_get(&oem);
  qel_enable(1);
  if (oem.word[1] == 1 && oem.word[3] == 0) {
    qel_enable(0);
  }
}

void qel_terminate() {
  qel_os_job_kill(&g_qel_upgrade_fetch.job);
  zlog_notice("Vlog terminating on signal");
  qel_os_exit(0);
}

int qel_read(struct thread* thread) {
  auto* client = static_cast<struct uclient*>(thread->arg);
  const int fd = thread->fd;
  if (qel_restart_ordered()) {
    return 0;
  }
  if (uclient_handle_async(client, fd) < 0) {
    qel_os_close(fd);
    return 0;
  }
  register_read(client, fd);
  return 0;
}

int qel_serv(struct thread* thread) {
  auto* client = static_cast<struct uclient*>(thread->arg);
  if (qel_restart_ordered()) {
    return 0;
  }
  register_serv(client);
  struct sockaddr_in address = {};
  socklen_t length = sizeof address;
  const int fd = qel_os_accept(thread->fd, reinterpret_cast<struct sockaddr*>(&address), &length);
  if (fd < 0) {
    zlog_err("%s: accept async failed\n", __func__);
    return -1;
  }
  register_read(client, fd);
  return 0;
}

int qel_timer_second(struct thread* /*thread*/) {
  if (qel_restart_ordered()) {
    qel_restart_tick();
  } else {
    qel_gw_timer();
    expire_archive();
    count_down_active();
    qel_upgrade_fetch_tick();
  }
  register_timer();
  return 0;
}
