/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The event loop of the stand-in SDK: poll(2) over two tables of one-shot registrations.
 *
 * With SDK_SECONDS=N in the environment it delivers SIGTERM to the daemon after N timers were run,
 * so that a test can see the daemon end in good order.
 */
#include "platform/loop.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include "platform/log.h"

enum { READERS = 32, TIMERS = 16, SIGNALS = 8 };

struct reader {
  thread_func func; /* NULL: the place is free */
  void* arg;
  int fd;
};

struct timer {
  thread_func func; /* NULL: the place is free */
  void* arg;
  long long due; /* milliseconds of the monotonic clock */
};

struct thread_master {
  struct reader readers[READERS];
  struct timer timers[TIMERS];
};

static struct thread_master the_master;
static struct loop_signal signals[SIGNALS];
static int signal_count;
static volatile sig_atomic_t signal_pending;

static long long now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

struct thread_master* thread_master_create(void) {
  return &the_master;
}

void* funcname_thread_add_read(struct thread_master* master, thread_func func, void* arg, int fd,
                               const char* name, const char* file, int line) {
  (void)name;
  (void)file;
  (void)line;
  for (int i = 0; i < READERS; ++i) {
    if (master->readers[i].func == NULL) {
      master->readers[i] = (struct reader){func, arg, fd};
      return &master->readers[i];
    }
  }
  return NULL;
}

void* funcname_thread_add_timer(struct thread_master* master, thread_func func, void* arg,
                                long seconds, const char* name, const char* file, int line) {
  (void)name;
  (void)file;
  (void)line;
  for (int i = 0; i < TIMERS; ++i) {
    if (master->timers[i].func == NULL) {
      master->timers[i] = (struct timer){func, arg, now_ms() + seconds * 1000};
      return &master->timers[i];
    }
  }
  return NULL;
}

static void remember(int signo) {
  signal_pending = signo;
}

void signal_init(struct thread_master* master, int count, const struct loop_signal* table) {
  (void)master;
  for (int i = 0; i < count && i < SIGNALS; ++i) {
    signals[i] = table[i];
    signal(table[i].signo, remember);
  }
  signal_count = count < SIGNALS ? count : SIGNALS;
}

static void deliver(int signo) {
  for (int i = 0; i < signal_count; ++i) {
    if (signals[i].signo == signo) {
      signals[i].handler();
    }
  }
}

/* Runs the timers that are due; returns how many. */
static int run_timers(struct thread_master* master) {
  int ran = 0;
  for (int i = 0; i < TIMERS; ++i) {
    const struct timer timer = master->timers[i];
    if (timer.func != NULL && timer.due <= now_ms()) {
      struct thread thread = {master, timer.arg, -1};
      master->timers[i].func = NULL;
      timer.func(&thread);
      ++ran;
    }
  }
  return ran;
}

static void run_readers(struct thread_master* master) {
  struct pollfd polled[READERS];
  struct reader ready[READERS];
  for (int i = 0; i < READERS; ++i) {
    const struct reader* reader = &master->readers[i];
    polled[i] = (struct pollfd){reader->func != NULL ? reader->fd : -1, POLLIN, 0};
    ready[i] = *reader;
  }
  if (poll(polled, READERS, 50) <= 0) {
    return;
  }
  for (int i = 0; i < READERS; ++i) {
    if (polled[i].revents != 0 && ready[i].func != NULL) {
      struct thread thread = {master, ready[i].arg, ready[i].fd};
      master->readers[i].func = NULL;
      ready[i].func(&thread);
    }
  }
}

void thread_main(struct thread_master* master) {
  const char* limit = getenv("SDK_SECONDS");
  long left = limit != NULL ? atol(limit) : -1;
  for (;;) {
    if (signal_pending != 0) {
      const int signo = signal_pending;
      signal_pending = 0;
      deliver(signo);
    }
    run_readers(master);
    const int ran = run_timers(master);
    if (left > 0 && ran > 0 && (left -= ran) <= 0) {
      deliver(SIGTERM);
    }
  }
}
