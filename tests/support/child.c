/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A child for tests that run programs: child BEHAVIOUR ARGUMENTS..., see ChildBehaviour.h. It exits with 99 if it
 * cannot do what was requested.
 */
#if defined(__APPLE__)
#define _DARWIN_C_SOURCE
#else
#define _DEFAULT_SOURCE
#endif

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "ChildBehaviour.h"

enum { FAILED = 99, HIGHEST_DESCRIPTOR = 1023, HIGHEST_SIGNAL = 31 };

static void put(int stream, const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = write(stream, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) _exit(FAILED);
    bytes += written;
    count -= (size_t)written;
  }
}

static void put_text(int stream, const char* text) {
  put(stream, text, strlen(text));
}

static void wait_for(const char* milliseconds) {
  const long time = strtol(milliseconds, NULL, 10);
  struct timespec rest = {time / 1000, time % 1000 * 1000000};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) continue;
}

static void wait_until_read(int stream) {
  int unread = 1;
#if defined(__APPLE__)
  wait_for("300"); /* here, the writing end does not report the unread bytes */
#endif
  while (unread > 0) {
    if (ioctl(stream, FIONREAD, &unread) != 0) _exit(FAILED);
    wait_for("1");
  }
}

static void flood(long count) {
  char out[4096];
  char err[4096];
  memset(out, 'o', sizeof out);
  memset(err, 'e', sizeof err);
  while (count > 0) {
    const size_t part = count < (long)sizeof out ? (size_t)count : sizeof out;
    put(STDOUT_FILENO, out, part);
    put(STDERR_FILENO, err, part);
    count -= (long)part;
  }
}

static void print_state(void) {
  sigset_t blocked;
  printf("descriptors");
  for (int i = 0; i <= HIGHEST_DESCRIPTOR; ++i) {
    if (fcntl(i, F_GETFD) >= 0) printf(" %d", i);
  }
  printf("\nblocked");
  sigprocmask(SIG_BLOCK, NULL, &blocked);
  for (int i = 1; i <= HIGHEST_SIGNAL; ++i) {
    if (sigismember(&blocked, i) == 1) printf(" %d", i);
  }
  printf("\nignored");
  for (int i = 1; i <= HIGHEST_SIGNAL; ++i) {
    struct sigaction action;
    if (sigaction(i, NULL, &action) == 0 && action.sa_handler == SIG_IGN) printf(" %d", i);
  }
  printf("\n");
  fflush(stdout);
}

static void look_at_input(const char* milliseconds) {
  struct pollfd input = {STDIN_FILENO, POLLIN, 0};
  char byte;
  if (poll(&input, 1, atoi(milliseconds)) == 0) {
    put_text(STDOUT_FILENO, "open");
  } else {
    put_text(STDOUT_FILENO, read(STDIN_FILENO, &byte, 1) == 0 ? "ended" : "data");
  }
}

int main(int count, char** arguments) {
  const int behaviour = count < 2 ? 0 : atoi(arguments[1]);
  /* Missing arguments are empty strings. */
  const char* first = count > 2 ? arguments[2] : "";
  const char* second = count > 3 ? arguments[3] : "";
  const char* third = count > 4 ? arguments[4] : "";

  switch (behaviour) {
    case CHILD_PRINT:
      put_text(STDOUT_FILENO, first);
      put_text(STDERR_FILENO, second);
      return atoi(third);
    case CHILD_FLOOD:
      flood(strtol(first, NULL, 10));
      return 0;
    case CHILD_SPLIT:
      put_text(atoi(first), second);
      wait_until_read(atoi(first));
      put_text(atoi(first), third);
      return 0;
    case CHILD_ARGUMENTS:
      for (int i = 2; i < count; ++i) {
        put_text(STDOUT_FILENO, "[");
        put_text(STDOUT_FILENO, arguments[i]);
        put_text(STDOUT_FILENO, "]");
      }
      return 0;
    case CHILD_SIGNAL:
      raise(atoi(first));
      return FAILED;
    case CHILD_SLOW_EXIT:
      close(STDOUT_FILENO);
      close(STDERR_FILENO);
      wait_for(first);
      return atoi(second);
    case CHILD_CLOSE_ERROR:
      close(STDERR_FILENO);
      wait_for(second);
      put_text(STDOUT_FILENO, first);
      return 0;
    case CHILD_GRANDCHILD:
      if (fork() != 0) return 0;
      wait_for(second);
      put_text(STDOUT_FILENO, first);
      return 0;
    case CHILD_STUBBORN:
      signal(SIGTERM, SIG_IGN);
      put_text(STDOUT_FILENO, first);
      wait_for(second);
      return atoi(third);
    case CHILD_STAY:
      put_text(STDOUT_FILENO, first);
      wait_for(second);
      return 0;
    case CHILD_STATE:
      print_state();
      return 0;
    case CHILD_INPUT:
      look_at_input(first);
      return 0;
    default:
      return FAILED;
  }
}
