// The playback cursor: placed at a time by r_set, read block by block with r_head and
// r_data, stepped inside a minute with r_seek and across minutes, hours and disks with
// r_next. A block is a stored block of the minute's data (block.h): head, data, tail.
#include <limits.h>
#include <ringrec/fs_app.h>
#include <string.h>

#include <vector>

#include "playback/read_window.h"
#include "playback/table_walk.h"
#include "runtime/runtime.h"

using namespace pb;

namespace {

const unsigned kRetryPause = 100000;  // us between attempts on a block being written

// "E_%.3d" line that follows every complaint about a block: where its minute lies.
void entry_line(const char* fn, int line, const entry_t& e) {
  long long off = e.offset;
  fs_log(fn, line, "E_%.3d: %.32s, offset=%lldMB, max=%dMB, size=%dMB\n", e.idx, e.name, off >> 20,
         e.max >> 20, e.size >> 20);
}

// Offsets are 32-bit; a step by a size read from a torn block could leave that range.
bool fits(long long v) { return v >= INT_MIN && v <= INT_MAX; }

}  // namespace

// Step 4 of r_set: the first block of the current minute whose time is at least t.
static int scan_minute(fs_app& a, int t) {
  r_cursor_t& c = a.r_cur;
  long long pos = 0;
  fs_read_window& w = rw_of(a.r_window);
  w.backward = false;
  for (;;) {
    if (!fits(pos + BLOCK_HEAD)) return 0;
    // Heads come from the cursor's window, whole blocks checked by their tails; one the
    // window cannot vouch for is read on its own as always.
    const unsigned char* p = rw_block(w, c.db, c.min, static_cast<int>(pos), 0, -1);
    if (p != nullptr)
      memcpy(&c.head, p, sizeof c.head);
    else if (c.db->d_read(c.min, static_cast<int>(pos), BLOCK_HEAD, &c.head) != 0)
      return 0;
    if (!block_head_valid(c.head)) {
      fs_log("r_set", 2213, "ERR: HEAD %dMB, sync=0x%.4X, magic=0x%.4X\n", c.off >> 20, c.head.sync,
             c.head.magic);
      entry_line("r_set", 2215, c.min);
      return 0;
    }
    if (c.head.time >= t) {
      c.off = static_cast<int>(pos);
      return 0;
    }
    // A negative size from the disk would walk backwards, perhaps for ever.
    if (c.head.size < 0) return 0;
    pos += BLOCK_OVERHEAD + static_cast<long long>(c.head.size);
  }
}

// Sets the cursor on a minute found by a search or a step and loads its indexes.
static void enter_minute(fs_app& a, fs_db* db, const entry_t& hour, const entry_t& min, int dir) {
  a.r_window.drop();
  a.r_cur.db = db;
  a.r_cur.hour = hour;
  a.r_cur.min = min;
  a.read_Iframe_info(db, dir);
  a.read_Log_info(db, dir);
}

// Rebuilds the hour list with each record's location in its fourth word: every hour
// entry of every volume, or (when `filter`) those of hours t/3600..end/3600.
static void build_hours(fs_app& a, bool filter, int t, int end, const char* fn, int line) {
  a.hour_cnt = 0;
  std::vector<entry_t> root;
  for (int i = 0; i < a.db_cnt && i < DB_DISKS_MAX; i++) {
    fs_db* db = a.db_info[i].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t x;
    int r = read_table(db, nullptr, x, root);
    if (r == -1) fs_log(fn, line, "ERR\n");
    if (r != 0) continue;
    // Locations keep 16 bits of root index; entries past that cannot be addressed
    // (the root table has room for fewer).
    int n = static_cast<int>(root.size());
    for (int k = 0; k < n && k <= 0xFFFF; k++) {
      const entry_t& e = root[k];
      if (!is_hour(e)) continue;
      if (filter && !hour_in(e.time, t, end)) continue;
      hour_rec_t rec = hour_rec(e);
      rec.events = loc_make(i, k);
      list_add(a.hour_list, a.hour_cap, a.hour_cnt, &rec, sizeof rec);
    }
  }
  sort_by_time(a.hour_list, a.hour_cnt, sizeof(hour_rec_t));
}

