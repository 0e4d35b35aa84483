// MP4 export: recorded frames of one channel out to MP4 files through fs_mp4.
//
// Two-phase export scans the selection first (phase one) and writes a plan, one line a
// file: "NAME CH SIZE ITEM ENTRY OFFSET TIME", where SIZE is the exact mdat payload the
// file will get and ITEM/ENTRY/OFFSET the stored block its first key frame lies in.
// Phase two then writes one planned file front to back: ftyp, the mdat header with the
// planned size, the samples, moov. Single-pass export writes as it reads, with the
// mdat size left for the caller, and hands back to the caller whenever a file ends.
#include "backup/mp4_export.h"

#include <ringrec/audio.h>
#include <ringrec/fs_app.h>
#include <ringrec/fs_mp4.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "backup/backup.h"
#include "playback/table_walk.h"
#include "recording/payload.h"
#include "runtime/runtime.h"

unsigned int bk_mp4_limit = kMp4FileLimit;
const char* const kMp4SameFileMarker = "/zconf/custom/R8kWq2Nv5T";

void mp4_file_name(char* out, size_t n, int time, int ch, int width, int height, int fps,
                   int attempt, bool avi) {
  time_t t = time;
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  gmtime_r(&t, &tm);
  const char* ext = avi ? "avi" : "m4v";
  if (attempt == 0)
    snprintf(out, n, "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%dx%dx%d.%s", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ch + 1, width, height,
             fps, ext);
  else
    snprintf(out, n, "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%dx%dx%d_%d.%s", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ch + 1, width, height,
             fps, attempt, ext);
}

namespace {

bool same_file_marker() { return fs_access(kMp4SameFileMarker, F_OK) == 0; }

// Stored blocks the frame loop passes over: the minute's own motion, event log and
// key-frame index records.
bool skipped_block(uint32_t type) { return block_is_record(type); }

// The first four bytes of a recorded ADPCM frame.
bool adpcm_marker(const char* d, uint32_t n) {
  return n >= 4 && d[0] == 0x00 && d[1] == 0x01 && d[2] == 0x52 && d[3] == 0x00;
}

// The audio format travels in word 4 of an audio frame's head (the frames-per-second
// word of a picture); 2 means linear PCM that needs no conversion.
const uint32_t kAudioPcm = 2;

// A growable malloc'ed scratch buffer for converted audio.
struct scratch {
  char* p = nullptr;
  size_t cap = 0;
  ~scratch() { free(p); }
  bool reserve(size_t n) {
    if (n <= cap) return true;
    void* g = realloc(p, n);
    if (g == nullptr) return false;
    p = static_cast<char*>(g);
    cap = n;
    return true;
  }
};

// ADPCM to PCM into s; returns the PCM bytes (0 when nothing came out). A frame shorter
// than its 8-byte preamble holds no predictor to start from: converting it would read
// past the frame, so it yields nothing.
int convert_audio(scratch& s, const char* d, uint32_t n) {
  if (n < 8 || n > 0x1000000) return 0;
  // adpcm2lpcm writes 8 * ((n - 4) / 2) - 14 bytes, at least 2; 4n bounds both.
  if (!s.reserve(4 * static_cast<size_t>(n))) return 0;
  int out = 0;
  adpcm2lpcm(d, static_cast<int>(n), s.p, out);
  return out;
}

// One frame as the frame loop hands it on.
struct frame {
  frame_head_t f;    // aligned copy of its head
  const char* data;  // its bytes inside the block buffer
  uint32_t len;      // head word 9, bounded by the block
  int block_time;    // head word 3 + word 4 of its block
};

// Where a writer reads: one selected hour, an entry of its minute table and the offset
// of the next block in that entry.
struct reader {
  fs_app* app;
  bk_item_t* it;
  bool multi;  // bk_multi_read on `slot`, else bk_read
  int slot;
  bool lq;  // classify with bk_check_LQ (substream), else bk_check
  int ch;
  const char* fn;  // writer's name for the head.type message
  int nent;        // entries of the hour's minute table
  int j;           // current entry
  entry_t e;
  int off;
  head_t h;
  q_t q;

