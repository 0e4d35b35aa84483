#include <fcntl.h>
#include <unistd.h>

#include <ringrec/fs_io.h>

namespace {

long long sys_pread(int fd, void* buf, int n, long long off) {
  return ::pread64(fd, buf, static_cast<size_t>(n), static_cast<off64_t>(off));
}

long long sys_pwrite(int fd, const void* buf, int n, long long off) {
  return ::pwrite64(fd, buf, static_cast<size_t>(n), static_cast<off64_t>(off));
}

int sys_fsync(int fd) { return ::fsync(fd); }
time_t sys_time(time_t* t) { return ::time(t); }
int sys_clock_gettime(clockid_t clk, struct timespec* ts) { return ::clock_gettime(clk, ts); }
int sys_usleep(unsigned int us) { return ::usleep(us); }

const fs_sys_t kDefaults = {sys_pread,  sys_pwrite,        sys_fsync,
                            sys_time,   sys_clock_gettime, sys_usleep};

}  // namespace

fs_sys_t fs_sys = kDefaults;

void fs_sys_reset() { fs_sys = kDefaults; }
