// The frame write path: disk choice, hour and minute entries, the per-second,
// per-minute, per-channel and event summaries, and the minute boundary.
#include <assert.h>
#include <ringrec/app_interface.h>
#include <ringrec/fs_app.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "recording/payload.h"
#include "recording/writer.h"
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

int fs_app::db_write(fs_db* db, int time, int len, const void* block) {
  if (db == nullptr) return DB_WRITE_REFUSED;
  // The open hour and minute entries belong to the volume being recorded.
  assert(db == cur_db);
  head_t h;
  memcpy(&h, block, sizeof h);

  // Minute boundary: store the finished minute's records, then close it.
  if (min_e.name[0] != 0 && time / 60 != min_e.time / 60) finish_minute(*this, db);

  int rc = DB_WRITE_APPENDED;
  if (min_e.name[0] == 0) {
    rc = open_minute(*this, db, time);
    if (rc < 0) return rc;
  }

  // Summaries first, so a block refused below is still counted.
  rec_set_mask(min_e, rec_get_mask(min_e) | (1ULL << second_bit(h.time)));
  rec_set_events(min_e, rec_get_events(min_e) | h.events);
  int chans = std::min(ch_num, kMaxChannels);
  for (int ch = 0; ch < chans; ch++) rec_add_count(min_e, ch, h.count[ch]);

  if (db->d_query(min_e, min_e.size, len) != 0) {
    refuse_minute(*this, db);
    return DB_WRITE_REFUSED;
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
    return DB_WRITE_FAILED;
  }

  // The live event slot follows the wall clock, not the block time.
  int slot = live_slot(fs_time(), 5);
  pthread_mutex_lock(&log_mutex);
  log_info.rows[slot].Record |= h.events;
  pthread_mutex_unlock(&log_mutex);

  min_dirty = 1;
  return rc;
}

// The disk to try after db_write failed with r. First the other writable disks, the one
// holding the newest recording first (the list is made at the first failure of a
// write); then, without recycling left, the overwritable disk whose oldest hour is
// oldest, to be recycled (the current disk too when it is full, not when its write
// failed). Returns its row, or -1 when there is none.
int next_disk(fs_app& a, int r, disk_order& order, bool* recycle) {
  if (!order.built) {
    order.built = true;
    std::vector<std::pair<int, int>> last;  // row, q_last
    for (int i = 0; i < a.db_cnt; i++) {
      fs_db* db = a.db_info[i].db;
      if (db == nullptr || db == a.cur_db || !db->q_writable()) continue;
      last.push_back({i, db->q_last()});
    }
    std::stable_sort(last.begin(), last.end(),
                     [](const std::pair<int, int>& a, const std::pair<int, int>& b) {
                       return a.second > b.second;
                     });
    for (const auto& p : last) order.rows.push_back(p.first);
  }
  *recycle = false;
  if (order.next < order.rows.size()) {
    int chosen = order.rows[order.next++];
    fs_log("write", 778, "HDD%d: %s\n", chosen, a.db_info[chosen].model);
    return chosen;
  }
  int chosen = -1, best_first = 0;
  for (int i = 0; i < a.db_cnt; i++) {
    fs_db* db = a.db_info[i].db;
    if (db == nullptr || !db->q_overwritable()) continue;
    if (r == fs_app::DB_WRITE_FAILED && db == a.cur_db) continue;
    int first = db->q_first();
    fs_log("write", 790, "HDD%d: %s, first=%d\n", i, a.db_info[i].model, first);
    if (chosen < 0 || best_first < 0 || first < best_first) {
      chosen = i;
      best_first = first;
    }
  }
  *recycle = true;
  return chosen;
}

int fs_app::write(int time, int len, const void* block) {
  // Not even a whole header, or more than one region growth can take: refused before
  // any state changes, as the caller's mistake rather than a disk failure.
  if (block == nullptr || len < static_cast<int>(sizeof(head_t)) || len > kMaxBlock) return -1;

  if (fs_access(TEST_MODE_MARKER, R_OK) == 0) {
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

  disk_order order;
  int r;
  for (;;) {
    r = db_write(cur_db, time, len, block);
    if (r >= 0) break;
    bool recycle = false;
    int chosen = next_disk(*this, r, order, &recycle);
    // Nothing to choose, or a disk to recycle that holds no hour any more: recycling
    // could not make room, and trying again would never end.
    bool empty = false;
    if (chosen >= 0 && recycle) {
      entryX_t x;
      empty = db_info[chosen].db->x_read(0, x) != 0 || x.num < 1;
    }
    if (chosen < 0 || empty) break;
    clear_writer(*this, false);
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

  if (r == DB_WRITE_NEW_MINUTE || r == DB_WRITE_NEW_HOUR) {
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