  reader(fs_app* a, bk_item_t* item, int channel, bool sub, const char* name)
      : app(a), it(item), multi(false), slot(0), lq(sub), ch(channel), fn(name), j(0), off(0) {
    nent = pb::table_len(it->db, it->x, nullptr);
    memset(&e, 0, sizeof e);
    memset(&h, 0, sizeof h);
    q.max = kBkBufSize;
    q.buf = static_cast<unsigned char*>(malloc(kBkBufSize));
    if (q.buf == nullptr) q.max = 0;
  }
  ~reader() { free(q.buf); }
  reader(const reader&) = delete;
  reader& operator=(const reader&) = delete;

  // Loads minute entry k of the hour; false past the table or on a failed read.
  bool load(int k) {
    if (k < 0 || k >= nent) return false;
    if (it->db->e_read(it->x, k, e) != 0) return false;
    j = k;
    off = 0;
    return true;
  }

  // At the end of the entry as last read, the entry is read again: a minute still
  // being recorded has grown since, and its new blocks belong to the export.
  bool grown() {
    entry_t fresh;
    if (it->db->e_read(it->x, j, fresh) != 0 || !pb::same_name(fresh, e) || fresh.size <= e.size)
      return false;
    e = fresh;
    return true;
  }

  int read() {
    return multi ? app->bk_multi_read(ch, slot, it->db, e, off, h, &q)
                 : app->bk_read(ch, it->db, e, off, h, &q);
  }
};

enum { kGoOn = 0, kStop = 1 };

// Hands every frame of the reader's channel in the current entry, from r.off on, to
// fn. Returns 0 at the end of the entry (or of the range), 1 when fn returned kStop;
// r.off then still holds the offset of the block of that frame.
template <class Fn>
int walk_entry(reader& r, Fn&& fn) {
  for (;;) {
    if (static_cast<long long>(r.off) + BLOCK_HEAD > r.e.size && !r.grown()) return 0;
    int got = r.read();
    if (got < 0) return 0;
    if (got == 0) continue;
    int size = r.h.size;  // bk_read bounded it by the entry's region
    int next = r.off + BLOCK_OVERHEAD + size;
    if (skipped_block(r.h.type)) {
      fs_log(r.fn, 3105, "head.type: %d\n", static_cast<int>(r.h.type));
      r.off = next;
      continue;
    }
    bool stop = false;
    const char* end_of_data = reinterpret_cast<const char*>(r.q.buf) + size;
    bk_frames(r.h, &r.q, [&](frame_head_t& f, const char* data) {
      int c = -1;
      if ((r.lq ? r.app->bk_check_LQ(&f, c) : r.app->bk_check(&f, c)) < 0) return false;
      if (c != r.ch) return true;
      frame fr;
      fr.f = f;
      fr.data = data;
      // Word 9 is the length handed to the muxer; it cannot be more than the bytes
      // that follow the frame's head inside the block.
      uint32_t room = static_cast<uint32_t>(end_of_data - data);
      fr.len = f.size < room ? f.size : room;
      fr.block_time = bk_block_time(r.h);
      if (fn(fr) == kStop) stop = true;
      return !stop;
    });
    if (stop) return 1;
    r.off = next;
  }
}

const char* codec_of(uint32_t key_type) { return key_type == FRAME_H265_KEY ? "hvc1" : "avc1"; }

// Progress of phase two: 20 % when it starts, 90 % when every planned 4 MiB is done.
int phase_two_percent(int done, int total) {
  if (total <= 0) return 90;
  long long v = 20 + static_cast<long long>(done) * 70 / total;
  return static_cast<int>(v > 90 ? 90 : v);
}

// 4 MiB units left in a byte budget; every unit crossed is one unit of work done.
int budget_units(long long budget) { return budget > 0 ? static_cast<int>(budget >> 22) : -1; }

// The file being planned by phase one.
struct plan_row {
  bool open = false;
  int time = 0;
  uint32_t width = 0, height = 0, fps = 0;
  long long size = 0;
  int item = 0, entry = 0, off = 0;
};

enum plan_kind { kPlanMain, kPlanSub, kPlanTarvo };

// True when `name` starts a line of the plan.
bool in_plan(const char* plan, const char* name) {
  size_t n = strlen(name);
  for (const char* p = plan; *p != 0;) {
    if (strncmp(p, name, n) == 0 && p[n] == ' ') return true;
    const char* nl = strchr(p, '\n');
    if (nl == nullptr) break;
    p = nl + 1;
  }
  return false;
}

// Phase one for the three plan kinds: scans without writing, ends files where a new
// file must begin, and records each file as a plan line (or a TARVO row).
int plan_export(fs_app& app, const char* fn, plan_kind kind, int beg, int end, int chbits,
                char* plan, m4vbackupInfo* info) {
  if (plan != nullptr) plan[0] = 0;
  app.bk_set(beg, end, chbits);
  app.bk_sem(1, 0);
  // The scan's own progress (1 % to 19 %) runs on the selection's estimate; the work
  // units then count the planned 4 MiB pieces that phase two will report against.
  int scan_total = app.bk_state.total;
  int scan_done = 0;
  app.bk_state.total = 0;
  app.bk_state.done = 0;

  bool marker = kind == kPlanMain && same_file_marker();
  bool avi = marker;
  fs_mp4 sizer("avc1");  // scan() keeps nothing: one object sizes every sample
  int files = 0;
  bool full = false;
  int plan_len = 0;

  // TARVO: the channel comes in the record, the mask only selects.
  if (kind == kPlanTarvo) info->n = 0;

  for (int item = 0; item < app.bk_state.num && !full; item++) {
    bk_item_t& it = app.bk_state.items[item];
    for (int ch = 0; ch < 32 && !full; ch++) {
      if (kind == kPlanTarvo ? ch != info->ch : (chbits & (1 << ch)) == 0) continue;
      reader r(&app, &it, ch, kind != kPlanMain, fn);
      plan_row row;
      auto close_row = [&]() {
        if (!row.open) return;
        row.open = false;
        app.bk_state.total += static_cast<int>(row.size >> 22);
        if (kind == kPlanTarvo) {
          if (info->n >= 5) {
            // The record holds five pieces; what lies beyond them is not exported.
            fs_log(fn, 3170, "ERR: more than 5 pieces, the rest is left out\n");
            full = true;
            return;
          }
          char name[128];
          mp4_file_name(name, sizeof name, row.time, ch, static_cast<int>(row.width),
                        static_cast<int>(row.height), static_cast<int>(row.fps), 0, false);
          app.write_to_m4vbackupInfo(info, name, static_cast<int>(row.size), row.item, row.entry,
                                     row.off, row.time, info->n + 1);
          files++;
          return;
        }
        char name[96];
        for (int attempt = 0; attempt <= 999; attempt++) {
          mp4_file_name(name, sizeof name, row.time, ch, static_cast<int>(row.width),
                        static_cast<int>(row.height), static_cast<int>(row.fps), attempt, avi);
          if (!in_plan(plan, name)) break;
        }
        // The plan buffer is the caller's, of no stated size: one line of at most
        // about 110 bytes per planned file.
        fs_log(fn, 3185, "%s - %d\n", plan, plan_len);
        plan_len += sprintf(plan + plan_len, "%s %d %d %d %d %d %d\n", name, ch,
                            static_cast<int>(row.size), row.item, row.entry, row.off, row.time);
        files++;
      };
      for (int k = it.e.idx; !full && r.load(k); k++) {
        if (!pb::is_min(r.e)) continue;
        walk_entry(r, [&](const frame& fr) {
          uint32_t type = fr.f.type;
          bool key = frame_is_key(type);
          if (!row.open && !key) return kGoOn;
          if (key && row.open) {
            bool ends = row.size >= bk_mp4_limit;
            if (!ends && kind != kPlanSub && !marker)
              ends = fr.f.width != row.width || fr.f.height != row.height || fr.f.fps != row.fps;
            if (ends) close_row();
            if (full) return kStop;
          }
          if (!row.open) {
            row.open = true;
            row.time = fr.block_time;
            row.width = fr.f.width;
            row.height = fr.f.height;
            row.fps = fr.f.fps;
            row.size = 0;
            row.item = item;
            row.entry = r.j;
            row.off = r.off;
          }
          int n = sizer.scan(static_cast<int>(type), fr.data, fr.len);
          if (n > 0) row.size += n;
          return kGoOn;
        });
        scan_done++;
        int v = scan_total > 0 ? 1 + static_cast<int>(18LL * scan_done / scan_total) : 19;
        app.bk_sem(v > 19 ? 19 : v, 0);
      }
      // A file does not run on into the next hour: each item's rows end with it.
      close_row();
    }
  }
  app.bk_sem(20, 0);
  if (plan != nullptr) fs_log(fn, 3221, "mp4txt: %s\n", plan);
  return files;
}

// Writes samples of one channel into an open writer and keeps the planned budget.
struct budget_writer {
  fs_app& app;
  const char* fn;
  FILE* out;
  fs_mp4* mp4 = nullptr;
  long long budget;
  int units;
  scratch pcmbuf;
  unsigned box = 0, data = 0;

