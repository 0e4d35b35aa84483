// One open disk device (or image file) addressed by 64-bit byte offsets, and the
// system-call table through which the library reaches devices and clocks.
#ifndef RINGREC_FS_IO_H
#define RINGREC_FS_IO_H

#include <pthread.h>
#include <time.h>

// Every positioned transfer, fsync, clock reading and retry pause of the library goes
// through this table. The defaults are the plain C library calls; tests swap entries to
// inject errors, cut the write stream (a power loss), skip pauses or set the clocks, and
// the capture simulator moves the wall clock with simulated capture time.
struct fs_sys_t {
  long long (*pread)(int fd, void* buf, int n, long long off);
  long long (*pwrite)(int fd, const void* buf, int n, long long off);
  int (*fsync)(int fd);
  time_t (*time)(time_t* t);                                 // wall clock, as time(2)
  int (*clock_gettime)(clockid_t clk, struct timespec* ts);  // behind utime()
  int (*usleep)(unsigned int us);                            // retry pauses
};

extern fs_sys_t fs_sys;

// Puts every entry of fs_sys back to the C library.
void fs_sys_reset();

class fs_io {
public:
  int fd;
  pthread_mutex_t mutex;

  fs_io();
  ~fs_io();

  int open(const char* path, const char* mode);
  int read(void* buf, int n, long long off);
  int write(const void* buf, int n, long long off);
  long long seek(long long off, int whence);
  int fsync();
  int close();
};

// Monotonic milliseconds, and milliseconds elapsed since t0 (never negative).
long long utime();
long long ucost(long long t0);

#endif
