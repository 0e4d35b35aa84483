// The recording service: one object per recorder process. It finds the internal disks,
// keeps one volume open on each, records blocks of frames into hour and minute entries
// with their summaries, key-frame indexes, event logs and motion records, and holds the
// state that search, playback and backup share. Plain class, integer status.
#ifndef RINGREC_FS_APP_H
#define RINGREC_FS_APP_H

#include <pthread.h>
#include <ringrec/block.h>
#include <ringrec/fs_db.h>
#include <ringrec/irf.h>
#include <ringrec/records.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <vector>

class fs_mp4;
struct fs_read_window;

// Holder of a read window (one stretch of a minute's stored blocks kept in memory so
// that each block costs one read); made on first use and freed with the object.
struct fs_read_window_slot {
  fs_read_window* w = nullptr;
  fs_read_window_slot() = default;
  ~fs_read_window_slot();
  fs_read_window_slot(const fs_read_window_slot&) = delete;
  fs_read_window_slot& operator=(const fs_read_window_slot&) = delete;
  void drop();  // forget what is held: the next block is read from the disk again
};

// One planned file for bk_phase_two_files (an addition): the values of its plan line, the
// output, and the result that bk_phase_two would return for it.
struct bk_plan_file_t {
  FILE* out;
  int ch, size, item, entry, offset;
  int result;
};

// The disk table's rows: db_open keeps at most this many volumes.
const int DB_DISKS_MAX = 16;

// One row of the disk table.
struct db_info_t {
  fs_db* db;          // the volume, owned by the service; null when the row is unused
  char dev[20];       // "/dev/sda"
  char rsv0[44];      // not used by the recording service
  char model[68];     // model text of the drive, or "RAID"
  long long size_kb;  // size in 1 KiB blocks as /proc/partitions gives it
  char rsv1[16];      // not used by the recording service
};

// The backup readers' growable block buffer; writers start it at 0x80000 bytes.
struct q_t {
  int32_t max;         // bytes allocated
  unsigned char* buf;  // malloc'ed, owned by the writer's run
};

// The export plan of the TARVO edition: up to five pieces written into one file.
struct m4vbackupInfo {
  int32_t ch;  // channel to export, set by the caller
  int32_t rsv;
  // Per piece: byte budget, selection item, entry index, block offset, start time, and
  // six reserved words.
  int32_t row[5][11];
  char name[128];  // file name of the first piece
  int32_t n;       // rows in use
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
// r_head fills the previous block's tail and the current head with one 296-byte read.
static_assert(offsetof(r_cursor_t, head) == offsetof(r_cursor_t, tail) + 8,
              "the tail buffer sits directly before the head buffer");

// Key-frame state of one stream for playback: 0 the substream (LQ), 1 the main stream.
struct r_iframe_t {
  int32_t kind;         // IFRAME_ kind of the loaded index; any other value: none
  long long* offs;      // bare offsets (kinds IFRAME_OFFS_)
  int32_t offs_cap;     // entries allocated
  frame_info_t* infos;  // records (kinds IFRAME_INFOS_)
  int32_t infos_cap;    // entries allocated
  int32_t pos;          // current entry
  int32_t count;        // entries loaded
  int32_t time;         // time of the entry last reached (kinds IFRAME_INFOS_)
};

class fs_app {
 public:
  // Fields in the order the object has always had; each banner names the owner.

  // ---- writer: the current minute's records and key frames (recording) --------------
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

  // ---- disk set (recording) -----------------------------------------------------------
  char partitions[2048];  // last text of /proc/partitions seen by db_check
  char disk_list[2048];   // "sda,sdb": internal disks last seen by db_check
  int db_cnt;
  db_info_t db_info[DB_DISKS_MAX];

  // Read without db_mutex by g_db_update and iswriting (and write's early test), so
  // these are relaxed atomics: a stale value only delays a display refresh or one
  // retry, but a plain word shared by threads would be a data race.
  std::atomic<int> db_update;
  char rsv_a[12];
  char rsv_b[12];

  // ---- writer: the volume and entries being recorded (recording) ------------------------
  std::atomic<unsigned long long> last_write_ms;  // utime() of the last good write; 0 idle
  std::atomic<int> write_err;                     // 0 after a good write, -1 after a failure
  std::atomic<int> write_time;                    // time of the last block handed to write
  fs_db* cur_db;                                  // volume being recorded
  entry_t hour_e;                                 // open hour entry of cur_db
  entry_t min_e;                                  // open minute entry of cur_db
  int min_dirty;                                  // frames written to min_e since its last flush

  // ---- cursor: playback and search results (playback) -----------------------------------
  r_cursor_t r_cur;
  r_iframe_t r_iframe[2];
  int hour_cap, hour_cnt;  // hour list: 16-byte hour records
  unsigned char* hour_list;
  int min_cap, min_cnt;  // minute list: 144-byte minute records
  unsigned char* min_list;

