// SPDX-License-Identifier: Apache-2.0
//
// The switch that unit tests run the agent on: every call of platform/*.h and of qel/qel_os.h,
// in-process. A test sets state with one-line setters, lets the agent act, and reads what it did.
// Nothing leaves the process: sockets, files, the shell, the clock and the event loop are here.
//
// Each source file of this folder stands behind the header of the same stem. What a call hands out
// "until the next call" is really freed then, so that a user that keeps it is caught.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/hal.h"
#include "platform/loop.h"
#include "platform/sys.h"
#include "platform/uclient.h"
#include "platform/uif.h"
#include "platform/vty.h"

namespace fake {

using Mac = std::array<uint8_t, 6>;

// ---------------------------------------------------------------------------------------------
// Everything

// Back to a machine as it is switched on: an interface "vlanif1" (index 7, MAC 0a:1b:2c:3d:4e:5f,
// 192.168.1.10/24, MTU 2000), the same system MAC, no ports, empty settings, /proc texts that give
// cpu 30 and mem 75, an uptime of 3600 s, a console. Call it before each test.
void reset();

// All calls of the platform and of the operating system in order, one text each, with arguments:
// "hal_init(23)", "funcname_thread_add_read(qel_read, 102)", "socket(AF_PACKET, SOCK_RAW, 0x9301)".
// Left out are those without effect: conversions, list walks, look-ups, the clock.
const std::vector<std::string>& calls();

// Those of them that begin with one of `prefixes`, in order.
std::vector<std::string> calls_of(const std::vector<std::string_view>& prefixes);

// Adds a text of the test's own to calls(), at the place where the agent is.
void note(const std::string& text);

// Forgets calls, sent datagrams, queries, settings written, shell commands, log and console lines;
// state stays. For tests whose subject begins after a set-up.
void clear_records();

// ---------------------------------------------------------------------------------------------
// Clock and event loop

// Seconds since the switch started, and since the epoch. Both move with tick and advance.
uint32_t uptime();
void set_uptime(uint32_t seconds);
int64_t now();
void set_now(int64_t seconds);

// Lets `seconds` pass: each timer that comes due runs at its second, in order; what it registers
// may come due too. Stops exactly `seconds` later.
void tick(unsigned seconds = 1);

// Moves the clock only; timers run late, at the next tick.
void advance(unsigned seconds);

// Moves the clock to the earliest timer and runs what is due then. False when there is no timer.
bool run_next_timer();

// Runs the read callbacks of all descriptors that have something to read, until none has.
// Returns how many callbacks ran.
int run_reads();

// Runs the callback registered for `fd`, readable or not. False when none is registered.
bool fire_read(int fd);

// A registration that has not fired. `file` and `line` as the agent gave them.
struct Registration {
  bool timer;
  std::string name;
  int fd;        // -1 for a timer
  long seconds;  // as given; 0 for a read
  void* arg;
  std::string file;
  int line;
};
std::vector<Registration> registrations();

// How many registrations have that task name (and that descriptor).
int registered(std::string_view name);
int registered(std::string_view name, int fd);

// The only loop; what thread_master_create returns. It exists without that call too.
thread_master* master();

// Runs inside thread_main, which then returns.
void on_thread_main(std::function<void()> action);

// The handler that signal_init bound to `signo`, or null.
void (*signal_handler(int signo))();

// ---------------------------------------------------------------------------------------------
// Log and console

// Lines of zlog_notice ("notice: ...") and zlog_err ("err: ...") in order, without line end.
const std::vector<std::string>& log_lines();

// What was written to /dev/console, one text for each time that it was opened and closed.
const std::vector<std::string>& console();
std::string console_text();
// The modes in which it was opened, in order.
const std::vector<std::string>& console_modes();
// Runs at each of those texts, which is on the record by then.
void on_console(std::function<void()> action);

// ---------------------------------------------------------------------------------------------
// Lists

// How many nodes listnode_add has made since the process began.
size_t list_nodes_made();

// ---------------------------------------------------------------------------------------------
// Interfaces and ports

// A record of the interface cache; members left out get what a fresh copper port has.
struct PortSpec {
  int32_t port_no = 0;  // 0: the next one
  int32_t speed_class = UIF_CLASS_GIGA;
  int32_t medium = UIF_MEDIUM_COPPER;
  int32_t max_speed = 1000;
  int32_t speed = 0;
  int32_t duplex = 0;
  int32_t speed_conf = 0;
  int32_t pos_x = 0;
  int32_t pos_y = 0;
  int32_t aux_index = 0;
  int32_t mirror = 0;
  int32_t limit = 0;
  int32_t link = 0;
  bool disabled = false;
};

// Appends a switch port: index 0x01000000 + its number. The record is the cache's own.
struct uif* add_port(const char* name, const PortSpec& spec = {});
// Appends ports "ge1".."ge<count>".
void add_ports(int count);
// Appends an interface that is no switch port; `index` needs a zero top byte for that.
struct uif* add_interface(const char* name, uint32_t index);
// Appends a list node without data: a broken invariant.
void add_null_interface();
// What uif_is_enable and uif_is_linkup return for a yes, instead of 1.
void set_uif_yes(int value);

// The machine's own network interface, as ioctl tells it.
struct NetInterface {
  int index = 0;
  Mac mac{};
  std::string ip;    // dotted; empty: no address
  std::string mask;  // dotted
  int mtu = 1500;
};
// The interface of that name, created when it is not there yet.
NetInterface& net(const std::string& name);
void remove_net(const std::string& name);

// ---------------------------------------------------------------------------------------------
// Settings and identity

void set_nvram(const std::string& key, const std::string& value);
std::string nvram(const std::string& key);       // persistent; "" when unset
std::string nvram_temp(const std::string& key);  // temporary; "" when unset
void fail_nvram_writes(bool fail);
// Each write that was tried, in order: "key=3", or "temp key=1"; " (failed)" behind those refused.
const std::vector<std::string>& nvram_writes();

void set_system_mac(const Mac& mac);
void set_oem_words(const std::array<uint32_t, OEM_INFO_WORDS>& words);
std::string system_name();
void set_system_name(const std::string& name);
int reboots();
int factory_resets();

// Results of the next calls of a platform function, by name ("morva_init", "sys_mac_get",
// "config_save", "sys_reboot", "hal_qel_enable", "uclient_connect" ...): `fail` makes it fail.
void fail_platform(const std::string& function, bool fail = true);

// ---------------------------------------------------------------------------------------------
// Module queries

struct Query {
  std::string module;   // "" when the request is no JSON object with a text "mdl"
  std::string command;  // "" likewise for "cmd"
  std::string request;  // the whole text
  bool waited;          // a reply area was given
};
const std::vector<Query>& queries();
// The whole request texts, in order.
std::vector<std::string> query_texts();

// Answers that command of that module from now on; without this there is no answer.
void reply(const std::string& module, const std::string& command, const std::string& text);
// Answers once, before what `reply` set; several stand in a queue.
void reply_once(const std::string& module, const std::string& command, const std::string& text);
// No answer any more.
void no_reply(const std::string& module, const std::string& command);
// Sees every request before it is answered; may change state.
void on_query(std::function<void(const Query&)> action);

// ---------------------------------------------------------------------------------------------
// Hardware

// The last value of hal_qel_enable; nothing when it was not called.
std::optional<int> hal_enabled();
// A row of the layer-2 table.
void add_mac_entry(const hal_mac_entry& entry);
void clear_mac_entries();
// Runs before each read of the table with its start position; may change the table. A number that
// it returns is told as the count delivered, true or not.
void on_mac_read(std::function<std::optional<uint32_t>(uint32_t start)> action);

// ---------------------------------------------------------------------------------------------
// Firmware

struct Firmware {
  int upgrading = 0;
  int state = 0;
  int detail = 0;
  int begins = 0;                     // calls of sys_transmit_fw_begin
  std::vector<int> fail_codes;        // of sys_transmit_fw_fail
  std::vector<std::string> upgrades;  // paths of sys_upgrade_firmware
};
Firmware& firmware();

// ---------------------------------------------------------------------------------------------
// Command shell

// A session that collects what is written to it. Lives until reset.
struct vty* vty_session(bool terminal = false);
std::string vty_text(const struct vty* vty);

struct CommandResult {
  bool found;          // an element of that node matches the words
  int result;          // of the command
  std::string output;  // what it wrote
};
// Runs the command of `node` whose syntax matches `line`.
CommandResult run_command(int node, const std::string& line, bool terminal = false);
// What the configuration writer of `node` prints; `lines` receives its result.
std::string config_text(int node, bool terminal = false, int* lines = nullptr);

struct Node {
  int node;
  std::string prompt;
  int vtysh;
  bool has_writer;
};
const std::vector<Node>& nodes();
// The syntax and help texts of the elements of a node, in order of installation.
struct Element {
  std::string string;
  std::string doc;
};
std::vector<Element> elements(int node);

// ---------------------------------------------------------------------------------------------
// Interface manager

// The client that uclient_connect made; null before.
struct uclient* uclient();
// A message for a hook, to be passed by hand; lives until reset.
const uclient_msg* message_if_status(const std::string& name, int link, int speed_conf = 0);
// Messages on the connection to the client; they are read by the next run_reads().
void if_status(const std::string& name, int link, int speed_conf = 0);
void new_if(const std::string& name, uint32_t index);
void trunk_set(const std::string& name, int trunk);
void mirror_get(const std::string& name, int mirror);
// The same messages arrive on connection `fd` instead of the client's own (-1: its own again).
void manager_sends_on(int fd);
// uclient_handle_async finds the end of the stream on `fd`.
void manager_closes(int fd);

// ---------------------------------------------------------------------------------------------
// Operating system: sockets

// A datagram that the agent sent.
struct Sent {
  int fd;
  std::string bytes;
  int flags;
  sockaddr_storage to;
  socklen_t to_length;

