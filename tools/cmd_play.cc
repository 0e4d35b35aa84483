// ringrec play: steps through a recording block by block (or key frame by key frame) as
// a recorder's playback does, or takes one channel's main stream out as a raw stream.
//
//   ringrec play [DISK...] --at TIME [--reverse] [--count N]
//                [--keyframes [--step S] [--ch LIST]] [--json]
//   ringrec play [DISK...] --at TIME --extract CH OUT.h264 [--to TIME]
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "time_arg.h"

namespace tool {

namespace {

// A recorder's block holds a fraction of a second of every channel, a few MB at most; a
// larger size read from a damaged head is passed over rather than given a buffer.
const int kMaxBlock = 64 << 20;

std::string channels_of(const int32_t* count, int n) {
  std::string s;
  for (int ch = 0; ch < n; ch++)
    if (count[ch] > 0) s += (s.empty() ? "" : ",") + std::to_string(ch);
  return s.empty() ? "-" : s;
}

// ---- play -----------------------------------------------------------------------------

struct player {
  fs_app& app;
  int dir;
  bool keyframes = false;
  int mask = -1, step = 0;
  int32_t minute_time = 0;  // entry time of the minute the cursor is in

  explicit player(fs_app& a, int d) : app(a), dir(d) {}

  // Into the next minute in the playing direction. The library's walk is circular; a
  // minute that does not lie further on in time means the recording has been played.
  bool next_minute() {
    if (app.r_next(dir) != 0) return false;
    int32_t t = app.r_cur.min.time;
    if (dir >= 0 ? t <= minute_time : t >= minute_time) return false;
    minute_time = t;
    return true;
  }

  // One step; false at the end of the recording.
  bool move() {
    if (keyframes) {
      fs_db* db = app.r_cur.db;
      long long where = app.r_cur.min.offset;
      int off = app.r_cur.off;
      if (app.r_Iseek(dir, true, mask, step) == 0) {
        if (app.r_cur.db != db || app.r_cur.min.offset != where || app.r_cur.off != off)
          return true;
        // Answered 0 without moving. From an index of records that means no further key
        // frame carries the wanted channels in this minute; otherwise (an index of bare
        // offsets re-aligning, or no usable index) a block step goes on.
        int kind = app.r_iframe[1].kind;
        if (kind == 13 || kind == 14) return next_minute();
        return app.r_seek(dir) == 0 || next_minute();
      }
      return next_minute();
    }
    return app.r_seek(dir) == 0 || next_minute();
  }

  // A key-frame block of the main stream carrying a wanted channel (word 10, the bits
  // the key-frame index keeps beside each offset).
  bool wanted_key(const head_t& h) const {
    return (h.types & BLOCK_KEY_BITS) != 0 && h.stream != BLOCK_STREAM_SUB &&
           (h.events & static_cast<uint32_t>(mask)) != 0;
  }

