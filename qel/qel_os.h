// SPDX-License-Identifier: Apache-2.0
//
// The agent's one door to the operating system: sockets, interface requests, files, clock and the
// shell. Each function is the system call of like name and, but for what its comment says, nothing
// more, so that the modules keep the decisions and unit tests can put a machine of their own behind
// the same declarations.
#pragma once

#include <net/if.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

// socket(2), close-on-exec. Returns the descriptor, or -1 with errno set. A socket that interfaces
// are asked through (one opened, asked and closed with each frame) may be one that was kept when it
// was closed: whoever opens it cannot tell.
int qel_os_socket(int domain, int type, int protocol);

// setsockopt(2) of an integer option. Returns 0, or -1 with errno set.
int qel_os_setsockopt(int fd, int level, int option, int value);

// bind(2). Returns 0, or -1 with errno set.
int qel_os_bind(int fd, const struct sockaddr* address, socklen_t length);

// accept(2), close-on-exec and non-blocking. `address`/`length` as accept(2). Descriptor, or -1.
// With no descriptor left (EMFILE, ENFILE) the caller that waited has been turned away.
int qel_os_accept(int fd, struct sockaddr* address, socklen_t* length);

// recvfrom(2) that does not wait; `address` may be null (then `length` is too). Bytes, or -1.
ssize_t qel_os_recvfrom(int fd, void* buffer, size_t size, struct sockaddr* address,
                        socklen_t* length);

// recvmsg(2) that does not wait. Bytes, or -1.
ssize_t qel_os_recvmsg(int fd, struct msghdr* message);

// sendto(2). Returns the bytes sent, or -1 with errno set.
ssize_t qel_os_sendto(int fd, const void* data, size_t length, int flags,
                      const struct sockaddr* address, socklen_t address_length);

// write(2) and close(2). Closing a socket twice fails with EBADF, also when it was kept.
ssize_t qel_os_write(int fd, const void* data, size_t length);
int qel_os_close(int fd);

// ioctl(2) of an interface request (SIOCGIFADDR and its like). Returns 0, or -1 with errno set.
int qel_os_ifreq(int fd, unsigned long request, struct ifreq* interface_request);

// fopen(3) with close-on-exec, unlink(2).
std::FILE* qel_os_fopen(const char* path, const char* mode);
int qel_os_unlink(const char* path);

// rename(2), rmdir(2), chmod(2), mkdir(2) with exactly the permissions `mode`. Return 0, or -1 with
// errno set.
int qel_os_rename(const char* from, const char* to);
int qel_os_rmdir(const char* path);
int qel_os_chmod(const char* path, unsigned mode);
int qel_os_mkdir(const char* path, unsigned mode);

// Creates an empty file with exactly the permissions `mode`, only where nothing stands. Returns 0,
// or -1 with errno set.
int qel_os_create(const char* path, unsigned mode);

// What stands under a name.
struct qel_os_entry {
  uint32_t mode;   // type and permissions, as st_mode of stat(2)
  uint32_t links;  // names of the file
  int64_t size;    // bytes
};

// lstat(2): the entry itself, never what a link leads to. Returns 0, or -1 with errno set.
int qel_os_lstat(const char* path, qel_os_entry* entry);

// Calls `visit` with each name in the folder `path`, but "." and "..", in no order, until it
// returns false. A last component that is a link is not followed. Names that are removed or added
// meanwhile may be visited or not. Returns 0, or -1 with errno set when the folder cannot be read.
using qel_os_visit = bool (*)(const char* name, void* context);
int qel_os_list(const char* path, qel_os_visit visit, void* context);

// time(2): seconds since the epoch.
int64_t qel_os_time();

// Seconds since boot as sysinfo(2) tells them; 0 when it fails.
long qel_os_sysinfo_uptime();

// Opens /dev/null for each of the descriptors 0, 1 and 2 that is closed. For `main`, before
// anything else: a socket that got one of these numbers would be written to by whoever prints, and
// be lost when the process detaches.
void qel_os_open_standard_streams();

// daemon(3) with both arguments 0. Returns 0, or -1 with errno set.
int qel_os_daemon();

// umask(2).
void qel_os_umask(unsigned mask);

// system(3). Every shell command of the agent passes here. Returns the wait status, or -1.
int qel_os_system(const char* command);

// A shell command that runs beside the loop.
struct qel_os_job {
  int pid;  // 0: none; the leader of a process group of its own
  int end;  // descriptor that becomes readable, at its end, when the command has ended
};

// Starts the one command `command`, at most 300 bytes, by the shell, with nothing to read on its
// standard input. It ends with the process that started it. Returns 0, or -1 with
// errno set (then nothing runs and `job` is as it was). The caller ends the job by qel_os_job_end.
int qel_os_job_start(const char* command, qel_os_job* job);

// Kills what runs of a job; `end` then becomes readable.
void qel_os_job_kill(const qel_os_job* job);

// Ends a job: kills its process group if the shell still runs, waits for the shell, and closes
// `end`. Returns the wait status of the shell, or -1.
int qel_os_job_end(qel_os_job* job);

// exit(3).
[[noreturn]] void qel_os_exit(int status);
