// The frame write path: disk choice, hour and minute entries, the per-second,
// per-minute, per-channel and event summaries, and the minute boundary.
#include <ringrec/fs_app.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "recording/payload.h"
#include "runtime/runtime.h"

namespace {

// A block is appended with one d_write, which grows the region by at least 4 MiB when
// the block does not fit; a longer block could run past its region into space owned by
// other entries, so such blocks are refused before any disk is touched.
const int kMaxBlock = 0x400000;

// head_t has count words for 59 channels (words 13..71).
const int kMaxChannels = 59;

void append_key(std::vector<frame_info_t>& lq, std::vector<frame_info_t>& hq, uint32_t stream,
                const frame_info_t& fi) {
  if (stream == BLOCK_STREAM_SUB) {
    lq.push_back(fi);
  } else if (stream == 0 || stream == 1) {
    lq.push_back(fi);
    hq.push_back(fi);
  } else {
    hq.push_back(fi);
  }
}

void drop_key(std::vector<frame_info_t>& lq, std::vector<frame_info_t>& hq, uint32_t stream) {
  if (stream == BLOCK_STREAM_SUB) {
    if (!lq.empty()) lq.pop_back();
  } else if (stream == 0 || stream == 1) {
    if (!lq.empty()) lq.pop_back();
    if (!hq.empty()) hq.pop_back();
  } else {
    if (!hq.empty()) hq.pop_back();
  }
}

}  // namespace

// Marks the open minute in its hour and makes both entries durable. With `clear` the
// minute entry is dropped too, so the next block opens a new one.
void fs_app::close_minute(bool clear) {
  cur_db->e_flush(min_e);
  uint64_t mask = rec_get_mask(hour_e);
  mask |= 1ULL << minute_bit(min_e.time);
  rec_set_mask(hour_e, mask);
  rec_set_events(hour_e, rec_get_events(hour_e) | rec_get_events(min_e));
  cur_db->e_flush(hour_e);
  if (clear) memset(&min_e, 0, sizeof min_e);
  min_dirty = 0;
}

int fs_app::db_write(fs_db* db, int time, int len, const void* block) {
  if (db == nullptr) return -1;
  head_t h;
  memcpy(&h, block, sizeof h);

  // Minute boundary: store the finished minute's records, then close it.
  if (min_e.name[0] != 0 && time / 60 != min_e.time / 60) {
    if (writeback_motion_info(db) != 0) fs_log("db_write", 843, "Write Motion Data back Error\n");
    if (writeback_log_info(db) != 0) fs_log("db_write", 845, "Write Log Data back Error\n");
    if (writeback_Iframe_info(db) != 0) fs_log("db_write", 849, "Write I Frame back Error\n");
    if (min_dirty) close_minute(true);
    // A minute left clean by a flush is finished all the same: its records and index
    // are written, and a block of the next minute must open a new entry rather than
    // land behind that index.
    memset(&min_e, 0, sizeof min_e);
  }

  int rc = 0;
  if (min_e.name[0] == 0) {
    char hour[32], minute[32];
    int day = time / 86400;
    int hod = (time / 3600) % 24;
    int moh = (time / 60) % 60;
    int som = time % 60;
    if (fs_access("/tmp/hdd", F_OK) == 0)
      snprintf(hour, sizeof hour, "HOUR_%d:%.2d:%.2d", day, hod, moh);
    else
      snprintf(hour, sizeof hour, "HOUR_%d:%.2d", day, hod);
    snprintf(minute, sizeof minute, "MIN_%.2d:%.2d", moh, som);

    if (db->f_query() < 0) return -1;
    // An entry that cannot be opened after its creation is not used: flushing an
    // unopened (zeroed) entry would overwrite entry 0 of the root table.
    if (db->f_create(0, 1, hour) != 0) {
      if (db->f_open(hour_e, 1, hour) != 0) return -1;
      rc = 1;
    } else {
      if (db->f_open(hour_e, 1, hour) != 0) return -1;
      hour_e.time = time;
      db->e_flush(hour_e);
      rc = 2;
    }
    int suffix = 0;
    while (db->f_create(1, 2, hour, minute) != 0) {
      if (++suffix > 30) return -1;
      snprintf(minute, sizeof minute, "MIN_%.2d:%.2d-%d", moh, som, suffix);
      fs_log("db_write", 897, "ERR: %s\n", minute);
    }
    if (db->f_open(min_e, 2, hour, minute) != 0) {
      memset(&min_e, 0, sizeof min_e);
      return -1;
    }
    min_e.time = time;
    if (create_motion_info(db) != 0) fs_log("db_write", 901, "Create Motion Data Fail.\n");
    if (create_log_info(db) != 0) fs_log("db_write", 904, "Create Log Info Fail.\n");
    if (min_e.name[0] == 0) return -1;
  }

  // Summaries first, so a block refused below is still counted.
  rec_set_mask(min_e, rec_get_mask(min_e) | (1ULL << second_bit(h.time)));
  rec_set_events(min_e, rec_get_events(min_e) | h.events);
  int chans = std::min(ch_num, kMaxChannels);
  for (int ch = 0; ch < chans; ch++) rec_add_count(min_e, ch, h.count[ch]);

  if (db->d_query(min_e, min_e.size, len) != 0) {
    if (min_dirty) {
      if (writeback_motion_info(db) != 0) fs_log("db_write", 919, "Write Motion Data back Error\n");
      if (writeback_log_info(db) != 0) fs_log("db_write", 921, "Write Log Data back Error\n");
      close_minute(false);
      pthread_mutex_lock(&iframe_mutex);
      iframe_lq.clear();
      iframe_hq.clear();
      pthread_mutex_unlock(&iframe_mutex);
    }
    return -1;
  }

  bool key = (h.types & BLOCK_KEY_BITS) != 0;
  if (key) {
    frame_info_t fi;
    fi.offset = min_e.size;
    fi.events = h.events;
    fi.time = h.time;
    pthread_mutex_lock(&iframe_mutex);
    append_key(iframe_lq, iframe_hq, h.stream, fi);
    pthread_mutex_unlock(&iframe_mutex);
  }

  if (db->d_write(min_e, min_e.size, len, block) != 0) {
    if (key) {
      pthread_mutex_lock(&iframe_mutex);
      drop_key(iframe_lq, iframe_hq, h.stream);
      pthread_mutex_unlock(&iframe_mutex);
    }
    return -2;
  }

  // The live event slot follows the wall clock, not the block time.
  int slot = live_slot(fs_time(), 5);
  pthread_mutex_lock(&log_mutex);
  log_info.rows[slot].Record |= h.events;
  pthread_mutex_unlock(&log_mutex);

  min_dirty = 1;
  return rc;
}

