// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_upgrade.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/firmware.h"
#include "platform/log.h"
#include "platform/sys.h"
#include "qel/qel_console.h"
#include "qel/qel_main.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_shell.h"

namespace {

constexpr int kFailTransfer = -2;        // told to the platform
constexpr int kStateOvertime = -5;       // upgrade state after too long a silence
constexpr int32_t kOvertimeRequest = 4;  // ticks until a chunk is asked for again
constexpr int32_t kOvertimeLimit = 61;   // ticks until the download is abandoned

void print_mac(const uint8_t mac[6]) {
  qel_stdout("%02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void print_peer(const qel_link* link) {
  if (link->kind == kQelLinkUdp) {
    qel_stdout("s_addr=0x%x \r\n", link->addr.udp.sin_addr.s_addr);
  } else if (link->kind == kQelLinkEth || link->kind == kQelLinkEthAlso) {
    print_mac(link->gw_mac);
    print_mac(link->own_mac);
  }
}

// Would ask the peer for a chunk again; what it should send is not settled, so it sends nothing.
int request_again(int /*code*/) {
  return 0;
}

int fail() {
  sys_transmit_fw_fail(kFailTransfer);
  return -1;
}

constexpr char kSource[] = "qel/qel_upgrade";
constexpr int kStateIdle = 0;
constexpr uint32_t kFetchPatience = 1800;  // seconds that a server may take for an image

// The folder of the upgrade program while it runs. Only root gets into it: a program that is
// started from /tmp itself could be one that somebody else put there.
constexpr char kProgramFolder[] = "/tmp/morva_upgrade.d";
constexpr unsigned kPrivate = 0700;
constexpr unsigned kImageMode = 0640;

// Removes the image, whatever stands under its name.
void remove_image() {
  if (qel_os_unlink(kQelFirmwarePath) != 0 && errno != ENOENT) {
    qel_shell_run("rm -rf -- /tmp/linux.trx");
  }
}

// Makes the folder anew. Returns false when somebody keeps it from being made.
bool make_program_folder() {
  constexpr int kTries = 3;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (qel_os_mkdir(kProgramFolder, kPrivate) == 0) {
      return true;
    }
    if (qel_os_unlink(kProgramFolder) != 0) {
      qel_shell_run("rm -rf -- /tmp/morva_upgrade.d");
    }
  }
  return false;
}

bool start_program() {
  return make_program_folder() &&
         qel_shell_run("cp -fpR /morva/bin/morva_upgrade /tmp/morva_upgrade.d") == 0 &&
         qel_shell_run("/tmp/morva_upgrade.d/morva_upgrade /tmp/linux.trx&") == 0;
}

// Whether the image file is exactly what was appended to it: a regular file of that many bytes.
bool file_holds(int32_t bytes) {
  qel_os_entry entry = {};
  return qel_os_lstat(kQelFirmwarePath, &entry) == 0 && S_ISREG(entry.mode) && entry.size == bytes;
}

// The image is complete; it is handed on once.
int complete(qel_upgrade_state* state) {
  if (state->has_data == 0 || !file_holds(state->total)) {
    state->failed = 1;
    return fail();
  }
  state->begun = 0;
  return 1;
}

void register_fetched() {
  funcname_thread_add_read(g_qel_master, qel_upgrade_fetched, nullptr, g_qel_upgrade_fetch.job.end,
                           "qel_upgrade_fetched", kSource, __LINE__);
}

}  // namespace

qel_upgrade_state g_qel_upgrade;
qel_upgrade_fetch_state g_qel_upgrade_fetch;

int qel_upgrade_init(const qel_link* link, int32_t total) {
  if (sys_is_upgrading() != 0 || qel_upgrade_is_fetching()) {
    return -1;
  }
  remove_image();
  sys_transmit_fw_begin();
  g_qel_upgrade = qel_upgrade_state{};
  g_qel_upgrade.total = total;
  g_qel_upgrade.peer = *link;
  g_qel_upgrade.begun = 1;
  if (qel_debug(kDebugFrame)) {
    qel_console("[%s,%d] totalsize[%d]\r\n", __func__, __LINE__, total);
  }
  print_peer(link);
  return 0;
}