  budget_writer(fs_app& a, const char* name, FILE* f, long long size)
      : app(a), fn(name), out(f), budget(size), units(budget_units(size)) {}
  ~budget_writer() { delete mp4; }

  // Adds one frame; kStop once the budget is spent (the file is then finished).
  int put(const frame& fr) {
    uint32_t type = fr.f.type;
    if (mp4 == nullptr) {
      if (!frame_is_key(type)) return kGoOn;
      mp4 = new fs_mp4(codec_of(type));
      mp4->set(static_cast<unsigned short>(fr.f.width), static_cast<unsigned short>(fr.f.height),
               fr.f.fps, static_cast<unsigned>(fr.block_time));
      mp4->w_box_mdat(out, static_cast<unsigned>(budget));
    }
    int n;
    if (type == FRAME_AUDIO) {
      if (fr.f.fps == kAudioPcm) {
        n = mp4->add(FRAME_AUDIO, fr.data, fr.len);
        if (n > 0) mp4->w_data(FRAME_AUDIO, out, fr.data, fr.len);
      } else {
        int pl = convert_audio(pcmbuf, fr.data, fr.len);
        if (pl <= 0) return kGoOn;
        n = mp4->add(FRAME_AUDIO, pcmbuf.p, static_cast<unsigned>(pl));
        if (n > 0) mp4->w_data(FRAME_AUDIO, out, pcmbuf.p, static_cast<unsigned>(pl));
      }
    } else {
      n = mp4->add(static_cast<int>(type), fr.data, fr.len);
      if (n > 0) mp4->w_data(static_cast<int>(type), out, fr.data, fr.len);
    }
    if (n <= 0) return kGoOn;
    budget -= n;
    int u = budget_units(budget);
    if (u != units) {
      units = u;
      app.bk_state.done++;
      app.bk_sem(phase_two_percent(app.bk_state.done, app.bk_state.total), 0);
    }
    if (budget > 0) return kGoOn;
    finish();
    return kStop;
  }

