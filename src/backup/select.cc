// Backup selection and source reading: which hours of which volumes hold the chosen
// range, reading their stored blocks back one at a time, classifying frames, and
// progress reported to the application through its System V semaphore set.
#include <ringrec/app_interface.h>
#include <ringrec/fs_app.h>
#include <ringrec/fs_mp4.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "backup/backup.h"
#include "playback/table_walk.h"
#include "recording/payload.h"
#include "runtime/runtime.h"

namespace {

// semctl's fourth argument, which the C library leaves to the caller to declare.
union semun_arg {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
};

// A minute entry has no channel word of its own: its payload carries one frame count
// per channel, and a channel was recorded in the minute when its count is positive.
uint32_t minute_channels(const entry_t& e) {
  uint32_t bits = 0;
  for (int ch = 0; ch < 32; ch++)
    if (rec_get_count(e, ch) > 0) bits |= 1u << ch;
  return bits;
}

// The selection state that bk_set and bk_multi_set fill, whichever of the two it is.
struct pick {
  const char* fn;
  int32_t& cap;
  int32_t& num;
  bk_item_t*& items;
  int32_t& total;
};

// Appends one item; false when the array cannot grow (the hour is then left out).
bool add_item(pick& p, fs_db* db, const entryX_t& x, const entry_t& e) {
  if (p.num == p.cap) {
    void* grown = realloc(p.items, (static_cast<size_t>(p.cap) + 10) * sizeof(bk_item_t));
    if (grown == nullptr) return false;
    p.items = static_cast<bk_item_t*>(grown);
    p.cap += 10;
  }
  bk_item_t& it = p.items[p.num];
  memset(&it, 0, sizeof it);
  it.db = db;
  it.x = x;
  it.e = e;
  it.off = 0;
  return true;
}

// Selects, over every volume of the disk set, the hours holding a minute of
// [beg, end] (end 0: no upper bound) recorded on a channel of mask.
void select_range(fs_app& app, pick& p, int beg, int end, uint32_t mask) {
  int nch = bk_channels(mask);
  for (int i = 0; i < app.db_cnt && i < DB_DISKS_MAX; i++) {
    fs_db* db = app.db_info[i].db;
    if (db == nullptr || db->q_key() == 0) continue;
    entryX_t root;
    if (db->x_read(0, root) != 0) {
      fs_log(p.fn, 2517, "ERR\n");
      continue;
    }
    int nroot = pb::table_len(db, root, nullptr);
    for (int r = 0; r < nroot; r++) {
      entry_t h;
      if (db->e_read(root, r, h) != 0) break;
      if (!pb::is_hour(h) || !pb::hour_in(h.time, beg, end)) continue;
      entryX_t x;
      if (db->x_read(h.offset, x) != 0) {
        fs_log(p.fn, 2541, "ERR\n");
        continue;
      }
      // The count comes from the disk; visiting it is bounded by where the table lies,
      // and the work estimate takes the same bound so that nch * count cannot overflow.
      int nmin = pb::table_len(db, x, &h);
      if (nmin <= 0) continue;
      entry_t m;
      bool found = false;
      for (int j = 0; j < nmin && !found; j++) {
        if (db->e_read(x, j, m) != 0) break;
        found = pb::is_min(m) && (minute_channels(m) & mask) != 0 && m.size != 0 &&
                pb::min_in(m.time, beg, end);
      }
      if (!found) continue;
      if (!add_item(p, db, x, m)) continue;
      p.total += nch * nmin;
      p.num++;
      fs_log(p.fn, 2566, "%.2d: %.32s / %.32s\n", p.num, h.name, m.name);
    }
  }
}

}  // namespace

int bk_channels(uint32_t mask) {
  int n = 0;
  for (; mask != 0; mask &= mask - 1) n++;
  return n;
}

int bk_percent(int done, int total) {
  // A mask without channels selects hours but no work: nothing to measure progress
  // against, so the run counts as complete rather than dividing by zero.
  if (total == 0) return 100;
  if (total == -1) return static_cast<int>(-(static_cast<long long>(done) * 100));
  return static_cast<int>(static_cast<long long>(done) * 100 / total);
}

bool bk_cancelled() { return fs_access(BK_CANCEL_MARKER, R_OK) == 0; }

int fs_app::bk_set(int beg, int end, int chbits) {
  memset(&bk_state, 0, sizeof bk_state);
  bk_window.drop();
  bk_state.beg = beg;
  bk_state.end = end;
  pick p = {"bk_set", bk_state.cap, bk_state.num, bk_state.items, bk_state.total};
  select_range(*this, p, beg, end, static_cast<uint32_t>(chbits));
  return bk_state.num;
}

