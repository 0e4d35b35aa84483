// Space accounting of the ring, the volume state flag, and recycling of whole root
// entries from the front of the root table.
#include <ringrec/fs_db.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/runtime.h"
#include "storage/volume_layout.h"

using namespace vol;

long long fs_db::q_free() {
  long long head = sb.head;
  long long tail = sb.tail;
  long long size = sb.size;
  if (head == tail) {
    // Equal bounds mean empty or full; the root count tells which.
    entryX_t x;
    if (x_read(0, x) == 0 && x.num != 0) {
      fs_log_hdd("q_free", 234, hdd, "ERR");
      return 0;
    }
  }
  return tail >= head ? sub64(add64(head, size), tail) : sub64(head, tail);
}

void fs_db::q_info(int& flag, long long& total, long long& free, int verbose) {
  flag = static_cast<int>(sb.flag);
  // The 12 MiB outside the ring are counted in both figures, so that they describe
  // the whole device.
  long long size = sb.size;
  total = add64(size, kOutside);
  free = add64(q_free(), kOutside);
  if (verbose != 0) {
    long long head = sb.head;
    long long tail = sb.tail;
    fs_log_hdd("q_info", 163, hdd, "%lld/%lldMB, (%lldM~%lldM)", free >> 20, total >> 20,
               head >> 20, tail >> 20);
  }
}

int fs_db::s_flag(int f) {
  sb.flag = static_cast<uint32_t>(f);
  if (sb_write(sb) != 0) {
    err = 2;
    return -1;
  }
  return 0;
}

int fs_db::q_writable() {
  if (sb.ctime == 0) return 0;
  return sb.flag < 2 ? 1 : 0;
}

int fs_db::q_overwritable() {
  if (sb.ctime == 0) return 0;
  return sb.flag == 0 ? 1 : 0;
}

int fs_db::q_first() {
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("q_first", 194, hdd, "ERR");
    err = 2;
    return -1;
  }
  if (x.num == 0) return 0;
  int num = walk_limit(io, sb, x.offset, x.num);
  entry_t e;
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, e) == 0) return e.time;
    fs_log_hdd("q_first", 203, hdd, "ERR, i = %d", i);
  }
  err = 2;
  return -1;
}

int fs_db::q_last() {
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("q_last", 214, hdd, "ERR");
    err = 2;
    return -1;
  }
  if (x.num == 0) return 0;
  int num = walk_limit(io, sb, x.offset, x.num);
  entry_t e;
  // Counted down from num itself: a damaged count of INT_MIN has no num - 1.
  for (int i = num > 0 ? num - 1 : -1; i >= 0; i--) {
    if (e_read(x, i, e) == 0) return e.time;
    fs_log_hdd("q_last", 223, hdd, "ERR, i = %d", i);
  }
  err = 2;
  return -1;
}

namespace vol {

int ring_bounds(fs_db& db, entryX_t& x, const bounds_lines& l) {
  long long head = db.sb.head;
  long long tail = db.sb.tail;
  if (x.num < 1) {
    fs_log_hdd(l.fn, l.empty, db.hdd, "num=%d", x.num);
    // An emptied volume starts again at the beginning of the ring.
    head = kRingStart;
    tail = kRingStart;
  } else {
    entry_t first, last;
    if (db.e_read(x, 0, first) != 0) {
      fs_log_hdd(l.fn, l.first_err, db.hdd, "ERR");
      return -1;
    }
    if (db.e_read(x, x.num - 1, last) != 0) {
      fs_log_hdd(l.fn, l.last_err, db.hdd, "ERR");
      return -1;
    }
    fs_log_hdd(l.fn, l.summary, db.hdd, "num=%d, 1st: %.32s, last: %.32s", x.num, first.name,
               last.name);
    head = first.offset;
  }
  long long old_head = db.sb.head;
  long long old_tail = db.sb.tail;
  if (head != old_head || tail != old_tail) {
    db.sb.head = head;
    db.sb.tail = tail;
    if (db.sb_write(db.sb) != 0) return -2;
  }
  return 0;
}

}  // namespace vol

namespace {
const vol::bounds_lines kRemoveLines = {"remove", 413, 402, 406, 409};
}  // namespace

int fs_db::remove(int n) {
  if (n == 0) return 0;
  long long t0 = utime();
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("remove", 341, hdd, "ERR");
    return -1;
  }
  entry_t e;
  int listed = walk_limit(io, sb, x.offset, n);
  for (int i = 0; i < listed; i++) {
    if (e_read(x, i, e) == 0) {
      fs_log_hdd("remove", 348, hdd, "REM, %.32s", e.name);
      print(e);
    }
  }
  int m = x.num - n;
  if (m < 1) m = 0;
  if (m > 0) {
    // The survivors move to the front in one run read and one run write. The count
    // comes from disk: a run that would not lie on the device cannot be read, so it
    // fails as a read without first asking for a buffer of that size.
    entry_t* v = nullptr;
    if (walk_limit(io, sb, x.offset, x.num) == x.num)
      v = static_cast<entry_t*>(malloc(sizeof(entry_t) * static_cast<size_t>(m)));
    if (v == nullptr || e_reads(x, n, v, m) != 0) {
      fs_log_hdd("remove", 360, hdd, "ERR, READ");
      free(v);
      return -1;
    }
    for (int k = 0; k < m; k++) v[k].idx = k;
    if (e_writes(x, 0, v, m) != 0) {
      fs_log_hdd("remove", 370, hdd, "ERR, WRITE");
      free(v);
      return -1;
    }
    free(v);
  }
  if (m != x.num) {
    x.num = m;
    long long xoff = x.offset;
    if (x_write(xoff, x) != 0) {
      fs_log_hdd("remove", 392, hdd, "ERR");
      return -1;
    }
  }
  if (ring_bounds(*this, x, kRemoveLines) != 0) return -1;
  fs_log_hdd("remove", 425, hdd, "REMOVE DONE, %fs, q_free = %lldMB",
             static_cast<double>(static_cast<float>(ucost(t0)) / 1000), q_free() >> 20);
  return 0;
}

int fs_db::remove_bytime(int t) {
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("remove_bytime", 437, hdd, "ERR");
    return -1;
  }
  int count = 0;
  int num = walk_limit(io, sb, x.offset, x.num);
  entry_t e;
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, e) != 0) {
      fs_log_hdd("remove_bytime", 444, hdd, "ERR");
      continue;
    }
    if (e.time >= t) break;
    fs_log_hdd("remove_bytime", 449, hdd, "REM, %.32s", e.name);
    print(e);
    count++;
  }
  return remove(count);
}