int qel_upgrade_append(const qel_link* /*link*/, std::span<const uint8_t> bytes, int32_t index) {
  qel_upgrade_state& state = g_qel_upgrade;
  if (state.begun == 0) {
    return -1;
  }
  // The first index is 0, as is the state's: a repeated chunk 0 is appended again.
  if (state.last_index != 0 && state.last_index >= index) {
    return 0;
  }
  const auto length = static_cast<int32_t>(bytes.size());
  if (state.failed != 0 || length > INT32_MAX - state.received) {
    return fail();
  }
  state.last_index = index;
  if (length > 0) {
    state.has_data = 1;
    if (tq_file_append(kQelFirmwarePath, bytes.data(), bytes.size()) != 0) {
      // An image with a hole must never count as complete.
      state.failed = 1;
      return fail();
    }
  }
  state.received += length;
  if (int64_t{state.index} - 1 == index) {
    state.overtime_count = 0;
  }
  if (state.received == state.total) {
    return complete(&state);
  }
  return state.received <= state.total ? 0 : fail();
}

void qel_upgrade_overtime_clear() {
  g_qel_upgrade.overtime_active = 0;
  g_qel_upgrade.overtime_count = 0;
  g_qel_upgrade.overtime_total = 0;
}

void qel_upgrade_reset() {
  remove_image();
  g_qel_upgrade = qel_upgrade_state{};
}

int qel_upgrade_fetch(const char* command) {
  qel_upgrade_reset();
  sys_upgrade_state_set(kQelUpgradeFetching, 0);
  g_qel_upgrade_fetch = {};
  // The file is made here, so that the command does not write into one that somebody else made.
  if (qel_os_create(kQelFirmwarePath, kImageMode) != 0) {
    zlog_err("firmware not fetched: %s", std::strerror(errno));
    sys_upgrade_state_set(kStateIdle, kFailTransfer);
    return -1;
  }
  if (qel_os_job_start(command, &g_qel_upgrade_fetch.job) != 0) {
    zlog_err("firmware not fetched: %s", std::strerror(errno));
    sys_upgrade_state_set(kStateIdle, kFailTransfer);
    return -1;
  }
  register_fetched();
  return 0;
}

bool qel_upgrade_is_fetching() {
  return g_qel_upgrade_fetch.job.pid != 0;
}

void qel_upgrade_fetch_tick() {
  // Its end is heard like any other.
  if (qel_upgrade_is_fetching() && ++g_qel_upgrade_fetch.seconds == kFetchPatience) {
    qel_os_job_kill(&g_qel_upgrade_fetch.job);
  }
}

int qel_upgrade_fetched(struct thread* /*thread*/) {
  if (qel_restart_ordered() || !qel_upgrade_is_fetching()) {
    return 0;
  }
  const int status = qel_os_job_end(&g_qel_upgrade_fetch.job);
  if (status != 0) {
    // Idle, with the figure as detail: a failure must not keep the next upgrade away.
    zlog_err("firmware not fetched: the command ended with wait status %d", status);
    sys_upgrade_state_set(kStateIdle, kFailTransfer);
    return 0;
  }
  if (!start_program()) {
    zlog_err("firmware not handed on: the upgrade program cannot be started");
    sys_upgrade_state_set(kStateIdle, kFailTransfer);
  }
  return 0;
}

int qel_upgrade_overtime_reqest_timer() {
  constexpr int kAbandon = 2;
  qel_upgrade_state& state = g_qel_upgrade;
  if (state.overtime_active != 0) {
    ++state.overtime_count;
    qel_stdout("%s, %d overttimes=%d index=%d \r\n", __func__, __LINE__, state.overtime_count,
               state.index);
  }
  if (state.overtime_count >= kOvertimeRequest) {
    request_again(0);
    qel_stdout("%s, %d index=%d \r\n", __func__, __LINE__, state.index);
  }
  if (state.overtime_total >= kOvertimeLimit) {
    sys_upgrade_state_set(kStateOvertime, 0);
    request_again(kAbandon);
    qel_upgrade_reset();
  }
  return 0;
}
