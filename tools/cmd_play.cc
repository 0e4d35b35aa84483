// ringrec play: steps through a recording block by block (or key frame by key frame) as
// a recorder's playback does, or takes one channel's main stream out as a raw stream.
//
//   ringrec play [DISK...] --at TIME [--reverse] [--count N]
//                [--keyframes [--step S] [--ch LIST]] [--json]
//   ringrec play [DISK...] --at TIME --extract CH OUT.h264 [--to TIME] [--json]
//
// Stored blocks that cannot be read are jumped over (to the minute's next key frame when
// its index has one); each such span is named and the exit status is 1.
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "player.h"
#include "range_survey.h"
#include "time_arg.h"

namespace tool {

namespace {

// A recorder's block holds a fraction of a second of every channel, a few MB at most; a
// larger size read from a damaged head is passed over rather than given a buffer.
const int kMaxBlock = 64 << 20;

uint32_t channels_of(const head_t& h) {
  uint32_t m = 0;
  for (int ch = 0; ch < 32; ch++)
    if (h.count[ch] > 0) m |= 1u << ch;
  return m;
}

// Every span jumped over, in the tool's words and in the JSON report; 1 when any.
int tell_gaps(const volume_set& v, const std::vector<play_gap>& gaps, json* j) {
  if (j != nullptr) j->arr("gaps");
  for (const play_gap& g : gaps) {
    std::string from = g.from >= 0 ? fmt_time(g.from) : "its start";
    std::string to = g.to >= 0 ? fmt_time(g.to) : "its end";
    if (j != nullptr)
      j->obj()
          .str("disk", v.name(g.slot))
          .str("minute", g.minute)
          .num("offset", g.offset)
          .num("from", g.from)
          .num("to", g.to)
          .end();
    err("stored blocks of %s on %s could not be read from data offset %d: %s to %s skipped",
        g.minute.c_str(), v.name(g.slot), g.offset, from.c_str(), to.c_str());
  }
  if (j != nullptr) j->end();
  return gaps.empty() ? 0 : 1;
}

int extract(volume_set& v, long long at, long long to, bool has_to, int ch, const std::string& out,
            bool as_json) {
  fs_app& app = *v.app;
  FILE* f = fopen(out.c_str(), "wb");
  if (f == nullptr) return fail("cannot create " + out + ": check the directory exists");
  player p(app, 1, false, 0xFFFFFFFFu, 0);
  std::vector<char> buf;
  long long frames = 0, bytes = 0, first = -1, last = -1;
  int width = 0, height = 0;
  uint32_t codec = FRAME_INVALID;
  bool started = false, ok = true;
  for (head_t* h = p.start(at); h != nullptr; h = p.next()) {
    head_t head = *h;
    if (head.stream == BLOCK_STREAM_SUB) continue;
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
  const char* name = codec == FRAME_H265_KEY ? "H.265" : "H.264";
  json j;
  if (as_json) {
    j.obj().str("path", out).num("channel", ch).str("codec", name).num("width", width);
    j.num("height", height).num("frames", frames).num("bytes", bytes).num("from", first);
    j.num("to", last);
  } else {
    printf("wrote %lld frames (%lld bytes) of channel %d, %s %dx%d, %s to %s, into %s\n", frames,
           bytes, ch, name, width, height, fmt_time(first).c_str(), fmt_time(last).c_str(),
           out.c_str());
  }
  int rc = tell_gaps(v, p.gaps, as_json ? &j : nullptr);
  if (as_json) j.boolean("complete", rc == 0).end().print();
  return rc;
}

struct play_args {
  long long at = 0, to = 0, count = 20, step = 0, ch = -1;
  bool has_to = false, reverse = false, keyframes = false, extracting = false, json = false;
  uint32_t mask = 0xFFFFFFFFu;
  std::string out;
};

int parse(std::vector<std::string>& args, play_args& a) {
  bool has_at;
  if (!take_time(args, "--at", &a.at, &has_at))
    return usage_error("play", "bad --at: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!has_at)
    return usage_error("play", "--at TIME is required (seconds or YYYY-MM-DD HH:MM[:SS], UTC)");
  if (!take_time(args, "--to", &a.to, &a.has_to))
    return usage_error("play", "bad --to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  a.reverse = take_flag(args, "--reverse");
  a.keyframes = take_flag(args, "--keyframes");
  a.json = take_flag(args, "--json");
  std::string v;
  if (take_option(args, "--count", &v) && (!parse_int(v, &a.count) || a.count < 1))
    return usage_error("play", "bad --count: a number of blocks, 1 or more");
  bool has_step = take_option(args, "--step", &v);
  if (has_step && (!parse_int(v, &a.step) || a.step < 0 || a.step > 3600))
    return usage_error("play", "bad --step: seconds between key frames, 0 to 3600");
  bool has_mask = take_option(args, "--ch", &v);
  if (has_mask && !parse_channels(v, &a.mask))
    return usage_error("play", "bad --ch '" + v + "': channels 0 to 31 like 0,2,5");
  if ((has_step || has_mask) && !a.keyframes)
    return usage_error("play", "--step and --ch go with --keyframes");
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] != "--extract") continue;
    if (i + 2 >= args.size() || !parse_int(args[i + 1], &a.ch) || a.ch < 0 || a.ch > 31)
      return usage_error("play", "--extract CH OUT.h264: a channel 0 to 31 and an output file");
    a.out = args[i + 2];
    args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 3);
    a.extracting = true;
    break;
  }
  if (a.extracting && (a.reverse || a.keyframes))
    return usage_error("play", "--extract plays forwards, block by block");
  if (a.has_to && !a.extracting) return usage_error("play", "--to goes with --extract");
  if (a.has_to && a.to <= a.at) return usage_error("play", "--to must lie after --at");
  int rc = 0;
  only_positional("play", args, &rc);
  return rc;
}

int run_play(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  play_args a;
  int rc = parse(args, a);
  if (rc != 0) return rc;
  volume_set vol;
  if ((rc = vol.open(args)) != 0) return rc;
  fs_app& app = *vol.app;
  if (app.r_set(static_cast<int>(a.at), 0) != 0)
    return fail("nothing recorded at or after " + fmt_time(a.at) + " (see 'ringrec search')");
  if (a.extracting)
    return extract(vol, a.at, a.to, a.has_to, static_cast<int>(a.ch), a.out, a.json);

  if (a.keyframes && a.mask != 0xFFFFFFFFu)
    warn_empty(
        a.reverse ? survey_range(vol, 0, a.at, false) : survey_range(vol, a.at, INT32_MAX, false),
        a.mask, a.reverse ? "before --at" : "after --at");
  player p(app, a.reverse ? -1 : 1, a.keyframes, a.mask, static_cast<int>(a.step));
  json j;
  j.obj().arr("blocks");
  long long shown = 0;
  for (head_t* h = p.start(a.at); h != nullptr && shown < a.count;
       h = ++shown < a.count ? p.next() : nullptr) {
    int slot = app.row_of(app.r_cur.db);
    std::string minute(app.r_cur.min.name, strnlen(app.r_cur.min.name, sizeof app.r_cur.min.name));
    if (a.json) {
      j.obj().num("time", h->time).str("utc", fmt_time(h->time)).str("block", block_kind(*h));
      j.num("size", h->size)
          .str("channels", channel_list(channels_of(*h)))
          .str("disk", vol.name(slot));
      j.str("minute", minute).num("offset", app.r_cur.off).end();
      continue;
    }
    if (shown == 0)
      printf("%-19s  %-8s  %9s  %-16s  %s\n", "TIME", "BLOCK", "SIZE", "CHANNELS", "WHERE");
    printf("%s  %-8s  %9d  %-16s  %s %s +%d\n", fmt_time(h->time).c_str(), block_kind(*h).c_str(),
           h->size, channel_list(channels_of(*h)).c_str(), vol.name(slot), minute.c_str(),
           app.r_cur.off);
  }
  j.end();
  if (a.json) j.boolean("end_of_recording", shown < a.count);
  rc = tell_gaps(vol, p.gaps, a.json ? &j : nullptr);
  if (a.json) j.end().print();
  if (shown == 0 && a.keyframes)
    return fail("no main-stream key frame with channels " + channel_list(a.mask) + " from " +
                fmt_time(a.at));
  if (shown == 0) return fail("no blocks to play from " + fmt_time(a.at));
  if (shown < a.count && !a.json) printf("(end of the recording)\n");
  return rc;
}

bool r2 = add_command(
    {"play",
     "play [DISK...] --at TIME [--reverse] [--count N] [--keyframes [--step S] [--ch LIST]]"
     " [--json] | --at TIME --extract CH OUT.h264 [--to TIME] [--json]",
     run_play});

}  // namespace

}  // namespace tool
