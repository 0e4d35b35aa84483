// Single-pass MP4 export: writes as it reads, with the mdat size left for the caller,
// and hands back to the caller whenever a file ends (a new codec, the size limit, a new
// picture); bk_close and bk_multi_m4v_close finish a file.
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
#include "backup/mp4_export.h"
#include "playback/table_walk.h"
#include "recording/payload.h"
#include "runtime/runtime.h"

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
int single_pass(fs_app* app, State& st, void (fs_app::*sem)(int, int), const single_pass_form& form,
                fs_mp4*& mp4, FILE* out, int item, int ch, int& time, unsigned& width,
                unsigned& height, unsigned& fps) {
  const char* fn = form.fn;
  if (item < 0 || item >= st.num) return 0;
  bk_item_t& it = st.items[item];
  fs_log(fn, form.line_resume, "m_bk.bf[%d].cur.on = %d\n", item, it.resume);
  bk_reader r(app, &it, ch, false, fn);
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
    int got = bk_walk_entry(r, [&](const bk_frame& fr) {
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
  static const single_pass_form form = {"bk_write", 3420, 3432, 3447, 3490, 0, false, true, true};
  fs_mp4* none = nullptr;
  fs_mp4*& mp4 = item >= 0 && item < bk_state.num ? bk_state.items[item].mp4 : none;
  return single_pass(this, bk_state, &fs_app::bk_sem, form, mp4, out, item, ch, time, width, height,
                     fps);
}

int fs_app::bk_multi_m4v_write(FILE* out, int item, int ch, int& time, unsigned& width,
                               unsigned& height, unsigned& fps, bool audio) {
  const single_pass_form form = {
      "bk_multi_m4v_write", 3550, 3563, 3577, 3618, 3594, true, false, audio};
  // One file runs on across the hours: the writer lives in the first item.
  fs_mp4* none = nullptr;
  fs_mp4*& mp4 = bk_multi_state.num > 0 ? bk_multi_state.items[0].mp4 : none;
  return single_pass(this, bk_multi_state, &fs_app::bk_multi_sem, form, mp4, out, item, ch, time,
                     width, height, fps);
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

int fs_app::bk_close(FILE* out, int item, unsigned& a, unsigned& b) {
  if (item < 0 || item >= bk_state.num) return 0;
  bk_item_t& it = bk_state.items[item];
  if (it.mp4 != nullptr) {
    it.mp4->w_box_moov(out);
    it.mp4->g_box(a, b);
    delete it.mp4;
  }
  it.mp4 = nullptr;
  return 0;
}

int fs_app::bk_set_mdat_size(FILE* out, unsigned data) {
  unsigned v = data + 8;
  unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  if (fseek(out, 24, SEEK_SET) != 0 || fwrite(b, 1, 4, out) != 4) return -1;
  return 0;
}

namespace {

// One channel of the many-channel single-pass writers: the one-channel writer's state
// for it, kept across the item.
struct sp_chan {
  int k, ch;
  FILE* out;
  fs_mp4* mp4 = nullptr;
  file_state fs;
  bool waiting = true;  // dropping frames until a key frame
  bool stopped = false;
};

// Channel k of a call's arrays; a channel without a file is stopped from the start.
sp_chan sp_chan_of(int k, const int* chs, FILE** outs, int* results) {
  sp_chan c;
  c.k = k;
  c.ch = chs[k];
  c.out = outs[k];
  c.stopped = c.out == nullptr;
  results[k] = 0;
  return c;
}

// The one-channel writer's handling of one frame of the channel: 0 go on, 1 the file
// ends before this frame, -1 a video-loss frame.
int sp_put(const single_pass_form& form, sp_chan& c, const bk_frame& fr, bool marker,
           scratch& pcmbuf, int& time, unsigned& width, unsigned& height, unsigned& fps) {
  uint32_t type = fr.f.type;
  bool key = frame_is_key(type);
  if (c.mp4 == nullptr) {
    if (!key || fr.f.width == 0 || fr.f.height == 0) return 0;
    c.mp4 = new fs_mp4(codec_of(type));
    c.mp4->set(static_cast<unsigned short>(fr.f.width), static_cast<unsigned short>(fr.f.height),
               fr.f.fps, static_cast<unsigned>(fr.block_time));
    c.mp4->w_box_mdat(c.out);
    time = fr.block_time;
    width = fr.f.width;
    height = fr.f.height;
    fps = fr.f.fps;
    start_file(c.fs, fr.f);
    if (form.line_opened != 0)
      fs_log(form.fn, form.line_opened, "fps=%d, width=%d, height=%d, time=%d\n",
             static_cast<int>(fps), static_cast<int>(width), static_cast<int>(height), time);
  } else if (single_pass_ends(c.mp4, c.fs, fr.f, marker, form.fps_rule)) {
    return 1;
  }
  if (type == FRAME_AUDIO) {
    if (!form.audio || c.waiting) return 0;
    if (fr.f.fps == kAudioPcm) {
      if (c.mp4->add(FRAME_AUDIO, fr.data, fr.len) > 0)
        c.mp4->w_data(FRAME_AUDIO, c.out, fr.data, fr.len);
      return 0;
    }
    if (!adpcm_marker(fr.data, fr.len)) return 0;
    int pl = convert_audio(pcmbuf, fr.data, fr.len);
    if (pl > 0 && c.mp4->add(FRAME_AUDIO, pcmbuf.p, static_cast<unsigned>(pl)) > 0)
      c.mp4->w_data(FRAME_AUDIO, c.out, pcmbuf.p, static_cast<unsigned>(pl));
    return 0;
  }
  if (c.waiting && !key) return 0;
  int n = c.mp4->add(static_cast<int>(type), fr.data, fr.len);
  if (n == 0) {
    fs_log(form.fn, form.line_vloss, "VLOSS video!\n");
    return -1;
  }
  if (n < 0) {
    c.waiting = true;
    return 0;
  }
  c.waiting = false;
  c.mp4->w_data(static_cast<int>(type), c.out, fr.data, fr.len);
  return 0;
}

using done_fn = FILE* (*)(void* ctx, int k, FILE* out, unsigned pos, unsigned size, bool more);

// Finishes channel c's file as bk_close (or bk_multi_m4v_close) does and hands it to the
// caller; with `more` the caller's next file takes its place.
void sp_finish(sp_chan& c, bool more, done_fn done, void* ctx) {
  unsigned pos = 0, size = 0;
  if (c.mp4 != nullptr) {
    c.mp4->w_box_moov(c.out);
    c.mp4->g_box(pos, size);
    delete c.mp4;
    c.mp4 = nullptr;
  }
  FILE* next = done(ctx, c.k, c.out, pos, size, more);
  c.out = more ? next : nullptr;
  c.stopped = c.out == nullptr;
  c.fs = file_state();
  c.waiting = true;
}

// One walk of item `it` feeding every live channel of chans. Where the one-channel writer
// would return 1, the file is finished and the new one starts over at the first frame of
// the same block, as the writer's next call resumes there, up to this frame. Each entry
// counts once per channel in st.done; a cancel ends the walk between entries.
template <class State>
void sp_walk(fs_app* app, State& st, void (fs_app::*sem)(int, int), const single_pass_form& form,
             bk_reader& r, bk_item_t& it, std::vector<sp_chan>& chans, int* times, unsigned* widths,
             unsigned* heights, unsigned* fpss, int* results, done_fn done, void* ctx) {
  int n = static_cast<int>(chans.size());
  bool marker = same_file_marker();
  scratch pcmbuf;
  auto put = [&](sp_chan& c, const bk_frame& fr) {
    int k = c.k;
    int s = sp_put(form, c, fr, marker, pcmbuf, times[k], widths[k], heights[k], fpss[k]);
    for (int again = 0; s == 1 && again < 4; again++) {
      sp_finish(c, true, done, ctx);
      if (c.stopped) return;
      s = 0;
      const char* end_of_data = reinterpret_cast<const char*>(r.data) + r.h.size;
      bk_frames(r.h, r.data, [&](frame_head_t& f, const char* data) {
        int cc = -1;
        if (app->bk_check(&f, cc) < 0) return false;
        if (cc != c.ch) return true;
        bk_frame g = bk_frame_in(r.h, f, data, end_of_data);
        s = sp_put(form, c, g, marker, pcmbuf, times[k], widths[k], heights[k], fpss[k]);
        return s == 0 && data != fr.data;
      });
    }
    if (s == 1) c.stopped = true;  // a block that ends its own file again and again
    if (s == -1) {
      results[k] = -1;
      c.stopped = true;
    }
  };
  st.done += n;
  for (int k = it.e.idx; r.load(k); k++) {
    if (!pb::is_min(r.e)) continue;
    if (k == it.e.idx) r.off = static_cast<int>(it.off);
    if (bk_cancelled()) break;
    std::vector<sp_chan*> live;
    for (sp_chan& c : chans)
      if (!c.stopped && c.ch >= 0 && c.ch < 60 && rec_get_count(r.e, c.ch) != 0) live.push_back(&c);
    if (!live.empty())
      bk_walk_entry(r, [&](const bk_frame& fr) {
        int c = static_cast<int>(fr.f.ch);
        if (c >= 59 || r.h.count[c] < 1) return kGoOn;
        for (sp_chan* p : live)
          if (p->ch == c && !p->stopped) put(*p, fr);
        return kGoOn;
      });
    st.done += n;
    (app->*sem)(bk_percent(st.done, st.total), 0);
  }
}

}  // namespace

int fs_app::bk_write_channels(int item, int n, const int* chs, FILE** outs, int* times,
                              unsigned* widths, unsigned* heights, unsigned* fpss, int* results,
                              FILE* (*done)(void* ctx, int k, FILE* out, unsigned pos,
                                            unsigned size, bool more),
                              void* ctx) {
  static const single_pass_form form = {"bk_write", 3420, 3432, 3447, 3490, 0, false, true, true};
  if (item < 0 || item >= bk_state.num || n < 1 || done == nullptr) return 0;
  bk_item_t& it = bk_state.items[item];
  bk_reader r(this, &it, -1, false, "bk_write");
  std::vector<sp_chan> chans;
  for (int k = 0; k < n; k++) {
    chans.push_back(sp_chan_of(k, chs, outs, results));
    times[k] = 0;
  }
  sp_walk(this, bk_state, &fs_app::bk_sem, form, r, it, chans, times, widths, heights, fpss,
          results, done, ctx);
  for (sp_chan& c : chans)
    if (c.out != nullptr) sp_finish(c, false, done, ctx);
  return 0;
}

int fs_app::bk_multi_m4v_write_channels(
    int item, int n, const int* chs, FILE** outs, fs_mp4** writers, int* times, unsigned* widths,
    unsigned* heights, unsigned* fpss, int* results,
    FILE* (*done)(void* ctx, int k, FILE* out, unsigned pos, unsigned size, bool more), void* ctx) {
  static const single_pass_form form = {
      "bk_multi_m4v_write", 3550, 3563, 3577, 3618, 3594, true, false, false};
  if (n < 1 || done == nullptr) return 0;
  std::vector<sp_chan> chans;
  for (int k = 0; k < n; k++) {
    sp_chan c = sp_chan_of(k, chs, outs, results);
    c.mp4 = writers[k];
    // A writer left open by an earlier item runs on with the picture it began with.
    if (c.mp4 != nullptr) {
      c.fs.width = widths[k];
      c.fs.height = heights[k];
      c.fs.first_fps = c.fs.cur_fps = fpss[k];
      c.waiting = false;
    }
    chans.push_back(c);
  }
  if (item < 0 || item >= bk_multi_state.num) {
    // Past the selection: every open file is finished.
    for (sp_chan& c : chans)
      if (c.out != nullptr) sp_finish(c, false, done, ctx);
  } else {
    bk_item_t& it = bk_multi_state.items[item];
    fs_log(form.fn, form.line_item, "%.2d: %.32s\n", item, it.e.name);
    bk_reader r(this, &it, -1, false, form.fn);
    r.multi = true;
    r.slot = slot_of(bk_multi_state, it, chs[0]);
    sp_walk(this, bk_multi_state, &fs_app::bk_multi_sem, form, r, it, chans, times, widths, heights,
            fpss, results, done, ctx);
  }
  for (int k = 0; k < n; k++) {
    outs[k] = chans[k].out;
    writers[k] = chans[k].mp4;
  }
  return 0;
}
