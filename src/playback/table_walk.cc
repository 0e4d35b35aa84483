// Shared helpers of search and playback (see table_walk.h).
#include "playback/table_walk.h"

#include <stdlib.h>

#include "recording/payload.h"
#include "storage/volume_layout.h"

namespace pb {

int minute_of_hour(int t) { return minute_bit(t); }

int table_len(fs_db* db, const entryX_t& x, const entry_t* owner) {
  long long off = x.offset;
  int n = vol::walk_limit(db->io, db->sb, off, x.num);
  if (owner != nullptr) {
    long long room = (static_cast<long long>(owner->max) - static_cast<long long>(sizeof(entryX_t))) /
                     static_cast<long long>(sizeof(entry_t));
    if (room < n) n = static_cast<int>(room);
  }
  return n < 0 ? 0 : n;
}

int read_table(fs_db* db, const entry_t* owner, entryX_t& x, std::vector<entry_t>& v) {
  long long xoff = owner != nullptr ? owner->offset : 0;
  if (db->x_read(xoff, x) != 0) return -1;
  int n = table_len(db, x, owner);
  if (n < 1) return -2;
  v.resize(static_cast<size_t>(n));
  // In runs of 256 entries (83 KB): a table the volume wrote is read in one or a few
  // transfers, while a count that damage inflated to the table's whole room costs only
  // the reads up to its first invalid entry instead of 4 MiB per query.
  const int kRun = 256;
  for (int i = 0; i < n; i += kRun)
    if (db->e_reads(x, i, v.data() + i, n - i < kRun ? n - i : kRun) < 0) return -2;
  return 0;
}

void list_add(unsigned char*& buf, int& cap, int& cnt, const void* rec, size_t size) {
  if (cnt >= cap) {
    void* p = realloc(buf, static_cast<size_t>(cap + 128) * size);
    if (p == nullptr) return;
    buf = static_cast<unsigned char*>(p);
    cap += 128;
  }
  memcpy(buf + static_cast<size_t>(cnt) * size, rec, size);
  cnt++;
}

namespace {
int by_time(const void* a, const void* b) {
  int32_t ta, tb;
  memcpy(&ta, a, 4);
  memcpy(&tb, b, 4);
  return (ta > tb) - (ta < tb);
}
}  // namespace

void sort_by_time(void* buf, int cnt, size_t size) {
  if (cnt > 1) qsort(buf, static_cast<size_t>(cnt), size, by_time);
}

}  // namespace pb