// The multi state holds five ranges (start, end and mask arrays of five words each).
// A sixth slot would be stored past those arrays into the fields that follow them and
// be read back through slot numbers the state does not have, so more are refused.
int fs_app::bk_multi_set(int* beg, int* end, int* chbits, int n) {
  memset(&bk_multi_state, 0, sizeof bk_multi_state);
  bk_window.drop();
  if (n < 1) return bk_multi_state.num;
  fs_log("bk_multi_set", 2618, "beg=%d, end=%d, chbits=0x%X\n", beg[0], end[0],
         static_cast<unsigned>(chbits[0]));
  if (n > kBkSlots) {
    fs_log("bk_multi_set", 2621, "ERR: n = %d, max %d\n", n, kBkSlots);
    return -1;
  }
  for (int s = 0; s < n; s++) {
    bk_multi_state.beg[s] = beg[s];
    bk_multi_state.end[s] = end[s];
    bk_multi_state.chbits[s] = chbits[s];
  }
  pick p = {"bk_multi_set", bk_multi_state.cap, bk_multi_state.num, bk_multi_state.items,
            bk_multi_state.total};
  for (int s = 0; s < n; s++)
    select_range(*this, p, beg[s], end[s], static_cast<uint32_t>(chbits[s]));
  return bk_multi_state.num;
}

namespace {

int check_frame(const char* fn, frame_head_t* f, int& ch, uint32_t sub_stream) {
  uint32_t type = f->type;
  if (type >= FRAME_INVALID) {
    fs_log(fn, 2731, "ERR\n");
    return -1;
  }
  if (frame_is_video(type)) {
    if (f->stream == 0 || f->stream == 1 || f->stream == sub_stream) ch = static_cast<int>(f->ch);
  } else if (type == FRAME_AUDIO) {
    ch = static_cast<int>(f->ch);
  }
  return 0;
}

}  // namespace

int fs_app::bk_check(frame_head_t* f, int& ch) {
  return check_frame("bk_check", f, ch, BLOCK_STREAM_MAIN);
}

int fs_app::bk_check_LQ(frame_head_t* f, int& ch) {
  return check_frame("bk_check_LQ", f, ch, BLOCK_STREAM_SUB);
}

namespace {

// The throttle and the post shared by bk_sem and bk_multi_sem.
void post_progress(const char* fn, int enabled, int32_t& last_time, int32_t& last_result,
                   int32_t& last_progress, int v, int ret) {
  if (!enabled) return;
  if (v <= last_progress && ret == last_result) return;
  int32_t now = static_cast<int32_t>(fs_time());
  if (now == last_time && v % 10 != 0 && ret == last_result) return;
  last_time = now;
  last_result = ret;
  last_progress = v;
  // The application creates the set; a backup only posts to it.
  std::string dot = fs_path("/.");
  key_t key = ftok(dot.c_str(), BK_SEM_PROJ);
  int id = key == static_cast<key_t>(-1) ? -1 : semget(key, 2, 0);
  if (id >= 0) {
    semun_arg a;
    a.val = v;
    semctl(id, 0, SETVAL, a);
    a.val = ret;
    semctl(id, 1, SETVAL, a);
  }
  fs_log(fn, 2790, "PROGRESS: v=%.3d, ret=%d\n", v, ret);
}

}  // namespace

void fs_app::bk_sem(int v, int ret) {
  post_progress("bk_sem", r_cur.sem_mode, bk_state.last_time, bk_state.last_result,
                bk_state.last_progress, v, ret);
}

void fs_app::bk_multi_sem(int v, int ret) {
  post_progress("bk_multi_sem", r_cur.sem_mode, bk_multi_state.last_time,
                bk_multi_state.last_result, bk_multi_state.last_progress, v, ret);
}

int fs_app::bk_over() {
  bk_sem(100, 1);
  return 0;
}

int fs_app::bk_clr() {
  // A writer left open by a run that ended without bk_close is owned by its item.
  if (bk_state.cap != 0) bk_free_items(bk_state.items, bk_state.cap, bk_state.num);
  memset(&bk_state, 0, sizeof bk_state);
  return 0;
}

void bk_free_items(bk_item_t*& items, int32_t& cap, int32_t num) {
  for (int i = 0; i < num && items != nullptr; i++) {
    delete items[i].mp4;
    items[i].mp4 = nullptr;
  }
  free(items);
  items = nullptr;
  cap = 0;
}