static hour_rec_t hour_at(const fs_app& a, int k) {
  hour_rec_t r;
  memcpy(&r, a.hour_list + static_cast<size_t>(k) * sizeof r, sizeof r);
  return r;
}

// The volume of a location's slot, if it holds a formatted one.
static fs_db* slot_db(fs_app& a, int slot) {
  if (slot < 0 || slot >= a.db_cnt || slot >= DB_DISKS_MAX) return nullptr;
  fs_db* db = a.db_info[slot].db;
  return db != nullptr && db->q_key() != 0 ? db : nullptr;
}

int fs_app::r_set(int t, int end) {
  r_cursor_t& c = r_cur;
  if (c.db != nullptr && c.head.sync == BLOCK_SYNC && c.head.time / 3600 == t / 3600) {
    if (c.head.time / 60 == t / 60) {
      fs_log("r_set", 2061, "QUICK SEARCH: MIN\n");
      return scan_minute(*this, t);
    }
    fs_log("r_set", 2065, "QUICK SEARCH: HOUR\n");
    entryX_t x;
    long long hoff = c.hour.offset;
    int xr = c.db->x_read(hoff, x);
    fs_log("r_set", 2069, "%.32s\n", c.hour.name);
    // The minute must be marked in the hour's mask; the mask does not depend on the
    // entry visited, so a clear bit takes nothing and no entry need be read.
    hour_rec_t hr = hour_rec(c.hour);
    if (xr == 0 && (hr.mask >> minute_of_hour(t) & 1)) {
      int n = table_len(c.db, x, &c.hour);
      for (int i = 0; i < n; i++) {
        entry_t m;
        if (c.db->e_read(x, i, m) != 0) continue;
        if (!is_min(m) || m.size == 0 || m.time / 60 < t / 60) continue;
        if (end != 0 && m.time / 60 > end / 60) continue;
        fs_log("r_set", 2084, "%.32s / %.32s\n", c.hour.name, m.name);
        enter_minute(*this, c.db, c.hour, m, 0);
        return scan_minute(*this, t);
      }
    }
  }

  build_hours(*this, true, t, end, "r_set", 2107);
  std::vector<entry_t> mins;
  for (int pass = 0; pass < 2; pass++) {
    for (int k = 0; k < hour_cnt; k++) {
      hour_rec_t rec = hour_at(*this, k);
      // Pass 0 compares the hour's start time with an hour number: it takes a record
      // only on clocks near zero, and otherwise leaves the choice to pass 1.
      if (pass == 0 && !(rec.time == t / 3600 && (rec.mask >> minute_of_hour(t) & 1))) continue;
      int slot = loc_slot(rec.events);
      fs_db* db = slot_db(*this, slot);
      if (db == nullptr) continue;
      entryX_t root;
      if (db->x_read(0, root) != 0) {
        fs_log("r_set", 2131, "ERR\n");
        continue;
      }
      entry_t h;
      if (db->e_read(root, loc_idx(rec.events), h) != 0 || !is_hour(h)) continue;
      entryX_t x;
      long long hoff = h.offset;
      if (db->x_read(hoff, x) != 0) {
        fs_log("r_set", 2142, "%.32s\n", h.name);
        continue;
      }
      int n = table_len(db, x, &h);
      for (int i = 0; i < n; i++) {
        entry_t m;
        if (db->e_read(x, i, m) != 0) continue;
        if (!is_min(m) || m.size == 0 || m.time / 60 < t / 60) continue;
        if (end != 0 && m.time / 60 > end / 60) continue;
        fs_log("r_set", 2158, "HDD%d: %.20s, %.32s / %.32s, %d\n", slot, db_info[slot].dev, h.name,
               m.name, m.size);
        enter_minute(*this, db, h, m, 0);
        return scan_minute(*this, t);
      }
    }
  }
  return -1;
}