int fs_app::write(int time, int len, const void* block) {
  // Not even a whole header, or more than one region growth can take: refused before
  // any state changes, as the caller's mistake rather than a disk failure.
  if (block == nullptr || len < static_cast<int>(sizeof(head_t)) || len > kMaxBlock) return -1;

  if (fs_access("/zconf/rd/fs/test", R_OK) == 0) {
    // Test mode: the time of day runs ten times faster, wrapping within the day.
    long long day = static_cast<long long>(time / 86400) * 86400;
    time = static_cast<int>(day + ((static_cast<long long>(time) - day) * 10) % 86400);
  }

  int err = write_err.load(std::memory_order_relaxed);
  if (err != 0 && time / 60 == write_time.load(std::memory_order_relaxed) / 60) return err;

  if (db_cnt == 0) {
    fs_log("write", 718, "ERR: NO STORAGE\n");
    write_time.store(time, std::memory_order_relaxed);
    write_err.store(-1, std::memory_order_relaxed);
    return -1;
  }

  pthread_mutex_lock(&db_mutex);
  write_time.store(time, std::memory_order_relaxed);

  struct cand {
    int row;
    int last;
  };
  std::vector<cand> cands;
  bool built = false;
  size_t next = 0;
  int r;
  for (;;) {
    r = db_write(cur_db, time, len, block);
    if (r >= 0) break;
    if (!built) {
      built = true;
      for (int i = 0; i < db_cnt; i++) {
        fs_db* db = db_info[i].db;
        if (db == nullptr || db == cur_db || !db->q_writable()) continue;
        cands.push_back(cand{i, db->q_last()});
      }
      std::stable_sort(cands.begin(), cands.end(),
                       [](const cand& a, const cand& b) { return a.last > b.last; });
    }
    int chosen = -1;
    bool recycle = false;
    if (next < cands.size()) {
      chosen = cands[next++].row;
      fs_log("write", 778, "HDD%d: %s\n", chosen, db_info[chosen].model);
    } else {
      int best_first = 0;
      for (int i = 0; i < db_cnt; i++) {
        fs_db* db = db_info[i].db;
        if (db == nullptr || !db->q_overwritable()) continue;
        if (r == -2 && db == cur_db) continue;
        int first = db->q_first();
        fs_log("write", 790, "HDD%d: %s, first=%d\n", i, db_info[i].model, first);
        if (chosen < 0 || best_first < 0 || first < best_first) {
          chosen = i;
          best_first = first;
        }
      }
      recycle = true;
    }
    // Nothing to choose, or a disk to recycle that holds no hour any more: recycling
    // could not make room, and trying again would never end.
    bool empty = false;
    if (chosen >= 0 && recycle) {
      entryX_t x;
      empty = db_info[chosen].db->x_read(0, x) != 0 || x.num < 1;
    }
    if (chosen < 0 || empty) break;
    clear_writer(false);
    // The time of this block stays: a failure on the new disk must still hold off
    // further blocks of the same minute.
    write_time.store(time, std::memory_order_relaxed);
    cur_db = db_info[chosen].db;
    db_update.store(1, std::memory_order_relaxed);
    // A disk that cannot drop its oldest hour (its writes fail) makes no room either.
    if (recycle && cur_db->remove(1) != 0) break;
  }
  if (r < 0) {
    pthread_mutex_unlock(&db_mutex);
    write_err.store(-1, std::memory_order_relaxed);
    return -1;
  }

  if (r == 1 || r == 2) {
    int row = row_of(cur_db);
    fs_log("write", 744, "HDD%d: %s, %s / %s\n", row, row >= 0 ? db_info[row].model : "",
           hour_e.name, min_e.name);
    db_update.store(1, std::memory_order_relaxed);
  }
  if (last_write_ms.load(std::memory_order_relaxed) == 0)
    db_update.store(1, std::memory_order_relaxed);
  last_write_ms.store(static_cast<unsigned long long>(utime()), std::memory_order_relaxed);
  pthread_mutex_unlock(&db_mutex);
  write_err.store(0, std::memory_order_relaxed);
  return 0;
}

int fs_app::flush() {
  pthread_mutex_lock(&db_mutex);
  if (cur_db != nullptr && min_dirty) close_minute(false);
  pthread_mutex_unlock(&db_mutex);
  return 0;
}
