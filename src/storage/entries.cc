// Entries of a table: single and run transfers, lookup by name, creation, flush.
#include <limits.h>
#include <ringrec/fs_db.h>
#include <string.h>

#include "runtime/runtime.h"
#include "storage/volume_layout.h"

using namespace vol;

int fs_db::e_read(entryX_t& x, int i, entry_t& e) {
  long long off = entry_pos(x.offset, i);
  for (;;) {
    if (io->read(&e, sizeof e, off) != 0) {
      fs_log_hdd("e_read", 692, hdd, "ERR, READ");
    } else if (e.idx != i) {
      fs_log_hdd("e_read", 696, hdd, "ERR, IDX");
    } else if (checksum(&e, kEntryWords) != sb.key) {
      fs_log_hdd("e_read", 700, hdd, "ERR, CHECKSUM");
    } else {
      // Written only when set: a backup reads the volume the recorder is writing,
      // and a good read must not store into the state the other thread reads.
      if (e_err_cnt != 0) e_err_cnt = 0;
      return 0;
    }
    // Counts 0, 1, 2 for a fresh offset; an entry that failed before continues its
    // count and is given up on after one attempt.
    if (off != e_err_off) {
      e_err_off = off;
      e_err_cnt = 0;
    }
    fs_log_hdd("e_read", 711, hdd, "ERR_TRY %d, offset=%lld", e_err_cnt, off);
    if (++e_err_cnt > 2) return -1;
    fs_usleep(kRetryPause);
  }
}

int fs_db::e_reads(entryX_t& x, int i, entry_t* v, int n) {
  if (n < 1) return 0;
  // 324 * n must fit the transfer's byte count; no caller's buffer can hold more.
  if (n > INT_MAX / static_cast<int>(sizeof(entry_t)) ||
      io->read(v, static_cast<int>(sizeof(entry_t)) * n, entry_pos(x.offset, i)) != 0) {
    fs_log_hdd("e_reads", 723, hdd, "ERR, READ");
    return -1;
  }
  for (int k = 0; k < n; k++) {
    if (v[k].idx != i + k) {
      fs_log_hdd("e_reads", 728, hdd, "ERR, IDX");
      return -1;
    }
    if (checksum(&v[k], kEntryWords) != sb.key) {
      fs_log_hdd("e_reads", 732, hdd, "ERR, CHECKSUM");
      return -1;
    }
  }
  return 0;
}

int fs_db::e_write(entryX_t& x, int i, entry_t& e) {
  if (e.idx != i) {
    fs_log_hdd("e_write", 745, hdd, "ERR, IDX");
    return -1;
  }
  e.checksum = sb.key;
  e.checksum = static_cast<uint16_t>(checksum(&e, kEntryWords));
  if (io->write(&e, sizeof e, entry_pos(x.offset, i)) != 0) {
    fs_log_hdd("e_write", 754, hdd, "ERR, WRITE");
    return -1;
  }
  io->fsync();
  return 0;
}

int fs_db::e_writes(entryX_t& x, int i, entry_t* v, int n) {
  // With no entries there is no v[0] to look at, and nothing to write.
  if (n < 1) return 0;
  if (v[0].idx != i) {
    fs_log_hdd("e_writes", 765, hdd, "ERR, IDX");
    return -1;
  }
  for (int k = 0; k < n; k++) {
    v[k].checksum = sb.key;
    v[k].checksum = static_cast<uint16_t>(checksum(&v[k], kEntryWords));
  }
  if (n > INT_MAX / static_cast<int>(sizeof(entry_t)) ||
      io->write(v, static_cast<int>(sizeof(entry_t)) * n, entry_pos(x.offset, i)) != 0) {
    fs_log_hdd("e_writes", 776, hdd, "ERR, WRITE");
    return -1;
  }
  io->fsync();
  return 0;
}

int fs_db::e_open(entryX_t& x, const char* name, entry_t& e) {
  int num = walk_limit(io, sb, x.offset, x.num);
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, e) != 0) {
      fs_log_hdd("e_open", 677, hdd, "ERR");
      return -1;
    }
    if (name_eq(e.name, name)) return 0;
  }
  return -1;
}

int fs_db::e_create(entryX_t& x, unsigned short type, const char* name) {
  entry_t e;
  int num = walk_limit(io, sb, x.offset, x.num);
  for (int i = 0; i < num; i++) {
    if (e_read(x, i, e) != 0) {
      fs_log_hdd("e_create", 632, hdd, "ERR");
      return -1;
    }
    if (name_eq(e.name, name)) return -1;
  }
  grow_mul = 1;
  grow_time = utime();

  memset(&e, 0, sizeof e);
  // At most 31 characters, so the stored name is always NUL-terminated.
  strncpy(e.name, name, sizeof e.name - 1);
  e.type = type;
  long long tail = sb.tail;
  e.offset = tail;
  e.max = static_cast<int32_t>(kUnit);
  e.xoffset = x.offset;
  e.idx = x.num;

  tail = add64(tail, kUnit);
  long long size = sb.size;
  if (tail >= add64(kRingStart, size)) tail = kRingStart;
  sb.tail = tail;
  // The superblock goes first: a crash after it leaves the region allocated but
  // unreferenced, never referenced but free.
  if (sb_write(sb) != 0) return -1;
  if (e_write(x, x.num, e) != 0) return -1;
  if (type == 0) {
    entryX_t h;
    memset(&h, 0, sizeof h);
    long long region = e.offset;
    if (x_write(region, h) != 0) return -1;
  }
  x.num++;
  long long xoff = x.offset;
  return x_write(xoff, x);
}

int fs_db::e_flush(entry_t& e) {
  entryX_t x;
  long long xoff = e.xoffset;
  if (x_read(xoff, x) != 0) {
    fs_log_hdd("e_flush", 840, hdd, "ERR");
    return -1;
  }
  return e_write(x, e.idx, e);
}