head_t* fs_app::r_head() {
  r_cursor_t& c = r_cur;
  if (c.db == nullptr) return nullptr;
  // The previous block's tail sits right before the head buffer (fs_app.h).
  unsigned char* tail_and_head = reinterpret_cast<unsigned char*>(c.tail);
  // One read a block: the previous tail, this head, its data and its own tail come from
  // the cursor's window, and are served only when both tails agree. Otherwise the block
  // is read as below, with its retries, as if the window had not been there.
  fs_read_window& w = rw_of(r_window);
  w.served = -1;
  // Asked again for the same block, the caller is retrying one it could not use: what
  // the window holds of it is not news, so the block is read from the disk.
  bool again = w.headed == c.off;
  w.headed = c.off;
  if (c.off >= 0 && !again) {
    long long back_end =
        w.backward ? static_cast<long long>(c.off) + BLOCK_OVERHEAD + c.tail[1] : -1;
    int lead = c.off == 0 ? 0 : BLOCK_TAIL;
    const unsigned char* p = rw_block(w, c.db, c.min, c.off, lead, back_end);
    if (p != nullptr) {
      uint32_t prev_sync;
      memcpy(&prev_sync, p - lead, sizeof prev_sync);
      if (c.off == 0 || prev_sync == BLOCK_TAIL_SYNC) {
        memcpy(c.off == 0 ? reinterpret_cast<unsigned char*>(&c.head) : tail_and_head, p - lead,
               static_cast<size_t>(lead + BLOCK_HEAD));
        w.served = c.off;
        return &c.head;
      }
    }
  }
  for (int attempt = 0; attempt < 3; attempt++) {
    if (attempt > 0) fs_usleep(kRetryPause);
    int r;
    if (c.off == 0)
      r = c.db->d_read(c.min, 0, BLOCK_HEAD, &c.head);
    else if (c.off < BLOCK_TAIL)
      // A backward step by a damaged tail size left the offset before the data: there
      // is no block there to read.
      r = -1;
    else
      r = c.db->d_read(c.min, c.off - BLOCK_TAIL, BLOCK_OVERHEAD, tail_and_head);
    if (r != 0) return nullptr;
    if (c.off != 0 && static_cast<uint32_t>(c.tail[0]) != BLOCK_TAIL_SYNC) {
      fs_log("r_head", 2236, "ERR %d: TAIL %dMB, sync=0x%.4X, size=%d\n", attempt, c.off >> 20,
             static_cast<unsigned>(c.tail[0]), c.tail[1]);
      entry_line("r_head", 2238, c.min);
      continue;
    }
    if (block_head_valid(c.head)) return &c.head;
    fs_log("r_head", 2244, "ERR %d: HEAD %dMB, sync=0x%.4X, magic=0x%.4X\n", attempt, c.off >> 20,
           c.head.sync, c.head.magic);
    entry_line("r_head", 2246, c.min);
  }
  return nullptr;
}

int fs_app::r_data(void* buf, int len) { return r_offset_data(buf, 0, len); }

int fs_app::r_offset_data(void* buf, int off, int len) {
  if (r_cur.db == nullptr) return -1;
  long long at = static_cast<long long>(r_cur.off) + BLOCK_HEAD + off;
  if (!fits(at)) return -1;
  // The block r_head served whole from the window: its bytes are those read with it.
  fs_read_window* w = r_window.w;
  if (w != nullptr && w->served == r_cur.off && len >= 0 && off >= 0 &&
      w->holds(r_cur.db, r_cur.min, at, at + len)) {
    memcpy(buf, w->ptr(at), static_cast<size_t>(len));
    return 0;
  }
  return r_cur.db->d_read(r_cur.min, static_cast<int>(at), len, buf) < 0 ? -1 : 0;
}

