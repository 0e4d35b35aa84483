#include "player.h"

#include <ringrec/ringrec.h>

namespace tool {

namespace {

// The kinds of key-frame index the cursor loads: one of frame_info_t records (offset,
// event bits, time) per key frame, or one of bare offsets.
bool index_of_records(int kind) { return kind == 13 || kind == 14; }
bool index_of_offsets(int kind) { return kind == 9 || kind == 10; }

}  // namespace

player::player(fs_app& app, int dir, bool keyframes, uint32_t mask, int step)
    : app_(app), dir_(dir >= 0 ? 1 : -1), keyframes_(keyframes), mask_(mask), step_(step) {}

// Into the next minute in the playing direction. The library's walk is circular; a
// minute that does not lie further on in time means the recording has been played.
bool player::next_minute() {
  if (app_.r_next(dir_) != 0) return false;
  int32_t t = app_.r_cur.min.time;
  if (dir_ > 0 ? t <= minute_time_ : t >= minute_time_) return false;
  minute_time_ = t;
  return true;
}

// Makes the main stream's key-frame slot agree with the cursor before a jump: its
// position is the first key frame beyond the cursor in the playing direction and its
// last time that of the last block shown, so the spacing counts from what was shown,
// also across minutes (each minute's index starts afresh). The library's own
// re-alignment after plain steps would take the time of the record after the one it
// lands on. An index of bare offsets re-aligns itself by offset when asked to.
void player::resync() {
  r_iframe_t& s = app_.r_iframe[1];
  if (index_of_offsets(s.kind)) {
    app_.r_cur.stepped[1] = 1;
    return;
  }
  app_.r_cur.stepped[1] = 0;
  if (!index_of_records(s.kind)) return;
  long long off = app_.r_cur.off;
  int pos = dir_ > 0 ? s.count : -1;
  for (int k = 0; k < s.count; k++) {
    int i = dir_ > 0 ? k : s.count - 1 - k;
    long long o = s.infos[i].offset;  // a copy: the record is packed
    if (dir_ > 0 ? o > off : o < off) {
      pos = i;
      break;
    }
  }
  s.pos = pos;
  s.time = static_cast<int32_t>(last_shown_);
}

// One step; false at the end of the recording.
bool player::move() {
  if (!keyframes_) return app_.r_seek(dir_) == 0 || next_minute();
  resync();
  int before = app_.r_cur.off;
  bool records = index_of_records(app_.r_iframe[1].kind);
  int r = app_.r_Iseek(dir_, true, static_cast<int>(mask_), records ? dir_ * step_ : 0);
  if (r == 0 && app_.r_cur.off != before) return true;
  // No further key frame with the wanted channels and spacing in this minute's index
  // of records; without such an index (or in its last slot, which a forward jump
  // never takes) block steps go on and the tool keeps the spacing itself.
  if (records && r != 0 && app_.r_iframe[1].pos != app_.r_iframe[1].count - 1) return next_minute();
  return app_.r_seek(dir_) == 0 || next_minute();
}

// A block to show: any frame block; with keyframes a key-frame block of the main stream
// carrying a wanted channel at least `step` seconds from the last one shown (or in the
// same second, as the library's own spacing test allows).
bool player::wanted(const head_t& h) const {
  if (!keyframes_) return true;
  if ((h.types & BLOCK_KEY_BITS) == 0 || h.stream == BLOCK_STREAM_SUB || (h.events & mask_) == 0)
    return false;
  long long t = h.time;
  return step_ <= 0 || t == last_shown_ ||
         (dir_ > 0 ? t > last_shown_ + step_ : t < last_shown_ - step_);
}

// The block under the cursor. A block that does not read (damage, or one still being
// written) is jumped over to the next key frame of the minute's index, or to the next
// minute without one; the span lost is kept in gaps.
head_t* player::read_or_jump() {
  for (int guard = 0; guard < 100000; guard++) {
    head_t* h = app_.r_head();
    if (h != nullptr) return h;
    play_gap g;
    g.minute.assign(app_.r_cur.min.name, strnlen(app_.r_cur.min.name, sizeof app_.r_cur.min.name));
    g.slot = app_.row_of(app_.r_cur.db);
    g.offset = app_.r_cur.off;
    g.from = last_read_;
    g.to = -1;
    gaps.push_back(g);
    long long saved = last_shown_;
    uint32_t mask = mask_;
    int step = step_;
    last_shown_ = last_read_;
    mask_ = 0xFFFFFFFFu;
    step_ = 0;
    resync();
    int before = app_.r_cur.off;
    bool jumped =
        (index_of_records(app_.r_iframe[1].kind) || index_of_offsets(app_.r_iframe[1].kind)) &&
        app_.r_Iseek(dir_, true, -1, 0) == 0 && app_.r_cur.off != before;
    last_shown_ = saved;
    mask_ = mask;
    step_ = step;
    if (!jumped && !next_minute()) return nullptr;
  }
  return nullptr;
}

head_t* player::settle(bool moved) {
  for (long long guard = 0; guard < 10000000; guard++) {
    if (!moved && !move()) return nullptr;
    moved = false;
    head_t* h = read_or_jump();
    if (h == nullptr) return nullptr;
    if (block_is_record(h->type)) continue;
    last_read_ = h->time;
    if (!gaps.empty() && gaps.back().to < 0) gaps.back().to = h->time;
    if (!wanted(*h)) continue;
    last_shown_ = h->time;
    return h;
  }
  return nullptr;
}

// Backwards from `at`: r_set leaves the cursor on the first block at or after it, or on
// one of the minute's own records at its start (their times are when they were written),
// or, when the minute it chose ends before `at`, where it was. Forwards over records and
// blocks at or before `at` (into later minutes too: a minute split between two disks
// goes on on the other), then one step back: the last block at or before `at`.
void player::back_to(long long at) {
  for (int guard = 0; guard < 10000000; guard++) {
    head_t* h = app_.r_head();
    if (h == nullptr) return;
    if (!block_is_record(h->type) && h->time > at) {
      app_.r_seek(-1);
      return;
    }
    int here = app_.r_cur.off;
    if (app_.r_seek(1) == 0) continue;
    int32_t t = app_.r_cur.min.time;
    if (app_.r_next(1) == 0) {
      if (app_.r_cur.min.time > t) {
        minute_time_ = app_.r_cur.min.time;
        continue;
      }
      // The walk wrapped to the oldest minute: back to the end of this one.
      app_.r_next(-1);
      return;
    }
    app_.r_cur.off = here;
    app_.r_head();
    return;
  }
}

head_t* player::start(long long at) {
  minute_time_ = app_.r_cur.min.time;
  last_shown_ = dir_ > 0 ? at - step_ - 1 : at + step_ + 1;
  if (dir_ < 0) back_to(at);
  head_t* h = app_.r_head();
  bool here = h != nullptr && !block_is_record(h->type) &&
              (dir_ > 0 ? h->time >= at : h->time <= at) && wanted(*h);
  for (;;) {
    h = settle(here);
    here = false;
    if (h == nullptr || dir_ < 0 || h->time >= at) return h;
  }
}

head_t* player::next() { return settle(false); }

std::string block_kind(const head_t& h) {
  std::string s = h.stream == BLOCK_STREAM_SUB ? "sub" : "main";
  if (h.types & BLOCK_KEY_BITS) s += " key";
  return s;
}

}  // namespace tool
