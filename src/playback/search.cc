// Time, event and motion search: where recording exists, read from the hour and
// minute tables of every volume, and which minutes hold events or motion, read from
// the event log and motion records at the start of each minute's data.
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "playback/table_walk.h"
#include "runtime/runtime.h"

using namespace pb;

namespace {

// The widest motion grid compared, in 32-bit words per channel. The recorder's own
// grids are 20 words; a record claiming more is compared over this many.
const int kGridMax = 256;

}  // namespace

hour_rec_t* fs_app::q_hour(int beg, int end, int& num) {
  hour_cnt = 0;
  std::vector<entry_t> root;
  for (int i = 0; i < db_cnt && i < DB_DISKS_MAX; i++) {
    fs_db* db = db_info[i].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t x;
    int r = read_table(db, nullptr, x, root);
    if (r == -1) fs_log("q_hour", 1563, "ERR\n");
    if (r != 0) continue;
    for (const entry_t& e : root) {
      if (!is_hour(e) || !hour_in(e.time, beg, end)) continue;
      hour_rec_t rec = hour_rec(e);
      list_add(hour_list, hour_cap, hour_cnt, &rec, sizeof rec);
    }
  }
  sort_by_time(hour_list, hour_cnt, sizeof(hour_rec_t));
  num = hour_cnt;
  return reinterpret_cast<hour_rec_t*>(hour_list);
}

min_rec_t* fs_app::q_min(int beg, int end, int& num) {
  min_cnt = 0;
  std::vector<entry_t> root, mins;
  for (int i = 0; i < db_cnt && i < DB_DISKS_MAX; i++) {
    fs_db* db = db_info[i].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t x;
    int r = read_table(db, nullptr, x, root);
    if (r == -1) fs_log("q_min", 1612, "ERR\n");
    if (r != 0) continue;
    for (const entry_t& h : root) {
      if (!is_hour(h) || !hour_in(h.time, beg, end)) continue;
      entryX_t hx;
      r = read_table(db, &h, hx, mins);
      if (r == -1) fs_log("q_min", 1628, "ERR\n");
      if (r != 0) continue;
      for (const entry_t& m : mins) {
        if (!is_min(m) || m.size == 0 || !min_in(m.time, beg, end)) continue;
        min_rec_t rec = min_rec(m);
        list_add(min_list, min_cap, min_cnt, &rec, sizeof rec);
      }
    }
  }
  sort_by_time(min_list, min_cnt, sizeof(min_rec_t));
  num = min_cnt;
  return reinterpret_cast<min_rec_t*>(min_list);
}

void fs_app::q_time(int num, int* times) {
  if (num < 0) num = 0;
  struct pair {
    int idx, time;
  };
  std::vector<pair> v(static_cast<size_t>(num));
  std::vector<char> found(static_cast<size_t>(num), 0);
  for (int i = 0; i < num; i++) v[i] = {i, times[i]};
  std::stable_sort(v.begin(), v.end(), [](const pair& a, const pair& b) { return a.time < b.time; });
  int lo = num > 0 ? v[0].time : 0;
  int hi = num > 0 ? v[num - 1].time : 0;
  fs_log("q_time", 1671, "num=%d, beg=%d, end=%d\n", num, lo, hi);

  std::vector<entry_t> root;
  for (int d = 0; d < db_cnt && d < DB_DISKS_MAX && num > 0; d++) {
    fs_db* db = db_info[d].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t x;
    int r = read_table(db, nullptr, x, root);
    if (r == -1) fs_log("q_time", 1686, "ERR\n");
    if (r != 0) continue;
    for (const entry_t& e : root) {
      if (!is_hour(e)) continue;
      int h = e.time / 3600;
      if (!(lo / 3600 <= h && (hi == 0 || h <= hi / 3600))) continue;
      int ti = 0;
      while (ti < num && (found[ti] || v[ti].time / 3600 != h)) ti++;
      if (ti == num) continue;
      int tj = num - 1;
      while (tj > ti && (found[tj] || v[tj].time / 3600 != h)) tj--;
      hour_rec_t rec = hour_rec(e);
      uint64_t mask = rec.mask;
      fs_log("q_time", 1712, "ti=%d, tj=%d, (%d): 0x%.8X / 0x%.8X\n", ti, tj, rec.time,
             static_cast<unsigned>(mask >> 32), static_cast<unsigned>(mask));
      for (int k = ti; k <= tj; k++)
        if (!found[k] && (mask >> minute_of_hour(v[k].time) & 1)) found[k] = 1;
    }
  }
  for (int k = 0; k < num; k++)
    if (!found[k]) times[v[k].idx] = 0;
}