int fs_app::r_seek(int dir) {
  r_cursor_t& c = r_cur;
  c.stepped[0] = c.stepped[1] = 1;
  rw_of(r_window).backward = dir < 0;
  if (dir < 0) {
    if (c.off == 0) return -1;
    long long to = static_cast<long long>(c.off) - BLOCK_OVERHEAD - c.tail[1];
    if (!fits(to)) return -1;
    c.off = static_cast<int>(to);
    return 0;
  }
  long long to = static_cast<long long>(c.off) + BLOCK_OVERHEAD + c.head.size;
  if (!fits(to)) return -1;
  c.off = static_cast<int>(to);
  if (c.off == c.min.size) {
    // Perhaps only the end for now: the writer may have appended since the entry was
    // read.
    if (c.db == nullptr) return -1;
    entryX_t x;
    long long xoff = c.min.xoffset;
    if (c.db->x_read(xoff, x) != 0) {
      fs_log("r_seek", 2291, "ERR\n");
      return -1;
    }
    entry_t m;
    if (c.db->e_read(x, c.min.idx, m) != 0) return -1;
    c.min = m;
    if (c.off == c.min.size) return -1;
  }
  return 0;
}

int fs_app::r_next(int dir) {
  if (r_next_min(dir) != 0) return -1;
  r_cursor_t& c = r_cur;
  fs_read_window& w = rw_of(r_window);
  w.backward = dir < 0;
  if (dir >= 0) {
    c.off = 0;
    return 0;
  }
  int size = c.min.size;
  c.off = size;
  if (size < BLOCK_TAIL) return -1;
  // The last tail comes with the blocks before it in one read that ends at the size;
  // when that tail is not whole the tail is read, and retried, as below.
  bool held = false;
  if (rw_fill(w, c.db, c.min, size > kReadWindow ? size - kReadWindow : 0, size) == 0) {
    int32_t t[2];
    memcpy(t, w.ptr(size - BLOCK_TAIL), sizeof t);
    if (static_cast<uint32_t>(t[0]) == BLOCK_TAIL_SYNC) {
      memcpy(c.tail, t, sizeof t);
      held = true;
    }
  }
  for (int n = 0; n < 3 && !held; n++) {
    if (n > 0) fs_usleep(kRetryPause);
    if (c.db->d_read(c.min, size - BLOCK_TAIL, BLOCK_TAIL, c.tail) != 0) return -1;
    if (static_cast<uint32_t>(c.tail[0]) == BLOCK_TAIL_SYNC) break;
    fs_log("r_next", 2331, "ERR: TAIL, sync=0x%.4X, size=%d, offset=%d\n",
           static_cast<unsigned>(c.tail[0]), c.tail[1], c.off);
  }
  // Valid or not, the tail says where the last block starts; a size that puts it
  // outside 32 bits leaves an offset r_head refuses.
  long long at = static_cast<long long>(size) - BLOCK_OVERHEAD - c.tail[1];
  c.off = fits(at) ? static_cast<int>(at) : -1;
  return 0;
}

