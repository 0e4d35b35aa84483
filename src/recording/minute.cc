// The life of a minute entry on the volume being recorded (cur_db): opening it (and
// its hour) for a block's time with the motion and event log records in front, closing
// it into its hour, and writing its records back at its end. The entries hour_e and
// min_e always belong to cur_db; every function here takes that volume as `db` only
// because the public signatures do, and asserts that it is the one.
#include <assert.h>
#include <ringrec/app_interface.h>
#include <ringrec/entry_names.h>
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "recording/payload.h"
#include "recording/writer.h"
#include "runtime/runtime.h"

namespace {

const int kMotionOff = MINUTE_MOTION_OFF;
const int kLogOff = MINUTE_LOG_OFF;
const int kMotionPayload = sizeof(motion_rec_t::grid);  // 15360
const int kLogPayload = sizeof(log_rec_t::rows);        // 1152
const int kMotionRowWords = 20;

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

int open_minute(fs_app& a, fs_db* db, int time) {
  assert(db == a.cur_db);
  char hour[32], minute[32];
  entry_hour_name(hour, time, fs_access(HDD_PER_MINUTE_MARKER, F_OK) == 0);
  entry_min_name(minute, time, 0);

  if (db->f_query() < 0) return fs_app::DB_WRITE_REFUSED;
  // An entry that cannot be opened after its creation is not used: flushing an
  // unopened (zeroed) entry would overwrite entry 0 of the root table.
  int rc;
  if (db->f_create(0, 1, hour) != 0) {
    if (db->f_open(a.hour_e, 1, hour) != 0) return fs_app::DB_WRITE_REFUSED;
    rc = fs_app::DB_WRITE_NEW_MINUTE;
  } else {
    if (db->f_open(a.hour_e, 1, hour) != 0) return fs_app::DB_WRITE_REFUSED;
    a.hour_e.time = time;
    db->e_flush(a.hour_e);
    rc = fs_app::DB_WRITE_NEW_HOUR;
  }
  int suffix = 0;
  while (db->f_create(1, 2, hour, minute) != 0) {
    if (++suffix > 30) return fs_app::DB_WRITE_REFUSED;
    entry_min_name(minute, time, suffix);
    fs_log("db_write", 897, "ERR: %s\n", minute);
  }
  if (db->f_open(a.min_e, 2, hour, minute) != 0) {
    memset(&a.min_e, 0, sizeof a.min_e);
    return fs_app::DB_WRITE_REFUSED;
  }
  a.min_e.time = time;
  if (a.create_motion_info(db) != 0) fs_log("db_write", 901, "Create Motion Data Fail.\n");
  if (a.create_log_info(db) != 0) fs_log("db_write", 904, "Create Log Info Fail.\n");
  if (a.min_e.name[0] == 0) return fs_app::DB_WRITE_REFUSED;
  return rc;
}

void finish_minute(fs_app& a, fs_db* db) {
  assert(db == a.cur_db);
  if (a.writeback_motion_info(db) != 0) fs_log("db_write", 843, "Write Motion Data back Error\n");
  if (a.writeback_log_info(db) != 0) fs_log("db_write", 845, "Write Log Data back Error\n");
  if (a.writeback_Iframe_info(db) != 0) fs_log("db_write", 849, "Write I Frame back Error\n");
  if (a.min_dirty) close_minute(a, db, true);
  // A minute left clean by a flush is finished all the same: its records and index
  // are written, and a block of the next minute must open a new entry rather than
  // land behind that index.
  memset(&a.min_e, 0, sizeof a.min_e);
}

void refuse_minute(fs_app& a, fs_db* db) {
  assert(db == a.cur_db);
  if (!a.min_dirty) return;
  if (a.writeback_motion_info(db) != 0) fs_log("db_write", 919, "Write Motion Data back Error\n");
  if (a.writeback_log_info(db) != 0) fs_log("db_write", 921, "Write Log Data back Error\n");
  close_minute(a, db, false);
  pthread_mutex_lock(&a.iframe_mutex);
  a.iframe_lq.clear();
  a.iframe_hq.clear();
  pthread_mutex_unlock(&a.iframe_mutex);
}

void close_minute(fs_app& a, fs_db* db, bool clear) {
  assert(db == a.cur_db);
  db->e_flush(a.min_e);
  uint64_t mask = rec_get_mask(a.hour_e);
  mask |= 1ULL << minute_bit(a.min_e.time);
  rec_set_mask(a.hour_e, mask);
  rec_set_events(a.hour_e, rec_get_events(a.hour_e) | rec_get_events(a.min_e));
  db->e_flush(a.hour_e);
  if (clear) memset(&a.min_e, 0, sizeof a.min_e);
  a.min_dirty = 0;
}

void flush_locked(fs_app& a) {
  if (a.cur_db != nullptr && a.min_dirty) close_minute(a, a.cur_db, false);
}

int fs_app::flush() {
  pthread_mutex_lock(&db_mutex);
  flush_locked(*this);
  pthread_mutex_unlock(&db_mutex);
  return 0;
}

int fs_app::create_motion_info(fs_db* db) {
  assert(db == cur_db);
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
    if (min_dirty) close_minute(*this, db, true);
    return -1;
  }
  return db->d_write(min_e, min_e.size, sizeof motion_info, buf) == 0 ? 0 : -2;
}

int fs_app::create_log_info(fs_db* db) {
  assert(db == cur_db);
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
    if (min_dirty) close_minute(*this, db, true);
    return -1;
  }
  return db->d_write(min_e, min_e.size, sizeof log_info, buf) == 0 ? 0 : -2;
}

int fs_app::writeback_motion_info(fs_db* db) {
  assert(db == cur_db);
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
  assert(db == cur_db);
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
