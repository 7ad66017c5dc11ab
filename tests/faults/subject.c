/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A program with known system calls, for tests of the tracer and of the sweep: subject BEHAVIOUR FILE.
 *
 * Exit status: 0 success as far as the program knows, 2 it reports a failure, 99 unknown behaviour or wrong arguments.
 */
#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

enum { DONE = 0, FAILED = 2, MISUSED = 99, BLOCK = 100 };

static int open_file(const char* path, int flags) {
  return open(path, flags | O_CLOEXEC, 0644);
}

static void fill(char* block, char letter) {
  memset(block, letter, BLOCK);
}

/* Writes 100 bytes "a", 100 bytes "b" and 100 bytes "c". Prints each result. */
static int three_writes(const char* path) {
  char block[BLOCK];
  const int file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (file < 0) return FAILED;
  for (char letter = 'a'; letter <= 'c'; ++letter) {
    fill(block, letter);
    errno = 0;
    const ssize_t done = write(file, block, BLOCK);
    printf("%zd %d\n", done, errno);
  }
  close(file);
  return DONE;
}

/* Writes 100 bytes "a" and 100 bytes "b" from two buffers in one call, twice. The second call shows whether the tracer
 * restored the buffers. */
static int two_gathered_writes(const char* path) {
  char first[BLOCK];
  char second[BLOCK];
  fill(first, 'a');
  fill(second, 'b');
  const int file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (file < 0) return FAILED;
  struct iovec buffers[2] = {{first, BLOCK}, {second, BLOCK}};
  for (int i = 0; i < 2; ++i) printf("%zd\n", writev(file, buffers, 2));
  close(file);
  return DONE;
}

/* Reads 100 bytes. Prints the results of reading and closing. */
static int one_read(const char* path) {
  char block[BLOCK];
  const int file = open_file(path, O_RDONLY);
  if (file < 0) return FAILED;
  const ssize_t done = pread(file, block, BLOCK, 0);
  const int closed = close(file);
  printf("%zd %d %d\n", done, closed, fcntl(file, F_GETFD) < 0);
  return DONE;
}

/* Two children write, one after the other. */
static int children(const char* path) {
  for (char letter = 'a'; letter <= 'b'; ++letter) {
    const pid_t child = fork();
    if (child < 0) return FAILED;
    if (child == 0) {
      const int file = open_file(path, O_WRONLY | O_CREAT | O_APPEND);
      _exit(file >= 0 && write(file, &letter, 1) == 1 ? DONE : FAILED);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) return FAILED;
  }
  return DONE;
}

static void* write_in_thread(void* path) {
  const int file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
  const int is_done = file >= 0 && write(file, "thread", 6) == 6;
  close(file);
  return is_done ? path : NULL;
}

static int thread(const char* path) {
  pthread_t other;
  void* result = NULL;
  if (pthread_create(&other, NULL, write_in_thread, (void*)path) != 0) return MISUSED;
  pthread_join(other, &result);
  return result == path ? DONE : FAILED;
}

enum { THREADS = 8 };

struct share {
  const char* path;
  size_t size;
};

static void* write_share(void* given) {
  const struct share* share = given;
  const int file = open_file(share->path, O_WRONLY | O_CREAT | O_APPEND);
  const int is_done = file >= 0 && write(file, "threads!", share->size) == (ssize_t)share->size;
  return is_done ? given : NULL;
}

/* Starts threads at once. The first writes one byte, the second two... */
static int threads(const char* path) {
  pthread_t started[THREADS];
  struct share shares[THREADS];
  int is_done = 1;
  for (size_t i = 0; i < THREADS; ++i) {
    shares[i] = (struct share){path, i + 1};
    if (pthread_create(&started[i], NULL, write_share, &shares[i]) != 0) return MISUSED;
  }
  for (size_t i = 0; i < THREADS; ++i) {
    void* result = NULL;
    pthread_join(started[i], &result);
    is_done = is_done && result != NULL;
  }
  return is_done ? DONE : FAILED;
}

