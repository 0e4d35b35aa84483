// What the volume around the data area still says: the superblock (or its copy, or
// the fixed layout when neither validates) for the ring's bounds and the key, and the
// index (root table, hour tables) for which regions it still reaches. Nothing here is
// repaired or written; every record is validated as a reader would, against the key.
#include <ringrec/fs_db.h>
#include <ringrec/recovery.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "storage/volume_layout.h"

namespace {

using vol::kRingStart;
using vol::kRootHeader;
using vol::kUnit;

bool sb_ok(const sb_t& s, long long dev) {
  unsigned ctime = s.ctime;
  unsigned key = (ctime & 0xFFFF) ^ (ctime >> 16);
  if (s.size == 0 || s.flag > 2 || s.key != key || fs_db::checksum(&s, vol::kSbWords) != 0)
    return false;
  // A copy can validate and still carry an odd size (the check does not look at it);
  // the scan trusts only a size the device can hold.
  int64_t size = s.size;
  return size > 0 && size % kUnit == 0 && size <= dev - vol::kOutside;
}

bool header_ok(const entryX_t& x, unsigned key, long long at) {
  return x.key == key && fs_db::checksum(&x, vol::kHeaderWords) == key &&
         static_cast<long long>(x.offset) == at && x.num >= 0;
}

bool entry_ok(const entry_t& e, unsigned key, int i) {
  return fs_db::checksum(&e, vol::kEntryWords) == key && e.idx == i;
}

int cmp_ext(const void* a, const void* b) {
  long long x = *static_cast<const long long*>(a), y = *static_cast<const long long*>(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

}  // namespace

fs_recover::fs_recover()
    : io(nullptr),
      dev_size(0),
      sb_from(RC_SB_LAYOUT),
      ring_beg(0),
      ring_end(0),
      index_ok(0),
      minutes(0),
      bad_entries(0),
      chains(nullptr),
      chain_cnt(0),
      chain_cap(0),
      spans(nullptr),
      span_cnt(0),
      span_cap(0),
      progress(nullptr),
      progress_ctx(nullptr),
      chunk(0),
      ext(nullptr),
      ext_cnt(0),
      ext_cap(0),
      buf(nullptr),
      buf_cap(0) {
  memset(&sb, 0, sizeof sb);
  memset(&st, 0, sizeof st);
  memset(open_live, 0, sizeof open_live);
}

fs_recover::~fs_recover() { close(); }

int fs_recover::close() {
  if (io != nullptr) {
    io->close();
    delete io;
    io = nullptr;
  }
  free(chains);
  free(spans);
  free(ext);
  free(buf);
  chains = nullptr;
  spans = nullptr;
  ext = nullptr;
  buf = nullptr;
  chain_cnt = chain_cap = span_cnt = span_cap = ext_cnt = ext_cap = buf_cap = 0;
  return 0;
}

int fs_recover::open(const char* path) {
  close();
  io = new fs_io();
  if (io->open(path, "r") != 0) {
    close();
    return -1;
  }
  dev_size = io->seek(0, SEEK_END);
  // The fixed layout needs 8 MiB before the ring, one unit in it and 4 MiB after.
  if (dev_size < vol::kOutside + kUnit) {
    close();
    return -1;
  }
  load_superblock();
  load_index();
  return 0;
}

int fs_recover::load_superblock() {
  long long layout = (dev_size - vol::kOutside) / kUnit * kUnit;
  // The primary; the copy where a reader looks for it (device end - 4 MiB); the copy
  // where the volume writes it (after the ring the layout gives), which differs on
  // devices whose size is not a multiple of 4 MiB.
  const long long at[3] = {0, dev_size - vol::kSecondaryBack, kRingStart + layout};
  memset(&sb, 0, sizeof sb);
  sb_from = RC_SB_LAYOUT;
  for (int i = 0; i < 3; i++) {
    sb_t s;
    if (at[i] + static_cast<long long>(sizeof s) > dev_size) continue;
    if (io->read(&s, sizeof s, at[i]) == 0 && sb_ok(s, dev_size)) {
      sb = s;
      sb_from = i == 0 ? RC_SB_PRIMARY : RC_SB_SECONDARY;
      break;
    }
  }
  ring_beg = kRingStart;
  ring_end = kRingStart + (sb_from == RC_SB_LAYOUT ? layout : static_cast<long long>(sb.size));
  return sb_from == RC_SB_LAYOUT ? -1 : 0;
}

int fs_recover::add_extent(long long beg, long long end, long long alloc, int t0) {
  if (!(beg >= ring_beg && alloc > beg && alloc <= ring_end && end >= beg && end <= alloc))
    return -1;
  if (ext_cnt == ext_cap) {
    int n = ext_cap ? ext_cap * 2 : 256;
    extent_t* p = static_cast<extent_t*>(realloc(ext, sizeof(extent_t) * static_cast<size_t>(n)));
    if (p == nullptr) return -1;
    ext = p;
    ext_cap = n;
  }
  extent_t e = {beg, end, alloc, t0};
  ext[ext_cnt++] = e;
  return 0;
}

// Walks the root table and every hour's minute table as a reader finds them: an hour
// whose entry fails its checksum is dropped with all its minutes (the check drops it);
// in a minute table, lookups stop at the first bad entry, so the minutes after it are
// not reached either (their regions still belong to the hour).
int fs_recover::load_index() {
  ext_cnt = 0;
  index_ok = 0;
  minutes = bad_entries = 0;
  if (sb_from == RC_SB_LAYOUT) return -1;
  unsigned key = sb.key;
  entryX_t root;
  if (io->read(&root, sizeof root, kRootHeader) != 0 || !header_ok(root, key, kRootHeader))
    return -1;
  index_ok = 1;
  int n = vol::walk_limit(io, sb, kRootHeader, root.num);
  entry_t* tab = static_cast<entry_t*>(malloc(sizeof(entry_t) * 256));
  if (tab == nullptr) return -1;
  for (int i = 0; i < n; i++) {
    entry_t h;
    if (io->read(&h, sizeof h, vol::entry_pos(kRootHeader, i)) != 0 || !entry_ok(h, key, i)) {
      bad_entries++;
      continue;
    }
    long long hoff = h.offset, hmax = h.max;
    if (h.type != 0 || add_extent(hoff, hoff, hoff + hmax, h.time) != 0) continue;
    entryX_t x;
    if (io->read(&x, sizeof x, hoff) != 0 || !header_ok(x, key, hoff)) continue;
    int m = vol::walk_limit(io, sb, hoff, x.num);
    bool reached = true;
    for (int j = 0; j < m; j += 256) {
      int k = m - j < 256 ? m - j : 256;
      if (io->read(tab, static_cast<int>(sizeof(entry_t)) * k, vol::entry_pos(hoff, j)) != 0) {
        reached = false;
        continue;
      }
      for (int q = 0; q < k; q++) {
        const entry_t& e = tab[q];
        if (!entry_ok(e, key, j + q)) {
          bad_entries++;
          reached = false;
          continue;
        }
        long long off = e.offset;
        long long size = e.size < 0 ? 0 : e.size, max = e.max;
        if (size > max) size = max;
        if (add_extent(off, reached ? off + size : off, off + max, e.time) == 0 && reached)
          minutes++;
      }
    }
  }
  free(tab);
  if (ext_cnt > 1) qsort(ext, static_cast<size_t>(ext_cnt), sizeof *ext, cmp_ext);
  return 0;
}

int fs_recover::reach_of(long long pos, int len, int t) {
  // The last extent starting at or before pos, and the few before it: regions of one
  // volume do not overlap, but a cut inside recycling lists one hour twice.
  int lo = 0, hi = ext_cnt;
  while (lo < hi) {
    int mid = lo + (hi - lo) / 2;
    if (ext[mid].beg <= pos)
      lo = mid + 1;
    else
      hi = mid;
  }
  int reach = RC_NONE;
  for (int i = lo - 1; i >= 0 && i >= lo - 4; i--) {
    const extent_t& e = ext[i];
    if (pos >= e.alloc) continue;
    // Its own minute: blocks carry times of the minute the entry was opened in; the
    // records written at the minute's end carry the wall clock a little later.
    if (pos + len <= e.end && t >= e.t0 - 60 && t <= e.t0 + 180) return RC_LISTED;
    reach = RC_REGION;
  }
  return reach;
}

long long fs_recover::mem_bytes() const {
  return static_cast<long long>(buf_cap) + static_cast<long long>(sizeof(rc_chain_t)) * chain_cap +
         static_cast<long long>(sizeof(rc_span_t)) * span_cap +
         static_cast<long long>(sizeof(extent_t)) * ext_cap;
}
