// Shared set-up of the storage tests: sparse images, formatting, record builders.
#ifndef RINGREC_TESTS_STORAGE_VOLUME_FIXTURE_H
#define RINGREC_TESTS_STORAGE_VOLUME_FIXTURE_H

#include <ringrec/fs_db.h>
#include <string.h>

#include <string>

#include "kit/kit.h"

namespace storage_test {

const long long MiB = 1LL << 20;
const long long kRoot = 0x400000;
const long long kRing = 0x800000;

// Formats a fresh sparse image of `bytes` with the wall clock at `wall`; messages of
// the failing first open (no superblock yet) are swallowed.
inline void format_image(const std::string& path, long long bytes) {
  kit::make_image(path, bytes);
  kit::StderrCapture quiet;
  fs_db d;
  d.open(0, path.c_str(), "w");
  d.format();
  d.close();
}

inline uint16_t xor_words(const std::string& b) {
  uint16_t x = 0;
  for (size_t i = 0; i + 1 < b.size(); i += 2)
    x ^= static_cast<uint16_t>(static_cast<unsigned char>(b[i]) |
                               (static_cast<unsigned char>(b[i + 1]) << 8));
  return x;
}

// gtest binds references to what it compares; packed 64-bit fields are unaligned, so
// they are copied into a plain value first.
inline long long v64(long long x) { return x; }

inline long long entry_at(long long xoff, int i) { return xoff + 16 + 324LL * i; }

// A volume on a temporary sparse image with fake clocks, open for writing.
struct Volume {
  kit::TempDir dir;
  std::string img;
  kit::FakeClock clock;
  fs_db db;
  long long bytes;

  explicit Volume(long long bytes_ = 64 * MiB, long long wall = 1700000000)
      : img(dir / "sda"), clock(wall, 1000000), bytes(bytes_) {
    format_image(img, bytes);
    kit::StderrCapture quiet;
    db.open(0, img.c_str(), "w");
  }
  ~Volume() { db.close(); }

  entryX_t root() {
    entryX_t x;
    kit::StderrCapture quiet;
    if (db.x_read(0, x) != 0) ADD_FAILURE() << "root header";
    return x;
  }
  sb_t disk_sb() { return kit::get<sb_t>(img, 0); }
  unsigned key() { return db.sb.key; }
};

}  // namespace storage_test

#endif
