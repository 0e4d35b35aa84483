// The recording service: one object per recorder process. It finds the internal disks,
// keeps one volume open on each, records blocks of frames into hour and minute entries
// with their summaries, key-frame indexes, event logs and motion records, and holds the
// state that search, playback and backup share. Plain class, integer status.
#ifndef RINGREC_FS_APP_H
#define RINGREC_FS_APP_H

#include <pthread.h>
#include <ringrec/fs_db.h>
#include <ringrec/records.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <vector>

class fs_mp4;

#pragma pack(push, 1)

// Motion record of one minute, 15656 bytes, stored at data offset 0 of the minute entry.
//   off    size  field
//     0     288  head   type 4, size 15360, word 7 = 20, word 8 = 0x10,
//                       word 10 = channels that reported motion in the minute
//   288   15360  grid   6 slots of 10 s x 32 channel rows x 20 mask words
// 15648       8  tail   0xFFFFEDCB, 15360
struct motion_rec_t {
  head_t head;
  uint32_t grid[6][32][20];
  uint32_t tail[2];
};

// Event log record of one minute, 1448 bytes, stored at data offset 15656.
//   off  size  field
//     0   288  head   type 8, size 1152, word 7 = 6, word 8 = 0x100
//   288  1152  rows   12 slots of 5 s, one event_t each
//  1440     8  tail   0xFFFFEDCB, 1152
struct log_rec_t {
  head_t head;
  event_t rows[12];
  uint32_t tail[2];
};

#pragma pack(pop)

static_assert(sizeof(motion_rec_t) == 15656, "motion record is 15656 bytes");
static_assert(offsetof(motion_rec_t, grid) == 288, "motion_rec_t.grid");
static_assert(offsetof(motion_rec_t, tail) == 15648, "motion_rec_t.tail");
static_assert(sizeof(log_rec_t) == 1448, "event log record is 1448 bytes");
static_assert(offsetof(log_rec_t, rows) == 288, "log_rec_t.rows");
static_assert(offsetof(log_rec_t, tail) == 1440, "log_rec_t.tail");

// One row of the disk table.
struct db_info_t {
  fs_db* db;          // the volume, owned by the service; null when the row is unused
  char dev[20];       // "/dev/sda"
  char rsv0[44];      // not used by the recording service
  char model[68];     // model text of the drive, or "RAID"
  long long size_kb;  // size in 1 KiB blocks as /proc/partitions gives it
  char rsv1[16];      // not used by the recording service
};

// One selected hour of a backup.
struct bk_item_t {
  int32_t rsv[2];    // zero after selection
  fs_db* db;         // volume holding the hour
  entryX_t x;        // the hour's minute table header
  entry_t e;         // first matching minute entry: reading starts here
  uint32_t off;      // start offset in e's data
  int32_t resume;    // a writer stopped early because a new output file must begin
  entry_t resume_e;  // entry it stopped in
  int32_t resume_off;
  fs_mp4* mp4;  // open MP4 writer of the item, owned; null when none
};

// Progress of a backup: the single selection and the multi-slot selection.
struct bk_state_t {
  int32_t beg, end;
  int32_t cap, num;
  bk_item_t* items;
  int32_t total, done;
  int32_t last_time, last_result, last_progress;
};
struct bk_multi_state_t {
  int32_t beg[5], end[5], chbits[5];
  int32_t cap, num;
  bk_item_t* items;
  int32_t total, done;
  int32_t last_time, last_result, last_progress;
};

// The playback cursor; cleared as one block together with the writer state. The 8-byte
// tail of the previous block sits directly before the current block's head so that one
// 296-byte read at (offset - 8) fills both.
struct r_cursor_t {
  fs_db* db;         // volume of the slot holding the current minute, or null
  entry_t hour;      // current hour entry
  entry_t min;       // current minute entry
  int32_t tail[2];   // sync, size of the previous block
  head_t head;       // the current block's head
  int32_t off;       // data offset of the current block's head
  char stepped[2];   // set by r_seek, cleared by the next key-frame jump of the slot
  int32_t sem_mode;  // progress reports: set by sem_mode, 1 after construction; shared
                     // with backup and kept when the cursor is cleared
};

// Key-frame state of one stream for playback: 0 the substream (LQ), 1 the main stream.
struct r_iframe_t {
  int32_t kind;         // 9/10 index of bare offsets, 13/14 of frame_info_t; else none
  long long* offs;      // bare offsets (kinds 9, 10)
  int32_t offs_cap;     // entries allocated
  frame_info_t* infos;  // records (kinds 13, 14)
  int32_t infos_cap;    // entries allocated
  int32_t pos;          // current entry
  int32_t count;        // entries loaded
  int32_t time;         // time of the entry last reached (kinds 13, 14)
};

