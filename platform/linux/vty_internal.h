// SPDX-License-Identifier: Apache-2.0
//
// The command shell behind platform/vty.h, as its files see each other:
//
//   vty_match     grammar: which command is this line       (pure)
//   vty_editor    one line on a terminal, byte by byte      (pure)
//   vty_nodes     the tables: nodes, their commands, their configuration writers
//   vty_session   one session without its socket: bytes in, commands run, bytes out
//   vty_telnet    the telnet layer of a session
//   vty_server    listening sockets and connections on the event loop; all the time and all the I/O
//   vty_commands  the shell's own commands
//   vty_config    the saved configuration; the process id file
//
// A session never blocks, and never grows: its line, its unread input and its unsent output are
// bounded, and it runs one command for each turn of the event loop.
#ifndef MORVA_PLATFORM_LINUX_VTY_INTERNAL_H
#define MORVA_PLATFORM_LINUX_VTY_INTERNAL_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/vty_editor.h"
#include "platform/linux/vty_match.h"
#include "platform/vty.h"

struct telnet_t;

namespace morva::shell {

inline constexpr int kInterfaceNode = 69;

inline constexpr size_t kSessionMaximum = 32;
inline constexpr size_t kInputChunk = 4096;  // bytes read from a client at a time
inline constexpr size_t kOutputPause =
    size_t{64} * 1024;  // unsent bytes: no further command until less
inline constexpr size_t kOutputMaximum =
    size_t{256} * 1024;  // unsent bytes: the session is dropped
inline constexpr size_t kConfigMaximum = size_t{1024} * 1024;  // bytes of a configuration
inline constexpr size_t kConfigLineMaximum = 4096;             // lines of a configuration
inline constexpr size_t kHistoryMaximum = 32;                  // lines

inline constexpr unsigned kIdleSecondsDefault = 600;
inline constexpr uint64_t kFarewellMs =
    uint64_t{10} * 1000;  // a closing session's time to take its output

// --- nodes

struct Node {
  const cmd_node* installed;
  int (*config_write)(struct vty* vty);
  std::vector<Pattern> patterns;
};

// The node of that number, or NULL. The pointer holds until the next install_node.
Node* node_find(int number);

// Calls the configuration writers, in the order in which their nodes were installed.
void nodes_write_config(struct vty& vty);

// --- sessions

enum class SessionKind {
  kTelnet,  // a terminal: "\r\n", echo, editing
  kPlain,   // the Unix socket: "\n", the line as it comes
  kFile,    // a configuration being read or written
};

struct History {
  std::vector<std::string> lines;  // oldest first
  size_t position = 0;             // lines.size(): the line being typed, kept in `draft`
  std::string draft;
};

}  // namespace morva::shell

struct vty {
  explicit vty(morva::shell::SessionKind session_kind) : kind(session_kind) {}
  ~vty();
  vty(const vty&) = delete;
  vty& operator=(const vty&) = delete;

  morva::shell::SessionKind kind;
  int node = VTY_NODE_VIEW;
  std::string interface;  // in the interface node: its name

  bool closing = false;  // no more input; ends when the output is out
  bool dropped = false;  // the output did not fit: ends now

  std::string output;
  size_t output_maximum = morva::shell::kOutputMaximum;

  std::string input;  // received, telnet taken off, not yet looked at
  size_t input_used = 0;
  morva::shell::Editor editor;
  morva::shell::History history;

  telnet_t* telnet = nullptr;   // kTelnet only
  bool spoke_telnet = false;    // the client has sent a telnet command
  bool echo_agreed = false;     // and wants us to echo
  unsigned terminal_width = 0;  // columns; 0: unknown
};

namespace morva::shell {

// Opens a session of that kind, without any output yet. NULL when memory is short.
std::unique_ptr<vty> session_open(SessionKind kind);

// Sends the first bytes: what telnet has to say, a greeting, the prompt.
void session_greet(vty& session);

// Takes bytes from the client, at most kInputChunk; only while session_has_input() is false.
void session_feed(vty& session, std::span<const uint8_t> bytes);

// True while received bytes wait to be looked at.
bool session_has_input(const vty& session);

// Looks at received bytes up to the next thing that happens (a command, help, a completion).
void session_step(vty& session);

// Says goodbye to an idle client and marks the session as closing.
void session_expire(vty& session);

// Runs one line in the session's node. True when it was empty or a command that returned 0.
// Errors are told to the session.
bool session_execute(vty& session, std::string_view line);

// The prompt as it stands now.
std::string session_prompt(const vty& session);

// Appends to the output, telnet's escaping included. False when the session is (or just was)
// dropped.
bool session_write(vty& session, std::string_view text);

// Appends to the output as it is.
bool session_write_raw(vty& session, std::string_view bytes);

// --- telnet

void telnet_open(vty& session);
void telnet_close(vty& session);
void telnet_greet(vty& session);
void telnet_feed(vty& session, std::span<const uint8_t> bytes);
void telnet_write(vty& session, std::string_view text);
bool telnet_echoes(const vty& session);

// --- commands

// Settings of the shell, saved in the configuration.
struct Settings {
  std::string host_name = "qel";
  unsigned idle_seconds = kIdleSecondsDefault;  // 0: never
};

Settings& settings();

// Puts the settings back to their defaults and the shell's own commands into their nodes.
void commands_install(bool terminal);

// Installs the commands that every node but VIEW and ENABLE has.
void commands_install_default(int node);

// True for the commands that only a session can use (`exit`, `write` ...), not a file.
bool command_is_for_sessions(const cmd_element* element);

// --- server

// The loop that vty_init was given, or NULL.
thread_master* server_loop();

// The port that the TCP listener got (it may have been asked for port 0), or 0.
unsigned short server_tcp_port();

// Number of open connections.
size_t server_sessions();

// Ends what has been idle or closing for too long. `now`: milliseconds of a steady clock. Called by
// a timer each second while there are connections.
void server_sweep(uint64_t now);

// The clock of the server, milliseconds; tests put theirs in its place (NULL: the steady clock).
void server_set_clock(uint64_t (*clock)());

// Closes all connections and listeners and forgets the loop. For tests.
void server_stop();

// --- configuration

// Composes the running configuration, as `show running-config` prints it between its frame lines.
// False when it is too long.
bool config_compose(std::string& text);

// Applies a configuration line by line in the configuration node. Returns the number of lines that
// were commands and succeeded; the others are logged and skipped.
size_t config_apply(std::string_view text);

// Reads and applies the saved configuration. Returns 0, or -1 when there is none to be read.
int config_load();

}  // namespace morva::shell

// Writes the running configuration into the configuration file, wholly or not at all. Returns 0
// when it is in persistent store, or -1 (logged; the old file stays). Called by `write` and
// config_save().
int vty_config_write_file();

#endif  // MORVA_PLATFORM_LINUX_VTY_INTERNAL_H