  // ---- event table (recording) ---------------------------------------------------------
  event_t events[12];  // rows loaded by read_Log_info
  int event_cnt;
  void (*event_fn)(void* ctx, int index, event_t* ev);
  void* event_ctx;

  // ---- backup (backup) ---------------------------------------------------------------
  bk_state_t bk_state;
  bk_multi_state_t bk_multi_state;  // progress enable: r_cur.sem_mode

  // ---- reader: IRF files on USB (backup) ------------------------------------------------
  FILE* usb_f;
  irf_frame_rec_t usb_rec;  // the frame record read last
  unsigned char usb_data[IRF_DATA_MAX];

  fs_app();
  ~fs_app();
  fs_app(const fs_app&) = delete;
  fs_app& operator=(const fs_app&) = delete;

  // ---- disk set ----------------------------------------------------------------------
  void set(int n);
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
  int row_of(fs_db* db);  // the disk-table row of a volume, or -1

  // ---- writer ------------------------------------------------------------------------
  int write(int time, int len, const void* block);
  // What db_write did with a block.
  enum {
    DB_WRITE_APPENDED = 0,    // appended to the open minute entry
    DB_WRITE_NEW_MINUTE = 1,  // after opening its hour again and a new minute entry
    DB_WRITE_NEW_HOUR = 2,    // after creating a new hour entry and a new minute entry
    DB_WRITE_REFUSED = -1,    // no volume, no room for an entry or for the block
    DB_WRITE_FAILED = -2,     // the data write failed
  };
  int db_write(fs_db* db, int time, int len, const void* block);
  int flush();
  // Key-frame index.
  int writeback_Iframe_info(fs_db* db);
  // Event log and motion records.
  int set_log_info(int vloss, int motion, int sensor, int m4, int m5, int m6, int m7);
  int set_motion_info(int ch, unsigned int* mask, int n);
  int create_motion_info(fs_db* db);
  int create_log_info(fs_db* db);
  int writeback_motion_info(fs_db* db);
  int writeback_log_info(fs_db* db);

  // ---- cursor ------------------------------------------------------------------------
  // Time search.
  hour_rec_t* q_hour(int beg, int end, int& num);
  min_rec_t* q_min(int beg, int end, int& num);
  void q_time(int num, int* times);
  // Event and motion search.
  min_rec_t* q_log(int beg, int end, int ch, int eventType, int& num);
  min_rec_t* q_motion(int beg, int end, int ch, int& num);
  min_rec_t* q_motionMask(int beg, int end, int ch, int& num, unsigned int* mask, int words);
  // Playback.
  int r_set(int t, int end);
  head_t* r_head();
  int r_data(void* buf, int len);
  int r_offset_data(void* buf, int off, int len);
  int r_seek(int dir);
  int r_next(int dir);
  int r_next_min(int dir);
  int sem_mode(int mode);
  void print();
  // Key-frame seeking.
  void read_Iframe_info(fs_db* db, int dir);
  int r_Iseek(int dir, bool second, int mask, int step);
  int Seek_V2(int pos, frame_info_t* table, int count, int mask, int dir, int step, int last);
  int QuickSync(frame_info_t* table, int count, int mask, int dir);

  // ---- event table -------------------------------------------------------------------
  void AddEvenctChagedHandler(void* ctx, void (*fn)(void*, int, event_t*));
  void read_Log_info(fs_db* db, int);
  int q_EventCount();
  event_t* q_EventInfo();
  event_t* q_Event(int i);

  // ---- backup ------------------------------------------------------------------------
  // Selection and source reading.
  int bk_set(int beg, int end, int chbits);
  int bk_multi_set(int* beg, int* end, int* chbits, int n);
  int bk_read(int ch, fs_db* db, entry_t& e, int& off, head_t& h, q_t* q);
  int bk_multi_read(int ch, int slot, fs_db* db, entry_t& e, int& off, head_t& h, q_t* q);
  int bk_check(frame_head_t* f, int& ch);
  int bk_check_LQ(frame_head_t* f, int& ch);
  void bk_sem(int v, int ret);
  void bk_multi_sem(int v, int ret);
  int bk_over();
  int bk_clr();
  int bk_close(FILE* out, int item, unsigned& a, unsigned& b);
  // IRF backup files.
  int bk_irf_write_frame(FILE* out, frame_head_t* f, char const* data);
  int bk_irf_write_frame(FILE* out, frame_head_t* f, char const* data, int link);
  int bk_irf_write(FILE* out, int item, int chbits, int& started);
  int bk_multi_irf_write(FILE* out, int item, int ch, int& lastkey, bool audio);
  // MP4 export.
  int bk_phase_one(char const* dir, int beg, int end, int chbits, char* plan);
  int bk_phase_one_substream(char const* dir, int beg, int end, int chbits, char* plan);
  int bk_phase_two(FILE* out, char const* name, int ch, int size, int item, int entry, int offset);
  int bk_phase_two_substream(FILE* out, char const* name, int ch, int size, int item, int entry,
                             int offset);
  int bk_phase_oneWithTARVO(char const* dir, int beg, int end, int chbits, m4vbackupInfo* info);
  int bk_phase_twoWithTARVO(FILE* out, m4vbackupInfo* info);
  int write_to_m4vbackupInfo(m4vbackupInfo* info, char const* name, int size, int item, int entry,
                             int offset, int time, int n);
  int bk_write(FILE* out, int item, int ch, int& time, unsigned& width, unsigned& height,
               unsigned& fps);
  int bk_multi_m4v_write(FILE* out, int item, int ch, int& time, unsigned& width, unsigned& height,
                         unsigned& fps, bool audio);
  int bk_multi_m4v_close(FILE* out, unsigned& pos, unsigned& size);
  // OEM frame format.
  int bk_kesto_write_frame(FILE* out, frame_head_t* f, char const* data, int time, int prevlen);
  int bk_kesto_write(FILE* out, int item, int chbits, int& ftime);

