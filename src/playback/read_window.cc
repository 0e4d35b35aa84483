// Read windows: one positioned read brings a block's head, data and tail (and often the
// blocks after it) into memory; see read_window.h.
#include "playback/read_window.h"

#include <stdlib.h>
#include <string.h>

fs_read_window::~fs_read_window() { free(buf); }

fs_read_window_slot::~fs_read_window_slot() { delete w; }

fs_read_window& rw_of(fs_read_window_slot& s) {
  if (s.w == nullptr) s.w = new fs_read_window;
  return *s.w;
}

void fs_read_window_slot::drop() {
  if (w != nullptr) w->reset();
}

bool fs_read_window::same_entry(fs_db* d, const entry_t& e) const {
  long long r = e.offset;
  return db != nullptr && db == d && region == r && entry_idx == e.idx;
}

bool fs_read_window::holds(fs_db* d, const entry_t& e, long long from, long long to) const {
  return same_entry(d, e) && from >= at && to <= at + len;
}

namespace {

// A positioned read of the device without the messages of fs_io::read: a window read
// that fails is followed by the ordinary read, which reports what it meets. It still
// goes through the system-call table and the device's mutex.
int quiet_read(fs_db* db, void* dst, int n, long long where) {
  fs_io* io = db->io;
  if (io == nullptr) return -1;
  pthread_mutex_lock(&io->mutex);
  long long got = fs_sys.pread(io->fd, dst, n, where);
  pthread_mutex_unlock(&io->mutex);
  return got == n ? 0 : -1;
}

bool grow(fs_read_window& w, long long n) {
  if (n <= w.cap) return true;
  if (n > 0x7FFFFFFFLL) return false;
  long long c = w.cap > 0 ? w.cap : kReadWindow;
  while (c < n) c *= 2;
  if (c > 0x7FFFFFFFLL) c = n;
  void* p = realloc(w.buf, static_cast<size_t>(c));
  if (p == nullptr) return false;
  w.buf = static_cast<unsigned char*>(p);
  w.cap = static_cast<int>(c);
  return true;
}

}  // namespace

int rw_fill(fs_read_window& w, fs_db* db, const entry_t& e, long long from, long long to) {
  w.drop();
  if (db == nullptr || from < 0 || to <= from || to > e.size) return -1;
  if (!grow(w, to - from)) return -1;
  long long region = e.offset;
  int n = static_cast<int>(to - from);
  if (quiet_read(db, w.buf, n, region + from) != 0) return -1;
  w.db = db;
  w.region = region;
  w.entry_idx = e.idx;
  w.at = from;
  w.len = n;
  return 0;
}

const unsigned char* rw_block(fs_read_window& w, fs_db* db, const entry_t& e, int off, int lead,
                              long long back_end) {
  long long size = e.size;
  long long first = static_cast<long long>(off) - lead;
  if (db == nullptr || first < 0 || off + static_cast<long long>(BLOCK_OVERHEAD) > size)
    return nullptr;
  if (!w.holds(db, e, first, off + static_cast<long long>(BLOCK_HEAD))) {
    long long from = first, to;
    if (back_end > off && back_end <= size) {
      // Stepping backwards: the stretch that ends where the block is said to end, so the
      // blocks before it come in the same read.
      to = back_end;
      from = to - kReadWindow < first ? to - kReadWindow : first;
      if (from < 0) from = 0;
      if (w.same_entry(db, e) && first < w.at && w.at < to && to <= w.at + w.len) {
        // The block's end is held already: only the bytes before the stretch are read,
        // and what lies after the block (played already) is let go.
        long long keep = to - w.at;
        if (!grow(w, to - from)) return nullptr;
        memmove(w.buf + (w.at - from), w.buf, static_cast<size_t>(keep));
        long long region = e.offset;
        int n = static_cast<int>(w.at - from);
        if (quiet_read(db, w.buf, n, region + from) != 0) {
          w.drop();
          return nullptr;
        }
        w.at = from;
        w.len = static_cast<int>(to - from);
        from = to = -1;  // held now
      }
    } else {
      to = first + kReadWindow < size ? first + kReadWindow : size;
    }
    if (from >= 0 && rw_fill(w, db, e, from, to) != 0) return nullptr;
  }
  head_t h;
  memcpy(&h, w.ptr(off), sizeof h);
  if (!block_head_valid(h) || h.size < 0) return nullptr;
  long long end = off + static_cast<long long>(BLOCK_OVERHEAD) + h.size;
  if (end > size) return nullptr;
  if (end > w.at + w.len) {
    // Larger than the stretch read: the rest comes in a second read, after what is held.
    // What lies before the block stays where it is: moving the held part of a block of
    // a few mebibytes down costs as much as copying it out again, so the window grows
    // instead, to at most a stretch and the largest block.
    long long have = w.at + w.len;
    if (!grow(w, end - w.at)) return nullptr;
    long long region = e.offset;
    int n = static_cast<int>(end - have);
    if (quiet_read(db, w.buf + w.len, n, region + have) != 0) {
      w.drop();
      return nullptr;
    }
    w.len += n;
  }
  const unsigned char* p = w.ptr(off);
  uint32_t tail[2];
  memcpy(tail, p + BLOCK_HEAD + h.size, sizeof tail);
  if (tail[0] != BLOCK_TAIL_SYNC || static_cast<int32_t>(tail[1]) != h.size) return nullptr;
  return p;
}