/* The parent writes and then waits for a child that never ends. */
static int endless(const char* path) {
  const pid_t child = fork();
  if (child == 0) {
    for (;;) pause();
  }
  const int file = open_file(path, O_WRONLY | O_CREAT);
  if (file < 0 || write(file, "x", 1) != 1) return FAILED;
  waitpid(child, NULL, 0);
  return DONE;
}

/* ---- Replacing a file's content: once correctly, and several times with a flaw that the sweep must find. */

static int write_halves(int file) {
  char block[BLOCK];
  fill(block, 'n');
  return write(file, block, BLOCK / 2) == BLOCK / 2 && write(file, block, BLOCK / 2) == BLOCK / 2;
}

static int sync_folder_of(const char* path) {
  char folder[4096];
  snprintf(folder, sizeof folder, "%s", path);
  *strrchr(folder, '/') = '\0';
  const int opened = open_file(folder, O_RDONLY | O_DIRECTORY);
  const int is_done = opened >= 0 && fsync(opened) == 0;
  close(opened);
  return is_done;
}

static int refuse(const char* message) {
  fprintf(stderr, "%s\n", message);
  return FAILED;
}

/* Writes a temporary file, syncs it and renames it into place. */
static int careful(const char* path) {
  char beside[4096];
  snprintf(beside, sizeof beside, "%s.new", path);
  const int file = open_file(beside, O_WRONLY | O_CREAT | O_TRUNC);
  if (file < 0 || !write_halves(file) || fsync(file) != 0 || rename(beside, path) != 0) {
    return refuse("nothing was written");
  }
  close(file);
  return sync_folder_of(path) ? DONE : refuse("the new file may be lost on a power failure");
}

static int unchecked(const char* path) {
  const int file = open_file(path, O_WRONLY | O_CREAT);
  write_halves(file);
  fsync(file);
  return DONE;
}

static int unsynced(const char* path) {
  const int file = open_file(path, O_WRONLY);
  return write_halves(file) ? DONE : refuse("a write failed");
}

/* Repeats a failed sync. Its success says nothing about the bytes that the failed sync lost. */
static int syncs_again(const char* path) {
  const int file = open_file(path, O_WRONLY);
  if (!write_halves(file)) return refuse("a write failed");
  return fsync(file) == 0 || fsync(file) == 0 ? DONE : refuse("the sync failed");
}

static int liar(const char* path) {
  const int file = open_file(path, O_WRONLY);
  if (!write_halves(file) || fsync(file) != 0) return refuse("nothing was written");
  return DONE;
}

static int leaves_lock(const char* path) {
  char lock[4096];
  snprintf(lock, sizeof lock, "%s.lock", path);
  if (open_file(lock, O_WRONLY | O_CREAT | O_EXCL) < 0) return refuse("somebody else has the lock");
  const int status = careful(path);
  unlink(lock);
  return status;
}

static int never_gives_up(const char* path) {
  while (careful(path) != DONE) pause();
  return DONE;
}

static int aborts(const char* path) {
  if (careful(path) != DONE) abort();
  return DONE;
}

struct behaviour {
  const char* name;
  int (*run)(const char* path);
};

static const struct behaviour behaviours[] = {
    {"three-writes", three_writes},
    {"two-gathered-writes", two_gathered_writes},
    {"one-read", one_read},
    {"children", children},
    {"thread", thread},
    {"threads", threads},
    {"endless", endless},
    {"careful", careful},
    {"unchecked", unchecked},
    {"unsynced", unsynced},
    {"syncs-again", syncs_again},
    {"liar", liar},
    {"leaves-lock", leaves_lock},
    {"never-gives-up", never_gives_up},
    {"aborts", aborts},
};

int main(int count, char** arguments) {
  if (count != 3) return MISUSED;
  for (size_t i = 0; i < sizeof behaviours / sizeof behaviours[0]; ++i) {
    if (strcmp(arguments[1], behaviours[i].name) == 0) return behaviours[i].run(arguments[2]);
  }
  return MISUSED;
}
