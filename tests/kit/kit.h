// Shared test fixtures: temporary directories and boards, stderr capture, image byte
// editing, controllable clocks, and the write recorder behind the crash suites.
#ifndef RINGREC_TESTS_KIT_H
#define RINGREC_TESTS_KIT_H

#include <ringrec/fs_io.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "sim/board.h"

namespace kit {

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

// A simulated board in a temporary directory, selected through RINGREC_ROOT for the
// object's lifetime. Disks are named sda, sdb, ...
class Board {
 public:
  explicit Board(const std::vector<sim::disk_spec>& disks);
  Board(int disks, long long bytes);  // plain internal disks with a model text
  ~Board();
  const std::string& root() const { return dir_.path(); }
  std::string image(const std::string& disk) const { return root() + "/dev/" + disk; }
  void touch(const std::string& logical) const;  // creates a marker file
  void unlink(const std::string& logical) const;

 private:
  TempDir dir_;
};

// Creates a sparse file of the given size.
void make_image(const std::string& path, long long bytes);

// Captures everything written to file descriptor 2 until take() or destruction.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  std::string take();  // stops capturing and returns the text

 private:
  int saved_ = -1;
  std::string file_;
  bool done_ = false;
  std::string text_;
};

// A whole file's bytes ("" when it cannot be read), and a file made of bytes.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// The application's progress semaphore set (percent, result) as the application makes
// it: two semaphores keyed by the board's "/." and project 66; removed afterwards.
struct SemSet {
  int id = -1;
  explicit SemSet(const std::string& root);
  ~SemSet();
  int get(int n) const;
};

// Number of occurrences of needle in hay.
int count(const std::string& hay, const std::string& needle);

// Byte access to an image file.
std::string read_at(const std::string& path, long long off, int n);
void write_at(const std::string& path, long long off, const void* data, int n);
template <typename T>
T get(const std::string& path, long long off) {
  T v;
  std::string b = read_at(path, off, sizeof(T));
  memcpy(&v, b.data(), sizeof(T));
  return v;
}

// Controllable clocks and pauses through the system-call table. While a FakeClock
// lives, time() returns wall, utime() returns mono_ms, and usleep only counts.
class FakeClock {
 public:
  FakeClock(long long wall, long long mono_ms);
  ~FakeClock();
  static long long wall;
  static long long mono_ms;
  static int sleeps;  // usleep calls since construction
};

// Records every positioned write and every fsync reaching any device while it lives,
// keyed by the path of the descriptor. Recorders nest: a second one started while the
// first lives records on its own until it stops (used to capture a check's repairs
// inside a recorded scenario). replay() rebuilds an image as if only the first k
// writes to it had reached the disk: a power cut after write k with every earlier
// write kept (crash.h gives the subsets a real disk may keep).
class WriteRecorder {
 public:
  struct Op {
    std::string path;
    long long off;
    std::string bytes;
  };
  WriteRecorder();
  ~WriteRecorder();
  void stop();
  const std::vector<Op>& ops() const { return ops_; }  // the writes, in order
  // Indices into ops() of the writes to path, in order.
  std::vector<size_t> writes_to(const std::string& path) const;
  // For every fsync of path that returned: how many writes to path preceded it.
  std::vector<size_t> syncs_of(const std::string& path) const;
  // Creates dst as a sparse file of `bytes`, copies base over it when base is not
  // empty, then applies the first k writes to `path` (k counted among those writes).
  void replay(const std::string& path, const std::string& base, const std::string& dst,
              long long bytes, size_t k) const;

  // Hooks' state; internal.
  std::vector<Op> ops_;
  std::vector<std::pair<std::string, size_t>> syncs_;  // path, ops_.size() at its return
  WriteRecorder* prev_ = nullptr;
  long long (*next_pwrite_)(int, const void*, int, long long) = nullptr;
  int (*next_fsync_)(int) = nullptr;
  bool live_ = false;
};

// Copies an image keeping its holes (only the data ranges of base are read), so a
// 64 MiB image that holds a few MiB costs a few MiB per copy. An empty base makes dst
// an all-hole file. dst is `bytes` long either way.
void copy_image(const std::string& base, const std::string& dst, long long bytes);

// Makes positioned writes fail (return -1) from the n-th call on (0-based), counting
// from construction; reads keep working. Used to inject a failing disk.
class FailWrites {
 public:
  explicit FailWrites(long long after, const std::string& path_substr = std::string());
  ~FailWrites();
};

}  // namespace kit

#endif
