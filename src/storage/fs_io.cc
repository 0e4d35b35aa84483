#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <ringrec/fs_io.h>

#include "runtime/runtime.h"

fs_io::fs_io() : fd(-1) { pthread_mutex_init(&mutex, nullptr); }

// The owning volume creates and deletes its fs_io; closing is its business, and the
// mutex is left alone as the object is going away with no transfer in flight.
fs_io::~fs_io() {}

int fs_io::open(const char* path, const char* mode) {
  int flags = (mode != nullptr && strchr(mode, 'w') != nullptr) ? O_RDWR : O_RDONLY;
  fd = ::open(fs_path(path).c_str(), flags);
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd >= 0 ? 0 : -1;
}

int fs_io::read(void* buf, int n, long long off) {
  pthread_mutex_lock(&mutex);
  long long got = fs_sys.pread(fd, buf, n, off);
  pthread_mutex_unlock(&mutex);
  if (got != n) {
    fs_log("read", 54, "ERROR: READ");
    return -1;
  }
  return 0;
}

int fs_io::write(const void* buf, int n, long long off) {
  pthread_mutex_lock(&mutex);
  long long put = fs_sys.pwrite(fd, buf, n, off);
  pthread_mutex_unlock(&mutex);
  if (put != n) {
    fs_log("write", 80, "ERROR: WRITE");
    return -1;
  }
  return 0;
}

long long fs_io::seek(long long off, int whence) {
  return ::lseek64(fd, static_cast<off64_t>(off), whence);
}

int fs_io::fsync() {
  pthread_mutex_lock(&mutex);
  fs_sys.fsync(fd);
  pthread_mutex_unlock(&mutex);
  return 0;
}

// A descriptor of 0 is deliberately left open: it is never one this object opened.
int fs_io::close() {
  if (fd > 0) ::close(fd);
  fd = -1;
  return 0;
}

long long utime() {
  struct timespec ts;
  fs_sys.clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long long ucost(long long t0) {
  long long d = utime() - t0;
  return d > 0 ? d : 0;
}
