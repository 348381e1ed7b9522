// A preloaded library that stands between zarn-img and the system calls that
// write regular files, for the tool's kill-at-every-write test:
//
//   ZARN_FAULT_AT=N         the Nth write call on a regular file (from 1) is
//                           the fault; unset or 0: none, only counting
//   ZARN_FAULT_MODE=kill    the process dies by SIGKILL before that write
//   ZARN_FAULT_MODE=enospc  that write and every later one fail with ENOSPC,
//                           as on a full disk
//   ZARN_FAULT_MODE=eio     the same with EIO, and from then on every fsync
//                           and fdatasync fails with EIO too
//   ZARN_FAULT_COUNT_FILE=F at exit the number of write calls counted is
//                           written to F
//   ZARN_WRITE_DELAY_US=N   every counted write waits N microseconds first,
//                           as on a slow disk, so a signal lands mid-way
//   ZARN_FAULT_SKIP_SYNC=1  fsync and fdatasync return at once: the page
//                           cache outlives a killed process, so waiting for
//                           the device shows nothing that such a test sees
//
// Writes to pipes, terminals and devices pass uncounted, so stdout and stderr
// don't move the points.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

enum { kModeKill, kModeNoSpace, kModeIOError };

static atomic_long gCalls;
static atomic_int gFailing;
static long gFaultAt;
static int gMode;
static const char* gCountFile;
static int gSkipSync;
static long gDelayMicroseconds;

__attribute__((constructor)) static void readSettings(void) {
  const char* at = getenv("ZARN_FAULT_AT");
  const char* mode = getenv("ZARN_FAULT_MODE");
  gFaultAt = at ? atol(at) : 0;
  gMode = mode && strcmp(mode, "enospc") == 0 ? kModeNoSpace : mode && strcmp(mode, "eio") == 0 ? kModeIOError
                                                                                                    : kModeKill;
  gCountFile = getenv("ZARN_FAULT_COUNT_FILE");
  const char* skipSync = getenv("ZARN_FAULT_SKIP_SYNC");
  gSkipSync = skipSync && strcmp(skipSync, "1") == 0;
  const char* delay = getenv("ZARN_WRITE_DELAY_US");
  gDelayMicroseconds = delay ? atol(delay) : 0;
}

// Raw system calls: the report must neither count itself nor depend on
// what the hooks below do.
__attribute__((destructor)) static void reportCount(void) {
  if (!gCountFile) return;
  const int fd = (int)syscall(SYS_openat, AT_FDCWD, gCountFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  char text[32];
  const int length = snprintf(text, sizeof text, "%ld\n", atomic_load(&gCalls));
  syscall(SYS_write, fd, text, (size_t)length);
  syscall(SYS_close, fd);
}

static int isRegularFile(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// Whether this write call is to fail; sets errno then. Dies here in kill mode.
static int isFault(int fd) {
  if (!isRegularFile(fd)) return 0;
  const long call = atomic_fetch_add(&gCalls, 1) + 1;
  if (gDelayMicroseconds > 0) usleep((useconds_t)gDelayMicroseconds);
  if (gFaultAt <= 0 || (call < gFaultAt && !atomic_load(&gFailing))) return 0;
  if (gMode == kModeKill) raise(SIGKILL);
  atomic_store(&gFailing, 1);
  errno = gMode == kModeNoSpace ? ENOSPC : EIO;
  return 1;
}

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

ssize_t write(int fd, const void* data, size_t size) {
  if (isFault(fd)) return -1;
  return NEXT(write)(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  if (isFault(fd)) return -1;
  return NEXT(pwrite)(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
  if (isFault(fd)) return -1;
  return NEXT(pwrite64)(fd, data, size, offset);
}

ssize_t writev(int fd, const struct iovec* parts, int count) {
  if (isFault(fd)) return -1;
  return NEXT(writev)(fd, parts, count);
}

static int isFailedSync(void) {
  if (gMode != kModeIOError || !atomic_load(&gFailing)) return 0;
  errno = EIO;
  return 1;
}

int fsync(int fd) {
  if (isFailedSync()) return -1;
  return gSkipSync ? 0 : NEXT(fsync)(fd);
}

int fdatasync(int fd) {
  if (isFailedSync()) return -1;
  return gSkipSync ? 0 : NEXT(fdatasync)(fd);
}
