// Data regions: reading, writing with growth, and the room queries.
#include <ringrec/fs_db.h>
#include <string.h>

#include "runtime/runtime.h"
#include "storage/volume_layout.h"

using namespace vol;

namespace {
const long long kQuickGrowth = 3000;  // ms: growths closer than this double the step
const int kMaxMul = 64;               // 64 units: steps stop at 256 MiB
}  // namespace

int fs_db::d_read(entry_t& e, int off, int len, void* buf) {
  int size = e.size;
  if (len < 0 || static_cast<long long>(off) + len > size) {
    fs_log_hdd("d_read", 851, hdd, "ERR, READ, %d, %d, %d", len, off, size);
    // A reader following a growing recording picks up the new size for its next try;
    // this call fails whatever the refreshed size says.
    entryX_t x;
    long long xoff = e.xoffset;
    if (x_read(xoff, x) != 0) {
      fs_log_hdd("d_read", 854, hdd, "ERR");
      return -1;
    }
    // Read into a copy so a failed refresh leaves the caller's entry as it was
    // rather than holding the bytes that failed validation.
    entry_t fresh;
    if (e_read(x, e.idx, fresh) != 0) {
      fs_log_hdd("d_read", 858, hdd, "ERR");
      return -1;
    }
    e = fresh;
    return -1;
  }
  long long region = e.offset;
  if (io->read(buf, len, add64(region, off)) != 0) {
    fs_log_hdd("d_read", 865, hdd, "ERR, READ");
    return -1;
  }
  return 0;
}

int fs_db::d_write(entry_t& e, int off, int len, const void* buf) {
  long long end = static_cast<long long>(off) + len;
  if (end > e.max) {
    // Only the newest region can grow: it ends at the tail of the ring.
    long long now = utime();
    if (now - grow_time <= kQuickGrowth) {
      grow_mul *= 2;
      if (grow_mul > kMaxMul - 1) grow_mul = kMaxMul;
    }
    grow_time = now;
    long long step = grow_mul * kUnit;
    if (q_free() < step) step = kUnit;
    // max is a 32-bit field; the sum is formed in 64 bits and stored as the field
    // holds it (a region never approaches 2 GiB in use).
    long long max = static_cast<long long>(e.max) + step;
    e.max = static_cast<int32_t>(max);
    long long tail = sb.tail;
    long long size = sb.size;
    tail = add64(tail, step);
    if (tail >= add64(kRingStart, size)) tail = kRingStart;
    sb.tail = tail;
    if (sb_write(sb) != 0) return -1;
    if (e_flush(e) != 0) return -1;
  }
  long long region = e.offset;
  if (io->write(buf, len, add64(region, off)) != 0) {
    fs_log_hdd("d_write", 826, hdd, "ERR, WRITE");
    return -1;
  }
  // Kept in memory only; it reaches the disk with the next growth or e_flush.
  if (end > e.size) e.size = static_cast<int32_t>(end);
  return 0;
}

int fs_db::d_query(entry_t& e, int off, int len) {
  long long region = e.offset;
  long long size = sb.size;
  if (add64(region, static_cast<long long>(off) + len) > add64(kRingStart, size)) {
    fs_log_hdd("d_query", 787, hdd, "QUERY, D_QUERY_FU");
    return -2;
  }
  if (static_cast<long long>(off) + len > e.max && q_free() <= kUnit) {
    fs_log_hdd("d_query", 792, hdd, "QUERY, D_QUERY_NO");
    return -1;
  }
  return 0;
}

int fs_db::f_query() {
  if (q_free() <= 2 * kUnit) {
    fs_log_hdd("f_query", 560, hdd, "QUERY, F_QUERY_NO");
    return -1;
  }
  return 0;
}
