// fs_db life cycle, the superblock and table headers.
#include <ringrec/app_interface.h>
#include <ringrec/fs_db.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "runtime/runtime.h"
#include "storage/volume_layout.h"

using namespace vol;

namespace vol {

int walk_limit(fs_io* io, const sb_t& sb, long long xoff, int num) {
  if (num <= 0) return num;
  long long size = sb.size;
  long long end = xoff == kRootHeader ? kRingStart : add64(kRingStart, size);
  long long dev = io->seek(0, SEEK_END);
  if (dev < end) end = dev;
  long long first = entry_pos(xoff, 0);
  if (first < 0 || end < 0 || end - first < static_cast<long long>(sizeof(entry_t))) return 0;
  long long fit = (end - first) / static_cast<long long>(sizeof(entry_t));
  return fit < num ? static_cast<int>(fit) : num;
}

bool name_eq(const char* field, const char* name) {
  for (int k = 0; k < 32; k++) {
    if (field[k] != name[k]) return false;
    if (field[k] == '\0') return true;
  }
  return name[32] == '\0';
}

}  // namespace vol

fs_db::fs_db()
    : hdd(0),
      io(new fs_io()),
      x_err_off(0),
      x_err_cnt(0),
      e_err_off(0),
      e_err_cnt(0),
      grow_time(utime()),
      grow_mul(1),
      err(0) {
  memset(&sb, 0, sizeof sb);
}

fs_db::~fs_db() { delete io; }

int fs_db::open(int n, const char* path, const char* mode) {
  hdd = n;
  // A failed device open is not looked at here: it shows as a failed superblock read.
  io->open(path, mode);
  int r = sb_read(sb);
  if (r == 0 && mode != nullptr && strchr(mode, 'w') != nullptr) r = chkdsk();
  if (r != 0) {
    err = 2;
    memset(&sb, 0, sizeof sb);
    return -1;
  }
  return 0;
}

int fs_db::format() {
  memset(&sb, 0, sizeof sb);
  uint32_t ctime = static_cast<uint32_t>(fs_time());
  sb.ctime = ctime;
  sb.key = static_cast<uint16_t>(checksum(&ctime, 2));
  err = 0;
  sb.flag = 0;
  // The ring takes what is left after the 8 MiB in front and at least 4 MiB behind,
  // in whole 4 MiB units (division truncates towards zero, also for tiny devices).
  long long size = sub64(io->seek(0, SEEK_END), kOutside) / kUnit * kUnit;
  // Test mode confines recording to the first 3 GiB of the disk.
  if (fs_access(TEST_MODE_MARKER, R_OK) == 0) size = 0xC0000000LL;
  sb.size = size;
  sb.head = kRingStart;
  sb.tail = kRingStart;
  if (sb_write(sb) != 0) {
    fs_log_hdd("format", 54, hdd, "ERR");
    err = 2;
    return -1;
  }
  entryX_t h;
  memset(&h, 0, sizeof h);
  if (x_write(kRootHeader, h) != 0) {
    fs_log_hdd("format", 62, hdd, "ERR");
    err = 2;
    return -1;
  }
  if (sb_read(sb) != 0) {
    fs_log_hdd("format", 68, hdd, "ERR");
    memset(&sb, 0, sizeof sb);
    err = 2;
    return -1;
  }
  return 0;
}

int fs_db::close() {
  io->close();
  memset(&sb, 0, sizeof sb);
  return 0;
}

int fs_db::error() { return err; }

unsigned fs_db::q_key() { return sb.ctime; }

// XOR of little-endian 16-bit words, assembled byte by byte so the result does not
// depend on the host's byte order or on the alignment of `data`.
unsigned fs_db::checksum(const void* data, int words) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  unsigned x = 0;
  for (int i = 0; i < words; i++) x ^= static_cast<unsigned>(p[2 * i] | (p[2 * i + 1] << 8));
  return x & 0xFFFF;
}