  // The next block worth showing: a frame block (not one of the library's own records),
  // a key-frame block when stepping by key frames. False at the end of the recording.
  head_t* settle(bool moved_already) {
    for (long long guard = 0; guard < 10000000; guard++) {
      if (!moved_already && !move()) return nullptr;
      moved_already = false;
      head_t* h = app.r_head();
      if (h == nullptr) {
        // A block that cannot be read (damaged, or still being written): on to the next
        // minute rather than stepping by a size that cannot be trusted.
        if (!next_minute()) return nullptr;
        moved_already = true;
        h = app.r_head();
        if (h == nullptr) continue;
      }
      if (block_is_record(h->type)) continue;
      // Key-frame steps follow the main stream's index; blocks of the substream that a
      // block-by-block fallback meets are passed over.
      if (keyframes && !wanted_key(*h)) continue;
      return h;
    }
    return nullptr;
  }
};

std::string block_kind(const head_t& h) {
  std::string s = h.stream == BLOCK_STREAM_SUB ? "sub" : "main";
  if (h.types & BLOCK_KEY_BITS) s += " key";
  return s;
}

int extract(fs_app& app, long long at, long long to, bool has_to, int ch, const std::string& out) {
  FILE* f = fopen(out.c_str(), "wb");
  if (f == nullptr) return fail("cannot create " + out + ": check the directory exists");
  player p(app, 1);
  p.minute_time = app.r_cur.min.time;
  head_t* h = app.r_head();
  bool moved = h != nullptr;
  std::vector<char> buf;
  long long frames = 0, bytes = 0, first = -1, last = -1;
  int width = 0, height = 0;
  uint32_t codec = FRAME_INVALID;
  bool started = false, ok = true;
  for (;;) {
    h = p.settle(moved);
    moved = false;
    if (h == nullptr) break;
    head_t head = *h;
    if (head.time < at || head.stream == BLOCK_STREAM_SUB) continue;
    if (has_to && head.time >= to) break;
    if (head.size <= 0 || head.size > kMaxBlock) continue;
    buf.resize(static_cast<size_t>(head.size));
    if (app.r_data(buf.data(), head.size) != 0) continue;
    const unsigned char* data0 = reinterpret_cast<const unsigned char*>(buf.data());
    block_frames(head, data0, [&](const frame_head_t& fh, const char* data) {
      if (fh.type >= FRAME_INVALID) return false;  // the rest of the block is unusable
      if (!frame_is_video(fh.type) || static_cast<int>(fh.ch) != ch ||
          fh.stream == BLOCK_STREAM_SUB)
        return true;
      if (!started && !frame_is_key(fh.type)) return true;  // a decoder starts at a key frame
      if (!started) {
        width = static_cast<int>(fh.width);
        height = static_cast<int>(fh.height);
        codec = fh.type;
        first = head.time;
      }
      started = true;
      ok = ok && fwrite(data, 1, fh.len, f) == fh.len;
      frames++;
      bytes += fh.len;
      last = head.time;
      return true;
    });
  }
  ok = fclose(f) == 0 && ok;
  if (!ok) return fail("writing " + out + " failed: check the free space");
  if (frames == 0) {
    remove(out.c_str());
    return fail("channel " + std::to_string(ch) + " has no main-stream key frame from " +
                fmt_time(at) + (has_to ? " to " + fmt_time(to) : std::string(" on")));
  }
  printf("wrote %lld frames (%lld bytes) of channel %d, %s %dx%d, %s to %s, into %s\n", frames,
         bytes, ch, codec == FRAME_H265_KEY ? "H.265" : "H.264", width, height,
         fmt_time(first).c_str(), fmt_time(last).c_str(), out.c_str());
  return 0;
}

int run_play(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  long long at = 0, to = 0;
  bool has_at, has_to;
  if (!take_time(args, "--at", &at, &has_at))
    return usage_error("play", "bad --at: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!has_at)
    return usage_error("play", "--at TIME is required (seconds or YYYY-MM-DD HH:MM[:SS], UTC)");
  if (!take_time(args, "--to", &to, &has_to))
    return usage_error("play", "bad --to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  bool reverse = take_flag(args, "--reverse");
  bool keyframes = take_flag(args, "--keyframes");
  std::string v;
  long long count = 20, step = 0, ch = -1;
  uint32_t mask = 0xFFFFFFFFu;
  if (take_option(args, "--count", &v) && (!parse_int(v, &count) || count < 1))
    return usage_error("play", "--count: a number of blocks, 1 or more");
  bool has_step = take_option(args, "--step", &v);
  if (has_step && (!parse_int(v, &step) || step < 0 || step > 3600))
    return usage_error("play", "--step: seconds between key frames, 0 to 3600");
  bool has_mask = take_option(args, "--ch", &v);
  if (has_mask && !parse_channels(v, &mask))
    return usage_error("play", "bad --ch '" + v + "': channels 0 to 31 like 0,2,5");
  if ((has_step || has_mask) && !keyframes)
    return usage_error("play", "--step and --ch go with --keyframes");
  std::string out;
  bool extracting = false;
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] != "--extract") continue;
    if (i + 2 >= args.size() || !parse_int(args[i + 1], &ch) || ch < 0 || ch > 31)
      return usage_error("play", "--extract CH OUT.h264: a channel 0 to 31 and an output file");
    out = args[i + 2];
    args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 3);
    extracting = true;
    break;
  }
  if (extracting && (reverse || keyframes))
    return usage_error("play", "--extract plays forwards, block by block");
  if (has_to && !extracting) return usage_error("play", "--to goes with --extract");
  if (has_to && to <= at) return usage_error("play", "--to must lie after --at");
  int rc = 0;
  if (!only_positional("play", args, &rc)) return rc;

  volume_set vol;
  if ((rc = vol.open(args)) != 0) return rc;
  fs_app& app = *vol.app;
  if (app.r_set(static_cast<int>(at), 0) != 0)
    return fail("nothing recorded at or after " + fmt_time(at) + " (see 'ringrec search')");
  if (extracting) return extract(app, at, to, has_to, static_cast<int>(ch), out);

  player p(app, reverse ? -1 : 1);
  p.keyframes = keyframes;
  p.mask = static_cast<int>(mask);
  p.step = static_cast<int>(reverse ? -step : step);
  p.minute_time = app.r_cur.min.time;
  // The cursor stands on the first block at or after --at, or, when the minute has no
  // such block, on a block before it: forwards, those are passed over.
  head_t* h = app.r_head();
  bool moved = h != nullptr && !block_is_record(h->type) && (reverse || h->time >= at) &&
               (!keyframes || p.wanted_key(*h));
  // Key-frame jumps start from the block the cursor stands on, not from the start of
  // the minute: a stepped slot re-aligns itself to the frame offset first.
  if (keyframes) app.r_cur.stepped[0] = app.r_cur.stepped[1] = 1;
  long long shown = 0;
  while (shown < count) {
    h = p.settle(moved);
    moved = false;
    if (h == nullptr) break;
    if (!reverse && h->time < at) continue;
    if (shown == 0)
      printf("%-19s  %-8s  %9s  %-16s  %s\n", "TIME", "BLOCK", "SIZE", "CHANNELS", "WHERE");
    int slot = app.row_of(app.r_cur.db);
    printf("%s  %-8s  %9d  %-16s  %s %.32s +%d\n", fmt_time(h->time).c_str(),
           block_kind(*h).c_str(), h->size, channels_of(h->count, 32).c_str(), vol.name(slot),
           app.r_cur.min.name, app.r_cur.off);
    shown++;
  }
  if (shown == 0 && keyframes)
    return fail("no main-stream key frame with channels " + channel_list(mask) + " from " +
                fmt_time(at));
  if (shown == 0) return fail("no blocks to play from " + fmt_time(at));
  if (shown < count) printf("(end of the recording)\n");
  return 0;
}

bool r2 = add_command(
    {"play",
     "play [DISK...] --at TIME [--reverse] [--count N] [--keyframes [--step S] [--ch LIST]]"
     " [--json] | --at TIME --extract CH OUT.h264 [--to TIME]",
     run_play});

}  // namespace

}  // namespace tool