namespace {

// Visits every kept minute of the span on every volume: minute names, not
// empty, inside the span. `fn` names the query in the error lines.
template <typename F>
void walk_minutes(fs_app& app, int beg, int end, const char* fn, int root_line, int hour_line,
                  F visit) {
  std::vector<entry_t> root, mins;
  for (int i = 0; i < app.db_cnt && i < DB_DISKS_MAX; i++) {
    fs_db* db = app.db_info[i].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t x;
    int r = read_table(db, nullptr, x, root);
    if (r == -1) fs_log(fn, root_line, "ERR\n");
    if (r != 0) continue;
    for (const entry_t& h : root) {
      if (!is_hour(h) || !hour_in(h.time, beg, end)) continue;
      entryX_t hx;
      r = read_table(db, &h, hx, mins);
      if (r == -1) fs_log(fn, hour_line, "ERR\n");
      if (r != 0) continue;
      int n = static_cast<int>(mins.size());
      for (int k = 0; k < n; k++) {
        entry_t m;
        if (db->e_read(hx, k, m) != 0) continue;
        if (!is_min(m) || m.size == 0 || !min_in(m.time, beg, end)) continue;
        visit(db, m);
      }
    }
  }
}

bool read_head(fs_db* db, entry_t& m, int off, uint32_t type, head_t& h) {
  return db->d_read(m, off, sizeof h, &h) == 0 && block_head_valid(h) && h.type == type;
}

// Channel n's bit; a channel outside the 32 a mask word holds matches nothing.
uint32_t channel_bit(int ch) { return ch >= 0 && ch < 32 ? 1u << ch : 0; }

}  // namespace

min_rec_t* fs_app::q_log(int beg, int end, int ch, int eventType, int& num) {
  fs_log("q_log", 1768, "beg: %d, end: %d, ch: 0x%X, eventType: 0x%X\n", beg, end,
         static_cast<unsigned>(ch), static_cast<unsigned>(eventType));
  min_cnt = 0;
  walk_minutes(*this, beg, end, "q_log", 1779, 1795, [&](fs_db* db, entry_t& m) {
    head_t h;
    if (!read_head(db, m, MINUTE_LOG_OFF, BLOCK_LOG, h)) return;
    // The table holds the 12 rows of a minute; a stored size beyond them (or
    // negative) is cut to what the table holds.
    event_t rows[12];
    memset(rows, 0, sizeof rows);
    int size = std::max(0, std::min<int>(h.size, sizeof rows));
    if (db->d_read(m, MINUTE_LOG_DATA_OFF, size, rows) != 0) return;
    if (eventType < 0 || eventType > 7) return;
    for (const event_t& row : rows) {
      uint32_t w;
      memcpy(&w, reinterpret_cast<const unsigned char*>(&row) + 4 * eventType, 4);
      if (w & static_cast<uint32_t>(ch)) {
        min_rec_t rec = min_rec(m);
        list_add(min_list, min_cap, min_cnt, &rec, sizeof rec);
        return;
      }
    }
  });
  sort_by_time(min_list, min_cnt, sizeof(min_rec_t));
  fs_log("q_log", 1821, "c_min.num: %d\n", min_cnt);
  num = min_cnt;
  return reinterpret_cast<min_rec_t*>(min_list);
}

min_rec_t* fs_app::q_motion(int beg, int end, int ch, int& num) {
  min_cnt = 0;
  uint32_t bit = channel_bit(ch);
  walk_minutes(*this, beg, end, "q_motion", 1842, 1857, [&](fs_db* db, entry_t& m) {
    head_t h;
    if (!read_head(db, m, MINUTE_MOTION_OFF, BLOCK_MOTION, h) || (h.events & bit) == 0) return;
    min_rec_t rec = min_rec(m);
    list_add(min_list, min_cap, min_cnt, &rec, sizeof rec);
  });
  sort_by_time(min_list, min_cnt, sizeof(min_rec_t));
  num = min_cnt;
  return reinterpret_cast<min_rec_t*>(min_list);
}

min_rec_t* fs_app::q_motionMask(int beg, int end, int ch, int& num, unsigned int* mask,
                                int words) {
  min_cnt = 0;
  uint32_t bit = channel_bit(ch);
  walk_minutes(*this, beg, end, "q_motionMask", 1894, 1909, [&](fs_db* db, entry_t& m) {
    head_t h;
    if (!read_head(db, m, MINUTE_MOTION_OFF, BLOCK_MOTION, h) || (h.events & bit) == 0) return;
    long long W = h.frames;
    // W 0 leaves the snapshot count undefined: no grid to compare.
    if (W < 1) return;
    long long N = h.size / (W * 128);
    if (N <= 0) return;
    // The grid buffer holds kGridMax words; a wider grid is compared over its first
    // kGridMax words, the same as a caller's mask of that many words would be.
    int read = static_cast<int>(std::min<long long>(W, kGridMax));
    int k = std::min(words, read);
    if (k < 1) return;
    uint32_t grid[kGridMax];
    min_rec_t rec = min_rec(m);
    for (long long s = 0; s < N; s++) {
      long long off = MINUTE_MOTION_OFF + BLOCK_HEAD + s * W * 128 + ch * W * 4;
      // Beyond 2 GiB no minute holds data; the stored size only claims it does.
      if (off > 0x7FFFFFFF - read * 4) break;
      if (db->d_read(m, static_cast<int>(off), read * 4, grid) != 0) continue;
      bool hit = false;
      for (int w = 0; w < k && !hit; w++) hit = (grid[w] & mask[w]) != 0;
      if (!hit) continue;
      rec.time = static_cast<int32_t>(rec.time / 60 * 60 + 60 / N * s);
      list_add(min_list, min_cap, min_cnt, &rec, sizeof rec);
    }
  });
  sort_by_time(min_list, min_cnt, sizeof(min_rec_t));
  num = min_cnt;
  return reinterpret_cast<min_rec_t*>(min_list);
}
