/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The event loop of the morva platform: one thread, one-shot read registrations, one-shot timers,
 * signals delivered between callbacks. Every callback runs to completion before the next starts.
 *
 * A registration is spent when its callback runs: a reader that wants more registers again.
 */
#ifndef MORVA_PLATFORM_LOOP_H
#define MORVA_PLATFORM_LOOP_H

#ifdef __cplusplus
extern "C" {
#endif

struct thread_master; /* the loop; opaque */

/* What a callback receives. The record is the loop's and valid only until the callback returns. */
struct thread {
  struct thread_master* master; /* the loop that runs the callback */
  void* arg;                    /* as given at registration */
  int fd;                       /* the readable descriptor; -1 for a timer */
};

/* A callback; its result is ignored by the loop. */
typedef int (*thread_func)(struct thread* thread);

/* One row of the table given to signal_init. */
struct loop_signal {
  int signo;             /* the host's signal number */
  void (*handler)(void); /* called from the loop or, until it begins, by a call of the
                            platform that waits; never from signal context */
};

/* Creates the loop. Returns it, or NULL when the system has no resources for it. Never freed. */
struct thread_master* thread_master_create(void);

/*
 * Calls `func` once, when `fd` is readable, at end of file or in error.
 * A callback that closes its descriptor does not register the same `func` and `arg` again for
 * another file under the same number before it returns: that would not be heard.
 * `name`, `file` and `line` tell the platform's diagnostics who asked; the texts must outlive the
 * registration (string literals do). Returns a handle, or NULL when nothing was registered.
 */
void* funcname_thread_add_read(struct thread_master* master, thread_func func, void* arg, int fd,
                               const char* name, const char* file, int line);

/* Calls `func` once, `seconds` (0 or more) from now. Otherwise as funcname_thread_add_read. */
void* funcname_thread_add_timer(struct thread_master* master, thread_func func, void* arg,
                                long seconds, const char* name, const char* file, int line);

/*
 * Binds `count` signals to their handlers. The table is read during the call only. The handler of a
 * signal that came since hal_init() may be called before this returns.
 */
void signal_init(struct thread_master* master, int count, const struct loop_signal* signals);

/*
 * Runs callbacks for ever; returns only when the loop itself fails. Before the first callback it
 * has the saved configuration applied (host_init in vty.h).
 */
void thread_main(struct thread_master* master);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_LOOP_H */