  void finish() {
    mp4->w_box_moov(out);
    mp4->g_box(box, data);
    delete mp4;
    mp4 = nullptr;
  }
  int result() const { return static_cast<int>(box + data + 32); }
};

int write_planned(fs_app& app, const char* fn, bool lq, FILE* out, int ch, int size, int item,
                  int entry, int offset) {
  if (item < 0 || item >= app.bk_state.num) return -1;
  bk_item_t& it = app.bk_state.items[item];
  reader r(&app, &it, ch, lq, fn);
  if (entry < 0 || entry >= it.x.num || !r.load(entry)) return -1;
  budget_writer w(app, fn, out, size);
  r.off = offset;
  for (int k = entry;; k++) {
    if (k != entry) {
      if (!r.load(k)) break;
      if (!pb::is_min(r.e)) continue;
    }
    // Cancelled between entries: the file keeps what it has, without its moov.
    if (bk_cancelled()) break;
    if (walk_entry(r, [&](const frame& fr) { return w.put(fr); }) == 1) return w.result();
  }
  // The entries ran out before the budget (or the run was cancelled): the file stays
  // without its moov.
  return 0;
}

}  // namespace

int fs_app::bk_phase_one(char const* dir, int beg, int end, int chbits, char* plan) {
  (void)dir;  // names in the plan are relative to the directory the caller writes into
  return plan_export(*this, "bk_phase_one", kPlanMain, beg, end, chbits, plan, nullptr);
}

