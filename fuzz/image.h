// Shared by the fuzz targets: a scratch image in memory-backed storage, rebuilt for
// every input, and a quiet, pause-free system-call table.
#ifndef RINGREC_FUZZ_IMAGE_H
#define RINGREC_FUZZ_IMAGE_H

#include <fcntl.h>
#include <ringrec/fs_io.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace fuzz {

const long long kDevice = 32LL << 20;  // a 20 MiB ring

// Where the image lives: /dev/shm when there is one, else $TMPDIR or /tmp.
inline std::string scratch(const char* name) {
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : getenv("TMPDIR");
  if (dir == nullptr || *dir == '\0') dir = "/tmp";
  return std::string(dir) + "/ringrec-fuzz-" + std::to_string(getpid()) + "-" + name;
}

// Empties the image (a check's repair may have written anywhere) and makes it a
// device of kDevice bytes again.
inline int reset(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ftruncate(fd, kDevice) != 0) abort();
  return fd;
}

// Lays `n` bytes of `data` at `off`, the rest of `room` bytes zero.
inline void lay(int fd, long long off, const unsigned char* data, size_t n, size_t room) {
  std::string b(room, '\0');
  if (n > room) n = room;
  if (n > 0) memcpy(&b[0], data, n);
  if (pwrite(fd, b.data(), b.size(), off) != static_cast<ssize_t>(b.size())) abort();
}

// Cuts an input into the places a small volume keeps its records: the superblock (36
// bytes at 0), the root table (4096 bytes at 0x400000) and the starts of the first three
// 4 MiB regions of the ring (8192 bytes each at 0x800000, 0xC00000, 0x1000000), where a
// recorder puts an hour's minute table and its first minutes. The volume and reader
// targets share the layout, and with it their seeds.
inline void lay_volume(int fd, const unsigned char* data, size_t size) {
  struct piece {
    long long off;
    size_t room;
  };
  static const piece pieces[] = {
      {0, 36}, {0x400000, 4096}, {0x800000, 8192}, {0xC00000, 8192}, {0x1000000, 8192}};
  size_t at = 0;
  for (const piece& p : pieces) {
    lay(fd, p.off, data + (at < size ? at : size), at < size ? size - at : 0, p.room);
    at += p.room;
  }
}

// Writes through the system-call table, counted: a read-only open must make none.
inline long long& writes() {
  static long long n = 0;
  return n;
}
inline long long (*&plain_pwrite())(int, const void*, int, long long) {
  static long long (*f)(int, const void*, int, long long) = nullptr;
  return f;
}
inline long long counting_pwrite(int fd, const void* b, int n, long long off) {
  writes()++;
  return plain_pwrite()(fd, b, n, off);
}
inline void count_writes() {
  if (plain_pwrite() != nullptr) return;
  plain_pwrite() = fs_sys.pwrite;
  fs_sys.pwrite = counting_pwrite;
}

// The retry pauses cost 100 ms each: a fuzzer must not wait for them.
inline int no_pause(unsigned int) { return 0; }

inline void quiet_table() {
  fs_sys.usleep = no_pause;
  unsetenv("RINGREC_ROOT");
}

}  // namespace fuzz

#endif