class fs_app {
 public:
  // ---- writer state (recording) -----------------------------------------------------
  int ch_num;
  motion_rec_t motion_info;   // live image of the current minute (motion_mutex)
  unsigned char* motion_buf;  // write-back copy
  log_rec_t log_info;         // live image; its rows are the live event slots (log_mutex)
  unsigned char* log_buf;
  std::vector<frame_info_t> iframe_lq;  // key frames of the current minute (iframe_mutex)
  std::vector<frame_info_t> iframe_hq;
  int iframe_cap;  // payload bytes iframe_buf holds beyond head and tail
  unsigned char* iframe_buf;

  // Lock order: db_mutex, then motion_mutex, log_mutex, iframe_mutex.
  pthread_mutex_t db_mutex;      // disk table, volumes, writer state
  pthread_mutex_t motion_mutex;  // motion image
  pthread_mutex_t log_mutex;     // event log image and live event slots
  pthread_mutex_t iframe_mutex;  // key-frame arrays and their write-back buffer

  char partitions[2048];  // last text of /proc/partitions seen by db_check
  char disk_list[2048];   // "sda,sdb": internal disks last seen by db_check
  int db_cnt;
  db_info_t db_info[16];

  // Read without db_mutex by g_db_update and iswriting (and write's early test), so
  // these are relaxed atomics: a stale value only delays a display refresh or one
  // retry, but a plain word shared by threads would be a data race.
  std::atomic<int> db_update;
  char rsv_a[12];
  char rsv_b[12];

  std::atomic<unsigned long long> last_write_ms;  // utime() of the last good write; 0 idle
  std::atomic<int> write_err;                     // 0 after a good write, -1 after a failure
  std::atomic<int> write_time;                    // time of the last block handed to write
  fs_db* cur_db;                                  // volume being recorded
  entry_t hour_e;                                 // open hour entry of cur_db
  entry_t min_e;                                  // open minute entry of cur_db
  int min_dirty;                                  // frames written to min_e since its last flush

  // ---- cursor state (playback and search) ----------------------------------------------
  r_cursor_t r_cur;
  r_iframe_t r_iframe[2];
  int hour_cap, hour_cnt;  // hour list: 16-byte hour records
  unsigned char* hour_list;
  int min_cap, min_cnt;  // minute list: 144-byte minute records
  unsigned char* min_list;

  event_t events[12];  // event table: rows loaded by read_Log_info
  int event_cnt;
  void (*event_fn)(void* ctx, int index, event_t* ev);
  void* event_ctx;

  // ---- backup state ------------------------------------------------------------------
  bk_state_t bk_state;
  bk_multi_state_t bk_multi_state;  // progress enable: r_cur.sem_mode

  // ---- reader state (IRF files on USB) ---------------------------------------------------
  FILE* usb_f;
  uint32_t usb_rec[16];  // the 64-byte frame record read last
  unsigned char usb_data[102400];

  fs_app();
  ~fs_app();
  fs_app(const fs_app&) = delete;
  fs_app& operator=(const fs_app&) = delete;

  void set(int n);
  void AddEvenctChagedHandler(void* ctx, void (*fn)(void*, int, event_t*));

  // Disk set.
  int db_open(const char* arg);
  int db_check();
  int db_close();
  int g_db_num();
  int g_db_update();
  int g_db_info(int idx, char* dev, char* model, char* state, char* mode, long long& total,
                long long& avail, int& err);
  int db_set(int idx, const char* mode);
  int db_format(int idx);
  int iswriting();
  int check_valid(int now, int hours);
  int q_EventCount();
  event_t* q_EventInfo();
  event_t* q_Event(int i);

  // Write path.
  int write(int time, int len, const void* block);
  int db_write(fs_db* db, int time, int len, const void* block);
  int flush();

  // Key-frame index.
  int writeback_Iframe_info(fs_db* db);
  void read_Iframe_info(fs_db* db, int dir);

  // Event log and motion records.
  int set_log_info(int vloss, int motion, int sensor, int m4, int m5, int m6, int m7);
  int set_motion_info(int ch, unsigned int* mask, int n);
  int create_motion_info(fs_db* db);
  int create_log_info(fs_db* db);
  int writeback_motion_info(fs_db* db);
  int writeback_log_info(fs_db* db);
  void read_Log_info(fs_db* db, int);

  // Internal helpers of the recording room.
  void clear_writer(bool keep_err);
  void clear_playback();
  void close_minute(bool clear);
  int row_of(fs_db* db);
};

#endif