int fs_app::bk_phase_one_substream(char const* dir, int beg, int end, int chbits, char* plan) {
  (void)dir;
  return plan_export(*this, "bk_phase_one_substream", kPlanSub, beg, end, chbits, plan, nullptr);
}

int fs_app::bk_phase_two(FILE* out, char const* name, int ch, int size, int item, int entry,
                         int offset) {
  (void)name;
  return write_planned(*this, "bk_phase_two", false, out, ch, size, item, entry, offset);
}

int fs_app::bk_phase_two_substream(FILE* out, char const* name, int ch, int size, int item,
                                   int entry, int offset) {
  (void)name;
  return write_planned(*this, "bk_phase_two_substream", true, out, ch, size, item, entry, offset);
}

int fs_app::write_to_m4vbackupInfo(m4vbackupInfo* info, char const* name, int size, int item,
                                   int entry, int offset, int time, int n) {
  // Row n counts from 1; the record holds five.
  if (info == nullptr || n < 1 || n > 5) return -1;
  int32_t* row = info->row[n - 1];
  memset(row, 0, sizeof info->row[0]);
  row[0] = size;
  row[1] = item;
  row[2] = entry;
  row[3] = offset;
  row[4] = time;
  info->n = n;
  if (n == 1 && name != nullptr) {
    strncpy(info->name, name, sizeof info->name - 1);
    info->name[sizeof info->name - 1] = 0;
  }
  return 0;
}

int fs_app::bk_phase_oneWithTARVO(char const* dir, int beg, int end, int chbits,
                                  m4vbackupInfo* info) {
  (void)dir;
  if (info == nullptr) return -1;
  return plan_export(*this, "bk_phase_oneWithTARVO", kPlanTarvo, beg, end, chbits, nullptr, info);
}

