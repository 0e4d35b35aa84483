// The consistency check of the root table, and the listings.
#include <ringrec/fs_db.h>
#include <string.h>

#include "runtime/runtime.h"
#include "storage/volume_layout.h"

using namespace vol;

namespace {
const char kRule[] = "========================================";  // 40 '='
}

int fs_db::chkdsk() {
  fs_log_hdd("chkdsk", 247, hdd, "CHKDSK");
  long long t0 = utime();
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("chkdsk", 254, hdd, "ERR");
    err = 2;
    return -1;
  }
  // Entries past the end of the device cannot be read; they are dropped like any
  // other unreadable entry, without being tried.
  int num = walk_limit(io, sb, x.offset, x.num);
  int j = 0;
  entry_t e;
  for (int i = 0; i < x.num; i++) {
    if (i >= num) {
      err = 1;
      break;
    }
    if (e_read(x, i, e) != 0) {
      fs_log("chkdsk", 262, "HDD%d: ERR, %d", hdd, i);
      err = 1;
      continue;
    }
    // Every root entry must head a valid child table. The header retry memory is
    // armed so that this read is tried once, without a pause.
    long long region = e.offset;
    x_err_off = region;
    x_err_cnt = 100;
    entryX_t h;
    if (x_read(region, h) != 0) {
      fs_log("chkdsk", 269, "ERR: %d, %.32s", i, e.name);
      err = 1;
      continue;
    }
    if (i != j) {
      fs_log("chkdsk", 274, "%.32s, %d -> %d", e.name, i, j);
      e.idx = j;
      if (e_write(x, j, e) != 0) {
        err = 1;
        continue;
      }
    }
    j++;
  }
  if (j != x.num) {
    fs_log_hdd("chkdsk", 285, hdd, "x_hour.num: %d -> %d", x.num, j);
    x.num = j;
    long long xoff = x.offset;
    if (x_write(xoff, x) != 0) {
      fs_log_hdd("chkdsk", 288, hdd, "ERR");
      err = 2;
      return -1;
    }
  }
  const bounds_lines lines = {"chkdsk", 312, 299, 304, 308};
  int r = ring_bounds(*this, x, lines);
  if (r != 0) {
    if (r == -2) fs_log_hdd("chkdsk", 320, hdd, "ERR");
    err = 2;
    return -1;
  }
  fs_log_hdd("chkdsk", 327, hdd, "CHKDSK DONE, %fs",
             static_cast<double>(static_cast<float>(ucost(t0)) / 1000));
  return 0;
}

void fs_db::print() {
  entryX_t x;
  if (x_read(0, x) != 0) {
    fs_log_hdd("print", 120, hdd, "ERR");
    return;
  }
  int num = walk_limit(io, sb, x.offset, x.num);
  entry_t e;
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, e) == 0) {
      print(e);
    } else {
      fs_log_hdd("print", 126, hdd, "ERR");
    }
  }
}

void fs_db::print(entry_t e) {
  fs_log_raw("%s\n", kRule);
  fs_log_raw("E_%.3d: %.32s, %d, %d/%dMB\n", e.idx, e.name, e.type, e.size >> 20, e.max >> 20);
  entryX_t x;
  long long region = e.offset;
  if (x_read(region, x) != 0) {
    fs_log_hdd("print", 141, hdd, "ERR");
    return;
  }
  int num = walk_limit(io, sb, x.offset, x.num);
  long long sum = 0;
  entry_t c;
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, c) != 0) {
      fs_log_hdd("print", 147, hdd, "ERR");
      continue;
    }
    sum += c.max;
    if (i == x.num - 1)
      fs_log_raw("E_%.3d: %.32s, %d, %d/%dMB, %lldMB\n", c.idx, c.name, c.type, c.size >> 20,
                 c.max >> 20, sum >> 20);
  }
  fs_log_raw("%s\n", kRule);
}
