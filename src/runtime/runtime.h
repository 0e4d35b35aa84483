// Library-wide helpers: the path resolver, diagnostics and the clocks. Internal.
#ifndef RINGREC_RUNTIME_H
#define RINGREC_RUNTIME_H

#include <stdio.h>
#include <string>

#include <ringrec/fs_io.h>

// Maps a logical absolute path ("/proc/partitions", "/dev/sda", "/tmp/hdd") to the
// one to use: below $RINGREC_ROOT when that is set and not empty, read at each call,
// so a simulated board in a directory behaves like the real one. Relative paths are
// returned unchanged. Messages keep showing the logical path.
std::string fs_path(const char* logical);

// access(2), fopen(3) and realpath(3) through the resolver. fs_realpath returns the
// resolved target with the root prefix taken off again, so callers compare it with
// logical paths such as "/sys/devices/platform/...".
int fs_access(const char* logical, int mode);
FILE* fs_fopen(const char* logical, const char* mode);
bool fs_realpath(const char* logical, std::string& out);

// One diagnostic line on standard error, written with a single write(2) so lines from
// several threads never interleave. The text is formatted after the "%s[%d]: " prefix
// (operation name and its fixed line number); a newline is added when missing.
void fs_log(const char* fn, int line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
// The same with "HDD%d: " after the prefix: every volume message.
void fs_log_hdd(const char* fn, int line, int hdd, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
// A whole line formatted as given, without prefix (listings).
void fs_log_raw(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The wall clock and the retry pause, through the system-call table.
inline time_t fs_time() { return fs_sys.time(nullptr); }
inline void fs_usleep(unsigned us) { fs_sys.usleep(us); }

#endif