  // ---- reader ------------------------------------------------------------------------
  int usb_open_irf(char const* path);
  int usb_check_irf_header(FILE* f);
  void usb_reset_irf(int& size);
  irf_frame_rec_t* usb_read_video_header(int dir);
  void usb_read_video_data(void* dst, int n);
  long usb_irf_position();
  void usb_close_irf();
  bool usb_isOpenFile();

  // ---- additions beside the calls above (not part of the recorder's interface) -------
  // Read windows of the backup readers and of the playback cursor: each stored block is
  // read from the disk once, head, data and tail together, and served only after its
  // tail agrees with its head; what the calls above return is unchanged.
  fs_read_window_slot bk_window;
  fs_read_window_slot r_window;

  // Many outputs of one range from one read of each stored block. Each call gives, per
  // file, the bytes the calls above give one file or one channel at a time; only the
  // order of reads (and of the diagnostic lines that follow them) differs.
  //
  // bk_phase_one_channels: bk_phase_one (or, with substream, bk_phase_one_substream) for
  // every channel of chbits in one walk of each hour; the same plan and return value.
  int bk_phase_one_channels(char const* dir, int beg, int end, int chbits, char* plan,
                            bool substream);
  // bk_phase_two_files: the phase-two writes of n planned files, those of one hour fed
  // from one walk of that hour; each file's result is what bk_phase_two (or
  // bk_phase_two_substream) returns for it. Returns the number of files finished.
  int bk_phase_two_files(bk_plan_file_t* files, int n, bool substream);
  // bk_write_channels: bk_write of item `item` for the n channels chs[] at once. Where
  // bk_write would return 1 (a new file must begin), or at the end of the item, the
  // channel's file is finished as bk_close finishes it and done(ctx, k, out, pos, size,
  // more) is called with the channel's index k in chs, its file still open and the two
  // g_box values (both 0 when the file got no writer). With `more` it returns the next
  // file for the channel, or null to stop the channel. times/widths/heights/fpss[k] are
  // reported as bk_write reports them (read them in done); results[k] gets 0, or -1
  // when a video-loss frame stopped the channel. The item's resume state is not used.
  // Returns 0.
  int bk_write_channels(int item, int n, const int* chs, FILE** outs, int* times, unsigned* widths,
                        unsigned* heights, unsigned* fpss, int* results,
                        FILE* (*done)(void* ctx, int k, FILE* out, unsigned pos, unsigned size,
                                      bool more),
                        void* ctx);
  // bk_multi_m4v_write_channels: bk_multi_m4v_write(out, item, chs[k], ..., false) for the
  // n channels chs[] at once, from one walk of the item, the channels selected in one slot.
  // Each channel's file runs on across items as there: its writer stays in writers[k]
  // (null before the first item) and outs[k] holds its current file, both updated by the
  // call. Where bk_multi_m4v_write would return 1 the file is finished as
  // bk_multi_m4v_close finishes it and done(ctx, k, out, pos, size, true) returns the next
  // file (null stops the channel). An item outside the selection finishes every open file
  // with done(..., false). times/widths/heights/fpss[k] are reported as
  // bk_multi_m4v_write reports them; results[k] gets 0, or -1 when a video-loss frame
  // stopped the channel for the rest of the item. Returns 0.
  int bk_multi_m4v_write_channels(int item, int n, const int* chs, FILE** outs, fs_mp4** writers,
                                  int* times, unsigned* widths, unsigned* heights, unsigned* fpss,
                                  int* results,
                                  FILE* (*done)(void* ctx, int k, FILE* out, unsigned pos,
                                                unsigned size, bool more),
                                  void* ctx);
  // The single-pass file leaves its mdat size for the end: writes it (data + 8, big
  // endian) at byte 24, after the 24-byte ftyp, where w_box_mdat put the header.
  static int bk_set_mdat_size(FILE* out, unsigned data);
};

#endif