int fs_app::bk_phase_twoWithTARVO(FILE* out, m4vbackupInfo* info) {
  const char* fn = "bk_phase_twoWithTARVO";
  if (info == nullptr || info->n < 1) return 0;
  int rows = info->n > 5 ? 5 : info->n;
  long long total = 0;
  for (int i = 0; i < rows; i++) total += info->row[i][0];
  if (total <= 0 || total > 0x7FFFFFFFLL) return -1;
  budget_writer w(*this, fn, out, total);
  for (int i = 0; i < rows; i++) {
    int item = info->row[i][1], entry = info->row[i][2];
    long long piece = info->row[i][0];
    if (item < 0 || item >= bk_state.num) {
      fs_log(fn, 3330, "read fail..\n");
      return -1;
    }
    bk_item_t& it = bk_state.items[item];
    reader r(this, &it, info->ch, true, fn);
    if (entry < 0 || entry >= it.x.num || !r.load(entry)) {
      fs_log(fn, 3336, "read fail..\n");
      return -1;
    }
    r.off = info->row[i][3];
    // Each piece runs for its own planned bytes from its first key frame on; the one
    // writer spans all of them.
    long long left = piece;
    bool started = false;
    for (int k = entry; left > 0; k++) {
      if (k != entry) {
        if (!r.load(k)) break;
        if (!pb::is_min(r.e)) continue;
      }
      fs_log(fn, 3347, "%d, %.32s\n", k, r.e.name);
      if (bk_cancelled()) return 0;
      int got = walk_entry(r, [&](const frame& fr) {
        if (!started && !frame_is_key(fr.f.type)) return kGoOn;
        started = true;
        long long before = w.budget;
        int st = w.put(fr);
        left -= before - w.budget;
        return st == kStop || left <= 0 ? kStop : kGoOn;
      });
      if (got == 1 && w.mp4 == nullptr) {
        fs_log(fn, 3357, "CLOSE\n");
        return w.result();
      }
    }
  }
  return 0;
}

