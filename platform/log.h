/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The log of the morva platform, and the assertion that ends a daemon whose invariants are broken.
 */
#ifndef MORVA_PLATFORM_LOG_H
#define MORVA_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

struct zlog; /* one logger; opaque */

/* The logger that zlog_notice and zlog_err write to; NULL before start-up (lines are then lost). */
extern struct zlog* zlog_default;

/*
 * Opens a logger. `name` is the program's name as it shall stand in each line (copied);
 * `protocol` the platform's number of the daemon; `flags` and `facility` those of openlog(3).
 * Returns the logger (never freed), or NULL when memory is short.
 */
struct zlog* openzlog(const char* name, int protocol, int flags, int facility);

/* Log one line at notice or error level, printf style; a line end is added by the log. */
void zlog_notice(const char* format, ...) __attribute__((format(printf, 1, 2)));
void zlog_err(const char* format, ...) __attribute__((format(printf, 1, 2)));

/*
 * Reports a broken invariant (its text, the source path of the module, the line and the function)
 * and ends the process by abort(). Does not return.
 */
void zlog_assert_failed(const char* assertion, const char* file, unsigned line,
                        const char* function) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_LOG_H */