// The minute after (dir > 0) or before the current one that holds data: first in the
// current hour, then in the hours of every volume in time order, circularly.
int fs_app::r_next_min(int dir) {
  r_cursor_t& c = r_cur;
  int slot = -1;
  for (int i = 0; i < db_cnt && i < DB_DISKS_MAX; i++)
    if (c.db != nullptr && db_info[i].db == c.db) {
      slot = i;
      break;
    }
  bool fwd = dir >= 0;
  std::vector<entry_t> mins;

  if (c.db != nullptr && c.db->q_key() != 0) {
    entryX_t root;
    if (c.db->x_read(0, root) != 0) {
      fs_log("r_next_min", 2380, "ERR\n");
    } else {
      // The current hour again, by name: recycling removes older hours and moves the
      // rest down the root table.
      int n = table_len(c.db, root, nullptr);
      int was = c.hour.idx, now = -1;
      entry_t h;
      if (was >= 0 && was < n && c.db->e_read(root, was, h) == 0 && is_hour(h) &&
          same_name(h, c.hour))
        now = was;
      for (int i = (was < n ? was : n) - 1; now < 0 && i >= 0; i--)
        if (c.db->e_read(root, i, h) == 0 && is_hour(h) && same_name(h, c.hour)) now = i;
      if (now >= 0) {
        if (now != was) fs_log("r_next_min", 2398, "hour_idx: %d -> %d\n", was, now);
        entryX_t x;
        long long hoff = h.offset;
        if (c.db->x_read(hoff, x) != 0) {
          fs_log("r_next_min", 2404, "ERR\n");
        } else {
          int m_n = table_len(c.db, x, &h);
          for (int i = fwd ? c.min.idx + 1 : c.min.idx - 1; i >= 0 && i < m_n; i += fwd ? 1 : -1) {
            entry_t m;
            if (c.db->e_read(x, i, m) != 0 || !is_min(m) || m.size == 0) continue;
            fs_log("r_next_min", 2418, "HDD%d: %.20s, %.32s / %.32s, size = %dMB\n", slot,
                   slot >= 0 ? db_info[slot].dev : "", h.name, m.name, m.size >> 20);
            enter_minute(*this, c.db, h, m, dir);
            return 0;
          }
        }
      }
    }
  }

  fs_log("r_next_min", fwd ? 2431 : 2433, fwd ? "BEGIN\n" : "END\n");
  build_hours(*this, false, 0, 0, "r_next_min", 2437);
  int cnt = hour_cnt;
  if (cnt == 0) return -1;
  int start = fwd ? 0 : cnt - 1, match = -1;
  for (int k = 0; k < cnt; k++) {
    hour_rec_t r = hour_at(*this, k);
    if (loc_slot(r.events) == slot && r.time == c.hour.time) match = k;
  }
  if (match >= 0) {
    // Callers pass +1 or -1; any other step is folded into the list's range.
    start = static_cast<int>(((static_cast<long long>(match) + dir) % cnt + cnt) % cnt);
    fs_log("r_next_min", 2452, "%d -> %d\n", match, start);
  }
  for (int k = 0; k < cnt; k++) {
    int p = fwd ? (start + k) % cnt : ((start - k) % cnt + cnt) % cnt;
    hour_rec_t r = hour_at(*this, p);
    int s = loc_slot(r.events);
    fs_db* db = slot_db(*this, s);
    if (db == nullptr) continue;
    entryX_t root;
    if (db->x_read(0, root) != 0) {
      fs_log("r_next_min", 2466, "ERR\n");
      continue;
    }
    entry_t h;
    if (db->e_read(root, loc_idx(r.events), h) != 0 || !is_hour(h)) continue;
    entryX_t x;
    long long hoff = h.offset;
    if (db->x_read(hoff, x) != 0) {
      fs_log("r_next_min", 2476, "%.32s\n", h.name);
      continue;
    }
    int m_n = table_len(db, x, &h);
    for (int i = fwd ? 0 : m_n - 1; i >= 0 && i < m_n; i += fwd ? 1 : -1) {
      entry_t m;
      if (db->e_read(x, i, m) != 0 || !is_min(m) || m.size == 0) continue;
      fs_log("r_next_min", 2418, "HDD%d: %.20s, %.32s / %.32s, size = %dMB\n", s, db_info[s].dev,
             h.name, m.name, m.size >> 20);
      enter_minute(*this, db, h, m, dir);
      return 0;
    }
  }
  return -1;
}

int fs_app::sem_mode(int mode) {
  r_cur.sem_mode = mode;
  return 0;
}

void fs_app::print() {
  // Every counted slot should hold a volume; one that does not has nothing to list.
  for (int i = 0; i < db_cnt && i < DB_DISKS_MAX; i++)
    if (db_info[i].db != nullptr) db_info[i].db->print();
}
