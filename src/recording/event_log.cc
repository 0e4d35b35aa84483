// The event log and motion records of a minute: live images fed by the detectors,
// stored at the start of every minute entry and written back at its end.
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "recording/payload.h"
#include "runtime/runtime.h"

namespace {

const int kMotionOff = MINUTE_MOTION_OFF;
const int kLogOff = MINUTE_LOG_OFF;
const int kLogDataOff = MINUTE_LOG_DATA_OFF;
const int kMotionPayload = sizeof(motion_rec_t::grid);  // 15360
const int kLogPayload = sizeof(log_rec_t::rows);        // 1152
const int kMotionSlots = 6;
const int kMotionRowWords = 20;
const int kMotionChannels = 32;

void fill_head(head_t& h, uint32_t type, int32_t time, int32_t size, uint32_t w7, uint32_t w8) {
  h.type = type;
  h.time = time;
  h.frames = w7;
  h.types = w8;
  block_seal(h, size);
}

bool head_ok(const head_t& h, uint32_t type) { return block_head_valid(h) && h.type == type; }

unsigned char* ensure(unsigned char*& buf, size_t n) {
  if (buf == nullptr) buf = static_cast<unsigned char*>(malloc(n));
  return buf;
}

}  // namespace

int fs_app::set_log_info(int vloss, int motion, int sensor, int m4, int m5, int m6, int m7) {
  int slot = live_slot(fs_time(), 5);
  pthread_mutex_lock(&log_mutex);
  event_t& r = log_info.rows[slot];
  r.Vloss |= static_cast<uint32_t>(vloss);
  r.Motion |= static_cast<uint32_t>(motion);
  r.Sensor |= static_cast<uint32_t>(sensor);
  r.mask[0] |= static_cast<uint32_t>(m4);
  r.mask[1] |= static_cast<uint32_t>(m5);
  r.mask[2] |= static_cast<uint32_t>(m6);
  r.mask[3] |= static_cast<uint32_t>(m7);
  pthread_mutex_unlock(&log_mutex);
  return 0;
}

int fs_app::set_motion_info(int ch, unsigned int* mask, int n) {
  // The record has rows for 32 channels of 20 words each; a report outside that would
  // write past the image, so the channel is ignored and the word count clamped.
  if (ch < 0 || ch >= kMotionChannels) return 0;
  if (n > kMotionRowWords) n = kMotionRowWords;
  int slot = live_slot(fs_time(), 10);
  pthread_mutex_lock(&motion_mutex);
  motion_info.head.events |= 1u << ch;
  for (int i = 0; i < n; i++) motion_info.grid[slot][ch][i] |= mask[i];
  pthread_mutex_unlock(&motion_mutex);
  return 0;
}

int fs_app::create_motion_info(fs_db* db) {
  if (min_e.size != 0) return 0;
  pthread_mutex_lock(&motion_mutex);
  memset(&motion_info, 0, sizeof motion_info);
  fill_head(motion_info.head, BLOCK_MOTION, static_cast<int32_t>(fs_time()), kMotionPayload,
            kMotionRowWords, BLOCK_CODE_MOTION);
  block_tail(motion_info.tail, kMotionPayload);
  unsigned char* buf = ensure(motion_buf, sizeof motion_info);
  if (buf != nullptr) memcpy(buf, &motion_info, sizeof motion_info);
  pthread_mutex_unlock(&motion_mutex);
  if (buf == nullptr) return -1;
  if (db->d_query(min_e, min_e.size, sizeof motion_info) != 0) {
    if (min_dirty) close_minute(true);
    return -1;
  }
  return db->d_write(min_e, min_e.size, sizeof motion_info, buf) == 0 ? 0 : -2;
}

int fs_app::create_log_info(fs_db* db) {
  pthread_mutex_lock(&log_mutex);
  memset(&log_info, 0, sizeof log_info);
  fill_head(log_info.head, BLOCK_LOG, static_cast<int32_t>(fs_time()), kLogPayload, 6,
            BLOCK_CODE_LOG);
  block_tail(log_info.tail, kLogPayload);
  unsigned char* buf = ensure(log_buf, sizeof log_info);
  if (buf != nullptr) memcpy(buf, &log_info, sizeof log_info);
  pthread_mutex_unlock(&log_mutex);
  if (buf == nullptr) return -1;
  if (db->d_query(min_e, min_e.size, sizeof log_info) != 0) {
    if (min_dirty) close_minute(true);
    return -1;
  }
  return db->d_write(min_e, min_e.size, sizeof log_info, buf) == 0 ? 0 : -2;
}

int fs_app::writeback_motion_info(fs_db* db) {
  head_t h;
  if (db->d_read(min_e, kMotionOff, sizeof h, &h) != 0 || !head_ok(h, BLOCK_MOTION)) return -1;
  pthread_mutex_lock(&motion_mutex);
  unsigned char* buf = ensure(motion_buf, sizeof motion_info);
  if (buf != nullptr) memcpy(buf, &motion_info, sizeof motion_info);
  pthread_mutex_unlock(&motion_mutex);
  if (buf == nullptr) return -1;
  return db->d_write(min_e, kMotionOff, sizeof motion_info, buf) == 0 ? 0 : -2;
}

int fs_app::writeback_log_info(fs_db* db) {
  head_t h;
  if (db->d_read(min_e, kLogOff, sizeof h, &h) != 0) return -1;
  if (!head_ok(h, BLOCK_LOG)) {
    fs_log("writeback_log_info", 4465, "head.type: 0x%X\n", h.type);
    return -1;
  }
  pthread_mutex_lock(&log_mutex);
  unsigned char* buf = ensure(log_buf, sizeof log_info);
  if (buf != nullptr) memcpy(buf, &log_info, sizeof log_info);
  pthread_mutex_unlock(&log_mutex);
  if (buf == nullptr) return -1;
  return db->d_write(min_e, kLogOff, sizeof log_info, buf) == 0 ? 0 : -2;
}

void fs_app::read_Log_info(fs_db* db, int) {
  head_t h;
  bool ok = db != nullptr && db->d_read(r_cur.min, kLogOff, sizeof h, &h) == 0 && head_ok(h, BLOCK_LOG);
  if (ok) {
    // The table holds 12 rows; a longer or negative size read from the disk is cut to
    // what fits.
    int size = h.size;
    if (size < 0) size = 0;
    if (size > kLogPayload) size = kLogPayload;
    ok = db->d_read(r_cur.min, kLogDataOff, size, events) == 0;
    if (ok) {
      event_cnt = size / static_cast<int>(sizeof(event_t));
      if (event_fn != nullptr && event_cnt >= 1)
        for (int i = 0; i < event_cnt; i++) event_fn(event_ctx, i, &events[i]);
      if (fs_access("/tmp/fs_debug", F_OK) == 0)
        for (int i = 0; i < event_cnt; i++)
          fs_log("read_Log_info", 1945,
                 "Event[%02d].Record: 0x%X, Vloss: 0x%X, Motion: 0x%X, Sensor: 0x%X\n", i,
                 events[i].Record, events[i].Vloss, events[i].Motion, events[i].Sensor);
      return;
    }
  }
  memset(events, 0, sizeof events);
  if (event_fn != nullptr)
    for (int i = 0; i < event_cnt && i < 12; i++) event_fn(event_ctx, i, &events[i]);
}
