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

#include <vector>

#include "backup/backup.h"
#include "backup/block_reader.h"
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
// file must begin, and records each file as a plan line (or a TARVO row). The item's
// channels are scanned one after the other, or, `together`, all in one walk of the hour
// that reads each stored block once; the plan is the same either way, since the files a
// channel's walk closes are then written out in channel order at the end of the hour.
int plan_export(fs_app& app, const char* fn, plan_kind kind, int beg, int end, int chbits,
                char* plan, m4vbackupInfo* info, bool together = false) {
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
  bool full = false, cancelled = false;
  int plan_len = 0;

  // TARVO: the channel comes in the record, the mask only selects.
  if (kind == kPlanTarvo) info->n = 0;

  auto emit = [&](const plan_row& row, int ch) {
    if (full) return;
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

  // One channel's file being planned, and (together) the files it closed in this hour.
  struct chan {
    int ch;
    plan_row row;
    std::vector<plan_row> closed;
  };

  for (int item = 0; item < app.bk_state.num && !full && !cancelled; item++) {
    bk_item_t& it = app.bk_state.items[item];
    std::vector<chan> chans;
    for (int ch = 0; ch < 32; ch++)
      if (kind == kPlanTarvo ? ch == info->ch : (chbits & (1 << ch)) != 0)
        chans.push_back({ch, {}, {}});
    auto close_row = [&](chan& c) {
      if (!c.row.open) return;
      c.row.open = false;
      app.bk_state.total += static_cast<int>(c.row.size >> 22);
      if (together)
        c.closed.push_back(c.row);
      else
        emit(c.row, c.ch);
    };
    // Scans the frames of one channel.
    auto scan = [&](chan& c, const bk_frame& fr, const bk_reader& r) {
      uint32_t type = fr.f.type;
      bool key = frame_is_key(type);
      plan_row& row = c.row;
      if (!row.open && !key) return kGoOn;
      if (key && row.open) {
        bool ends = row.size >= bk_mp4_limit;
        if (!ends && kind != kPlanSub && !marker)
          ends = fr.f.width != row.width || fr.f.height != row.height || fr.f.fps != row.fps;
        if (ends) close_row(c);
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
    };
    // The walks: one per channel, or one for all, each block dealt to the channels it
    // counts (a block that does not count a channel is passed over for it, as bk_read
    // with that channel passes it over).
    size_t walks = together ? (chans.empty() ? 0 : 1) : chans.size();
    for (size_t w = 0; w < walks && !full && !cancelled; w++) {
      bk_reader r(&app, &it, together ? -1 : chans[w].ch, kind != kPlanMain, fn);
      int per_entry = together ? static_cast<int>(chans.size()) : 1;
      for (int k = it.e.idx; !full && r.load(k); k++) {
        if (!pb::is_min(r.e)) continue;
        // The cancel marker is tested before each minute entry, as the writers do: a
        // cancelled plan stops where it is and gets no further file, not even the one
        // being scanned.
        if (bk_cancelled()) {
          cancelled = true;
          break;
        }
        bk_walk_entry(r, [&](const bk_frame& fr) {
          if (!together) return scan(chans[w], fr, r);
          for (chan& c : chans) {
            if (static_cast<int>(fr.f.ch) != c.ch) continue;
            if (c.ch >= 59 || r.h.count[c.ch] < 1) return kGoOn;
            return scan(c, fr, r);
          }
          return kGoOn;
        });
        scan_done += per_entry;
        int v = scan_total > 0 ? 1 + static_cast<int>(18LL * scan_done / scan_total) : 19;
        app.bk_sem(v > 19 ? 19 : v, 0);
      }
      // A file does not run on into the next hour: each item's rows end with it.
      if (!cancelled && !together) close_row(chans[w]);
    }
    if (together) {
      for (chan& c : chans) {
        if (!cancelled) close_row(c);
        for (const plan_row& row : c.closed) emit(row, c.ch);
      }
    }
  }
  if (!cancelled) app.bk_sem(20, 0);
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
  int put(const bk_frame& fr) {
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
  bk_reader r(&app, &it, ch, lq, fn);
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
    if (bk_walk_entry(r, [&](const bk_frame& fr) { return w.put(fr); }) == 1) return w.result();
  }
  // The entries ran out before the budget (or the run was cancelled): the file stays
  // without its moov.
  return 0;
}

// Several planned files from one walk of their hour: each stored block is read once and
// its frames dealt to every file whose channel the block counts and whose planned start
// the walk has reached. A file ends when its budget is spent, as in write_planned.
void write_planned_together(fs_app& app, const char* fn, bool lq, bk_plan_file_t* files,
                            const std::vector<int>& idx, int item) {
  bk_item_t& it = app.bk_state.items[item];
  bk_reader r(&app, &it, -1, lq, fn);
  std::vector<budget_writer*> w(idx.size(), nullptr);
  int start = -1, start_off = 0, open = 0;
  for (size_t i = 0; i < idx.size(); i++) {
    bk_plan_file_t& f = files[idx[i]];
    if (start < 0 || f.entry < start || (f.entry == start && f.offset < start_off)) {
      start = f.entry;
      start_off = f.offset;
    }
    w[i] = new budget_writer(app, fn, f.out, f.size);
    open++;
  }
  bool go = r.load(start);
  r.off = start_off;
  for (int k = start; go && open > 0; k++) {
    if (k != start) {
      if (!r.load(k)) break;
      if (!pb::is_min(r.e)) continue;
    }
    if (bk_cancelled()) break;
    bk_walk_entry(r, [&](const bk_frame& fr) {
      int c = static_cast<int>(fr.f.ch);
      if (c >= 59 || r.h.count[c] < 1) return kGoOn;
      for (size_t i = 0; i < idx.size(); i++) {
        bk_plan_file_t& f = files[idx[i]];
        if (f.ch != c || f.result != 0 || w[i] == nullptr) continue;
        if (r.j < f.entry || (r.j == f.entry && r.off < f.offset)) continue;
        if (w[i]->put(fr) == kStop) {
          f.result = w[i]->result();
          open--;
        }
      }
      return open > 0 ? kGoOn : kStop;
    });
  }
  for (budget_writer* b : w) delete b;
}

}  // namespace

int fs_app::bk_phase_two_files(bk_plan_file_t* files, int n, bool substream) {
  const char* fn = substream ? "bk_phase_two_substream" : "bk_phase_two";
  if (files == nullptr || n < 1) return 0;
  std::vector<bool> done(static_cast<size_t>(n), false);
  for (int i = 0; i < n; i++) {
    if (done[i]) continue;
    // The files of this one's hour that can share its walk: a start entry that is a
    // minute entry of the selection. Any other file is written as bk_phase_two writes it.
    int item = files[i].item;
    std::vector<int> idx;
    for (int j = i; j < n; j++) {
      bk_plan_file_t& f = files[j];
      if (done[j] || f.item != item) continue;
      done[j] = true;
      f.result = 0;
      bool shared =
          item >= 0 && item < bk_state.num && f.entry >= 0 && f.entry < bk_state.items[item].x.num;
      entry_t e;
      if (shared) {
        bk_item_t& it = bk_state.items[item];
        shared = f.entry < pb::table_len(it.db, it.x, nullptr) &&
                 it.db->e_read(it.x, f.entry, e) == 0 && pb::is_min(e);
      }
      if (shared)
        idx.push_back(j);
      else
        f.result =
            write_planned(*this, fn, substream, f.out, f.ch, f.size, f.item, f.entry, f.offset);
    }
    if (!idx.empty()) write_planned_together(*this, fn, substream, files, idx, item);
  }
  int written = 0;
  for (int i = 0; i < n; i++)
    if (files[i].result > 0) written++;
  return written;
}

int fs_app::bk_phase_one_channels(char const* dir, int beg, int end, int chbits, char* plan,
                                  bool substream) {
  (void)dir;
  return plan_export(*this, substream ? "bk_phase_one_substream" : "bk_phase_one",
                     substream ? kPlanSub : kPlanMain, beg, end, chbits, plan, nullptr, true);
}

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
    bk_reader r(this, &it, info->ch, true, fn);
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
      int got = bk_walk_entry(r, [&](const bk_frame& fr) {
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