  int family() const;
  int ifindex() const;     // AF_PACKET; -1 otherwise
  std::string ip() const;  // AF_INET, dotted; "" otherwise
  int port() const;        // AF_INET, host order; -1 otherwise
};
const std::vector<Sent>& sent();

// Runs at each datagram sent, which is on the record by then.
void on_send(std::function<void()> action);

// What the kernel says of a frame beside its bytes, as if it had come through "vlanif1", untagged,
// unless something else is given.
struct Arrival {
  std::optional<int> ifindex{};
  uint8_t packet_type = 0;        // PACKET_HOST
  std::optional<uint16_t> tci{};  // the tag that auxiliary data tell
  bool tci_valid = true;          // with its status bit
  int message_flags = 0;          // those of recvmsg
};

// Queues a datagram for `fd`.
void receive_frame(int fd, std::string_view bytes, const Arrival& arrival = {});
void receive_udp(int fd, std::string_view bytes, const std::string& ip, uint16_t port);
void receive_local(int fd, std::string_view bytes);
// The next read of `fd` fails with `error`.
void receive_error(int fd, int error);
// A connection waits on the listening `fd`; the next accept returns a descriptor.
void connect_to(int fd);

// The descriptor of the last socket opened with that family; -1 when there is none.
int last_socket(int family);
bool is_open(int fd);

// Makes an operating system call fail with `error`, after `skip` calls that work, `times` times.
// By name: "socket", "setsockopt", "bind", "accept", "sendto", "ifreq", "fopen", "daemon",
// "system", "unlink", "rename", "rmdir", "mkdir", "create", "list", "job"; on one file only: "fopen
// <path>", "fread <path>", "fwrite <path>", "fseek <path>", "unlink <path>", "rename <path>" (the
// old one).
void fail_os(const std::string& function, int error, int skip = 0, int times = 1 << 30);

// The next write to the file of that path stores its first `count` bytes only, as on a disk that
// fills up.
void cut_write(const std::string& path, size_t count);

// Runs at each write of bytes to a descriptor, which is on the record by then.
void on_write(std::function<void()> action);

// Writes all frames sent since the last clear as a capture file. False when it cannot.
bool write_pcap(const std::string& path);

// ---------------------------------------------------------------------------------------------
// Operating system: files, shell

// The machine's files, by absolute path. A file that is not set does not exist.
void set_file(const std::string& path, std::string_view bytes);
std::optional<std::string> file(const std::string& path);
void remove_file(const std::string& path);
// The paths of the files that are open, the console left out.
std::vector<std::string> open_files();

// Other entries than files and files with particulars: a folder (mode 040700), a link (0120777), a
// FIFO (010600) ... `links` counts its names; only lstat reports a `size` other than that of the
// bytes of set_file. A folder that holds entries need not be set.
struct FileEntry {
  uint32_t mode = 0100640;
  uint32_t links = 1;
  std::optional<int64_t> size = {};
};
void set_entry(const std::string& path, const FileEntry& entry);
// All entries at and below `folder`, by path; folders end in '/', links in '@', others in '|'.
std::vector<std::string> entries(const std::string& folder);
// Removes the entry and what is below it, as "rm -rf" does.
void remove_tree(const std::string& path);

// Runs before each call that changes a file or folder (and whenever a hook of on_shell calls
// file_step itself): the moments between which a process can be killed.
void on_file_step(std::function<void()> action);
void file_step();

// The job that runs beside the loop: its command, and its end with a wait status. A test lets it
// end; it is readable then.
std::string job_command();  // "" when none runs
void job_ends(int status);

// Shell commands in order; none of them runs but "rm -rf -- PATH". `hook` may do their work on the
// files; its result is the exit status (0..255), or a negative number for a system() that fails.
const std::vector<std::string>& shell_commands();
void set_shell_status(int status);
void on_shell(std::function<int(const std::string&)> hook);

// Seconds since boot as sysinfo tells them, apart from uptime(): reset sets 3600; moves with it.
void set_sysinfo_uptime(long seconds);

}  // namespace fake