namespace {

// The tests of a superblock copy, in their fixed order, each with its own message.
bool sb_valid(int hdd, const sb_t& s) {
  long long size = s.size;
  if (size == 0) {
    fs_log_hdd("sb_read", 464, hdd, "ERR");
    return false;
  }
  if (s.flag > 2) {
    fs_log_hdd("sb_read", 468, hdd, "ERR");
    return false;
  }
  uint32_t ctime = s.ctime;
  unsigned key = fs_db::checksum(&ctime, 2);
  if (s.key != key) {
    fs_log_hdd("sb_read", 472, hdd, "ERR: 0x%X, 0x%X != 0x%X", ctime, static_cast<unsigned>(s.key),
               key);
    return false;
  }
  if (fs_db::checksum(&s, kSbWords) != 0) {
    fs_log_hdd("sb_read", 476, hdd, "ERR");
    return false;
  }
  return true;
}

}  // namespace

int fs_db::sb_read(sb_t& s) {
  if (io->read(&s, sizeof s, 0) == 0 && sb_valid(hdd, s)) return 0;
  // The secondary copy is looked for 4 MiB before the end of the device; on devices
  // whose size is not a multiple of 4 MiB this differs from where sb_write puts it.
  long long alt = sub64(io->seek(0, SEEK_END), kSecondaryBack);
  if (io->read(&s, sizeof s, alt) == 0 && sb_valid(hdd, s)) return 0;
  return -1;
}

int fs_db::sb_write(sb_t& s) {
  s.checksum = 0;
  s.checksum = static_cast<uint16_t>(checksum(&s, kSbWords));
  if (io->write(&s, sizeof s, 0) != 0) {
    fs_log_hdd("sb_write", 491, hdd, "ERR, WRITE");
    return -1;
  }
  long long size = s.size;
  if (io->write(&s, sizeof s, add64(size, kRingStart)) != 0) {
    fs_log_hdd("sb_write", 496, hdd, "ERR, WRITE");
    return -1;
  }
  io->fsync();
  return 0;
}

int fs_db::x_read(long long off, entryX_t& x) {
  if (off == 0) off = kRootHeader;
  for (;;) {
    if (off < kRootHeader) {
      // The retry count comes before the disk number in this line.
      fs_log("x_read", 572, "HDD%d: ERR %d, OFFSET", x_err_cnt, hdd);
    } else if (io->read(&x, sizeof x, off) != 0) {
      fs_log_hdd("x_read", 576, hdd, "ERR %d, READ", x_err_cnt);
    } else if (x.key != sb.key) {
      fs_log_hdd("x_read", 580, hdd, "ERR %d, magic=0x%X/0x%X", x_err_cnt,
                 static_cast<unsigned>(x.key), static_cast<unsigned>(sb.key));
    } else if (x.offset != off) {
      long long stored = x.offset;
      fs_log_hdd("x_read", 584, hdd, "ERR %d, offset=%lld/%lld", x_err_cnt, stored, off);
    } else if (checksum(&x, kHeaderWords) != sb.key) {
      fs_log_hdd("x_read", 588, hdd, "ERR %d, CHECKSUM", x_err_cnt);
    } else {
      // Written only when set: a backup reads the volume the recorder is writing,
      // and a good read must not store into the state the other thread reads.
      if (x_err_cnt != 0) x_err_cnt = 0;
      return 0;
    }
    // The memory outlives the call: a header that failed before is given up on after
    // one more attempt (and chkdsk arms it to allow exactly one).
    if (off == x_err_off) {
      if (++x_err_cnt > 2) return -1;
    } else {
      x_err_off = off;
      x_err_cnt = 1;
    }
    fs_usleep(kRetryPause);
  }
}

int fs_db::x_write(long long off, entryX_t& x) {
  if (off < kRootHeader) {
    fs_log_hdd("x_write", 609, hdd, "ERR, OFFSET");
    return -1;
  }
  x.key = sb.key;
  x.offset = off;
  x.checksum = sb.key;
  x.checksum = static_cast<uint16_t>(checksum(&x, kHeaderWords));
  if (io->write(&x, sizeof x, off) != 0) {
    fs_log_hdd("x_write", 619, hdd, "ERR, WRITE");
    return -1;
  }
  io->fsync();
  return 0;
}
