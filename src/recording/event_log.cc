// The event log and motion records of a minute: the live images the detector threads
// feed, and reading a stored event log back. Storing them in the minute entry is part
// of the minute's life (minute.cc).
#include <ringrec/app_interface.h>
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "recording/payload.h"
#include "runtime/runtime.h"

namespace {

const int kLogOff = MINUTE_LOG_OFF;
const int kLogDataOff = MINUTE_LOG_DATA_OFF;
const int kLogPayload = sizeof(log_rec_t::rows);  // 1152
const int kMotionRowWords = 20;
const int kMotionChannels = 32;

bool head_ok(const head_t& h, uint32_t type) { return block_head_valid(h) && h.type == type; }

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

void fs_app::read_Log_info(fs_db* db, int) {
  head_t h;
  bool ok =
      db != nullptr && db->d_read(r_cur.min, kLogOff, sizeof h, &h) == 0 && head_ok(h, BLOCK_LOG);
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
      if (fs_access(FS_DEBUG_MARKER, F_OK) == 0)
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
