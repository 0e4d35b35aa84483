// The recording room's own helpers on the service object: clearing the writer and
// cursor blocks, the life of the minute being recorded, and the choice of the next disk
// after a failed write. Internal to the library; every function takes the object whose
// db_mutex the caller holds.
#ifndef RINGREC_RECORDING_WRITER_H
#define RINGREC_RECORDING_WRITER_H

#include <ringrec/fs_app.h>
#include <stddef.h>

#include <vector>

void clear_writer(fs_app& a, bool keep_err);
void clear_playback(fs_app& a);  // keeps the progress mode

// The minute on the volume being recorded; db is a.cur_db.
int open_minute(fs_app& a, fs_db* db, int time);  // a DB_WRITE_ result
void finish_minute(fs_app& a, fs_db* db);         // at the minute boundary
void refuse_minute(fs_app& a, fs_db* db);         // a block did not fit: close what was written
// Marks the minute in its hour and makes both entries durable; `clear` drops the minute.
void close_minute(fs_app& a, fs_db* db, bool clear);
void flush_locked(fs_app& a);  // flush's work, with db_mutex held

// The disks write tries in turn after a failure.
struct disk_order {
  std::vector<int> rows;  // the other writable disks, newest recording first
  bool built = false;
  size_t next = 0;
};
int next_disk(fs_app& a, int r, disk_order& order, bool* recycle);

#endif