namespace {

// Whether a single-pass file ends before this frame; state of the file being written.
struct file_state {
  uint32_t width = 0, height = 0;
  uint32_t first_fps = 0, cur_fps = 0;
  int at_rate = 0;  // key frames seen at cur_fps
};

// The tests common to both single-pass writers, at a frame of a file that is open.
bool single_pass_ends(fs_mp4* mp4, file_state& s, const frame_head_t& f, bool marker,
                      bool rate_rule) {
  bool key = frame_is_key(f.type);
  if (!frame_is_video(f.type)) return false;
  if (!key) return !marker && (f.width != s.width || f.height != s.height);
  const char* c = mp4->Codec();
  if ((strcmp(c, "hvc1") == 0 && f.type == FRAME_H264_KEY) ||
      (strcmp(c, "avc1") == 0 && f.type == FRAME_H265_KEY))
    return true;
  if (mp4->g_size() >= bk_mp4_limit) return true;
  if (marker) return false;
  if (f.width != s.width || f.height != s.height) return true;
  if (!rate_rule) return false;
  // A rate well above the current one is a new stream; small wobbles follow along, and
  // a rate that settled far from the file's first rate ends the file once it is stable.
  if (f.fps > s.cur_fps + 5) return true;
  if (f.fps != s.cur_fps) {
    s.cur_fps = f.fps;
    s.at_rate = 0;
    return false;
  }
  s.at_rate++;
  long long d = static_cast<long long>(s.cur_fps) - s.first_fps;
  return s.at_rate > 10 && (d > 5 || d < -5);
}

void start_file(file_state& s, const frame_head_t& f) {
  s.width = f.width;
  s.height = f.height;
  s.first_fps = s.cur_fps = f.fps;
  s.at_rate = 0;
}

// The multi selection does not record which slot an hour was selected for: the
// item's slot is the first whose range holds its minute and whose mask its channel.
int slot_of(const bk_multi_state_t& s, const bk_item_t& it, int ch) {
  for (int i = 0; i < kBkSlots; i++)
    if ((static_cast<uint32_t>(s.chbits[i]) >> ch & 1u) != 0 &&
        pb::hour_in(it.e.time, s.beg[i], s.end[i]))
      return i;
  return -1;
}

// Appends converted audio to pcm and hands it to the writer in 8000-byte pieces. pcm
// holds 10000 bytes and at most 7999 wait there between calls, so a long conversion is
// appended in parts that fit, each followed by the pieces it completes.
void gather_pcm(fs_mp4* mp4, FILE* out, const char* p, int n) {
  const int kPiece = 8000;
  while (n > 0) {
    int room = static_cast<int>(sizeof pcm) - pcm_sz;
    int k = n < room ? n : room;
    memcpy(pcm + pcm_sz, p, static_cast<size_t>(k));
    pcm_sz += k;
    p += k;
    n -= k;
    while (pcm_sz >= kPiece) {
      if (mp4->add(FRAME_AUDIO, pcm, kPiece) > 0) mp4->w_data(FRAME_AUDIO, out, pcm, kPiece);
      pcm_sz -= kPiece;
      memmove(pcm, pcm + kPiece, static_cast<size_t>(pcm_sz));
    }
  }
}


// What sets the two single-pass writers apart.
struct single_pass_form {
  const char* fn;
  int line_resume, line_item, line_entry, line_vloss;
  int line_opened;  // the new file's picture is printed at this line; 0: not printed
  bool multi;       // the multi-slot selection: its slot, its progress, 8000-byte audio
  bool fps_rule;    // a change of frame rate ends the file
  bool audio;       // sound goes into the file
};

// The single-pass export of one selected hour for channel ch into the writer `mp4`,
// which a caller's earlier call may have left open. Returns 1 when a new file must be
// started (the position is kept in the item for the next call), 0 when the hour is
// done or cancelled, -1 at a video-loss frame.
template <class State>
int single_pass(fs_app* app, State& st, void (fs_app::*sem)(int, int),
                const single_pass_form& form, fs_mp4*& mp4, FILE* out, int item, int ch,
                int& time, unsigned& width, unsigned& height, unsigned& fps) {
  const char* fn = form.fn;
  if (item < 0 || item >= st.num) return 0;
  bk_item_t& it = st.items[item];
  fs_log(fn, form.line_resume, "m_bk.bf[%d].cur.on = %d\n", item, it.resume);
  reader r(app, &it, ch, false, fn);
  if (form.multi) {
    r.multi = true;
    r.slot = slot_of(app->bk_multi_state, it, ch);
  }
  int first = it.e.idx;
  int first_off = static_cast<int>(it.off);
  if (it.resume) {
    first = it.resume_e.idx;
    first_off = it.resume_off;
    it.resume = 0;
  } else {
    if (!form.multi) time = 0;
    st.done++;
  }
  fs_log(fn, form.line_item, "%.2d: %.32s\n", item, it.e.name);
  bool marker = same_file_marker();
  file_state fs;
  if (mp4 != nullptr) {
    // A writer left open by the caller runs on: its picture is what the file began with.
    fs.width = width;
    fs.height = height;
    fs.first_fps = fs.cur_fps = fps;
  }
  bool waiting = mp4 == nullptr;  // dropping frames until a key frame
  scratch pcmbuf;
  int result = 0;
  for (int k = first; r.load(k); k++) {
    if (!pb::is_min(r.e)) continue;
    if (k == first) r.off = first_off;
    fs_log(fn, form.line_entry, "%d, %.32s\n", k, r.e.name);
    if (bk_cancelled()) break;
    // The minute's per-channel counts hold 60 channels; an entry without frames of
    // the channel is passed over, and counts as done.
    if (ch < 0 || ch >= 60 || rec_get_count(r.e, ch) == 0) {
      st.done++;
      (app->*sem)(bk_percent(st.done, st.total), 0);
      continue;
    }
    int got = walk_entry(r, [&](const frame& fr) {
      uint32_t type = fr.f.type;
      bool key = frame_is_key(type);
      if (mp4 == nullptr) {
        if (!key || fr.f.width == 0 || fr.f.height == 0) return kGoOn;
        mp4 = new fs_mp4(codec_of(type));
        mp4->set(static_cast<unsigned short>(fr.f.width), static_cast<unsigned short>(fr.f.height),
                 fr.f.fps, static_cast<unsigned>(fr.block_time));
        mp4->w_box_mdat(out);
        time = fr.block_time;
        width = fr.f.width;
        height = fr.f.height;
        fps = fr.f.fps;
        start_file(fs, fr.f);
        if (form.line_opened != 0)
          fs_log(fn, form.line_opened, "fps=%d, width=%d, height=%d, time=%d\n",
                 static_cast<int>(fps), static_cast<int>(width), static_cast<int>(height), time);
      } else if (single_pass_ends(mp4, fs, fr.f, marker, form.fps_rule)) {
        it.resume = 1;
        it.resume_e = r.e;
        it.resume_off = r.off;
        result = 1;
        return kStop;
      }
      if (type == FRAME_AUDIO) {
        if (!form.audio || waiting) return kGoOn;
        if (fr.f.fps == kAudioPcm) {
          if (mp4->add(FRAME_AUDIO, fr.data, fr.len) > 0)
            mp4->w_data(FRAME_AUDIO, out, fr.data, fr.len);
          return kGoOn;
        }
        if (!adpcm_marker(fr.data, fr.len)) return kGoOn;
        int pl = convert_audio(pcmbuf, fr.data, fr.len);
        if (pl <= 0) return kGoOn;
        if (form.multi)
          gather_pcm(mp4, out, pcmbuf.p, pl);
        else if (mp4->add(FRAME_AUDIO, pcmbuf.p, static_cast<unsigned>(pl)) > 0)
          mp4->w_data(FRAME_AUDIO, out, pcmbuf.p, static_cast<unsigned>(pl));
        return kGoOn;
      }
      if (waiting && !key) return kGoOn;
      int n = mp4->add(static_cast<int>(type), fr.data, fr.len);
      if (n == 0) {
        fs_log(fn, form.line_vloss, "VLOSS video!\n");
        result = -1;
        return kStop;
      }
      if (n < 0) {
        waiting = true;
        return kGoOn;
      }
      waiting = false;
      mp4->w_data(static_cast<int>(type), out, fr.data, fr.len);
      return kGoOn;
    });
    if (got == 1) return result;
    st.done++;
    (app->*sem)(bk_percent(st.done, st.total), 0);
  }
  return 0;
}

}  // namespace

