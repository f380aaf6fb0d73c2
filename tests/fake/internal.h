// SPDX-License-Identifier: Apache-2.0
//
// What the source files of the fake share among themselves; tests include fake.h only.
#pragma once

#include <string>

namespace fake::internal {

// Adds a text to fake::calls(), printf style.
void record(const char* format, ...) __attribute__((format(printf, 1, 2)));

// True when a test asked that `function` fails (fail_platform).
bool platform_fails(const std::string& function);

// Each file's part of fake::reset() and of fake::clear_records().
void reset_firmware();
void reset_hal();
void reset_jclient();
void reset_list();
void reset_log();
void reset_loop();
void reset_os();
void reset_sys();
void reset_uclient();
void reset_uif();
void reset_vty();
void clear_jclient_records();
void clear_log_records();
void clear_os_records();
void reset_os_files();
void clear_os_file_records();
void clear_sys_records();

// Readiness for run_reads(): the operating system's descriptors, and the manager's connections.
bool os_readable(int fd);
bool manager_readable(int fd);

// A descriptor of the fake machine: listening sockets and connections of the interface manager.
int open_descriptor(int family);

// The clocks move together; `seconds` may be 0.
void move_clock(unsigned seconds);
long sysinfo_uptime();

// True, with errno set, when a test asked that this call fails (fail_os).
bool os_fails(const std::string& function);

// Appends to a file of the fake machine, creating it.
void append_file(const std::string& path, const void* data, size_t length);

}  // namespace fake::internal