int fs_app::bk_write(FILE* out, int item, int ch, int& time, unsigned& width, unsigned& height,
                     unsigned& fps) {
  static const single_pass_form form = {"bk_write", 3420, 3432, 3447, 3490, 0,
                                        false,      true, true};
  fs_mp4* none = nullptr;
  fs_mp4*& mp4 = item >= 0 && item < bk_state.num ? bk_state.items[item].mp4 : none;
  return single_pass(this, bk_state, &fs_app::bk_sem, form, mp4, out, item, ch, time, width,
                     height, fps);
}

int fs_app::bk_multi_m4v_write(FILE* out, int item, int ch, int& time, unsigned& width,
                               unsigned& height, unsigned& fps, bool audio) {
  const single_pass_form form = {"bk_multi_m4v_write", 3550, 3563, 3577, 3618, 3594,
                                 true, false, audio};
  // One file runs on across the hours: the writer lives in the first item.
  fs_mp4* none = nullptr;
  fs_mp4*& mp4 = bk_multi_state.num > 0 ? bk_multi_state.items[0].mp4 : none;
  return single_pass(this, bk_multi_state, &fs_app::bk_multi_sem, form, mp4, out, item, ch,
                     time, width, height, fps);
}

int fs_app::bk_multi_m4v_close(FILE* out, unsigned& pos, unsigned& size) {
  if (bk_multi_state.num < 1 || bk_multi_state.items == nullptr) return 0;
  fs_mp4*& mp4 = bk_multi_state.items[0].mp4;
  if (mp4 != nullptr) {
    if (pcm_sz > 0) {
      mp4->add(FRAME_AUDIO, pcm, static_cast<unsigned>(pcm_sz));
      mp4->w_data(FRAME_AUDIO, out, pcm, static_cast<unsigned>(pcm_sz));
    }
    pcm_sz = 0;
    mp4->w_box_moov(out);
    mp4->g_box(pos, size);
    delete mp4;
  }
  mp4 = nullptr;
  return 0;
}
