// The read side: finding and playing recordings, on a board (--root) or straight on
// disk images or devices pulled from a recorder. Nothing here writes to a volume: the
// volumes are opened read-only.
//
//   ringrec search [DISK...] [--from TIME] [--to TIME] [--json]
//   ringrec search [DISK...] --event record|vloss|motion|sensor [--ch MASK] ...
//   ringrec search [DISK...] --motion CH [--cells WORDS] ...
//   ringrec play [DISK...] --at TIME [--reverse] [--count N]
//                [--keyframes [--step S] [--ch MASK]]
//   ringrec play [DISK...] --at TIME --extract CH OUT.h264 [--to TIME]
//   ringrec timeline [DISK...] --day DATE OUT.svg
//
// Channels are numbered from 0, as in the masks (bit n is channel n). WORDS is a
// comma-separated list of 32-bit motion-grid words in C notation ("0xF0,0,0x1").
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "command.h"
#include "time_arg.h"
#include "volume_arg.h"
#include "volume_set.h"

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

// A device or image path inside a JSON string.
std::string json_text(const char* s) {
  std::string out;
  for (; *s; s++) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += *s;
    } else if (c < 0x20) {
      char buf[8];
      snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += *s;
    }
  }
  return out;
}

std::string channels_of_mask(uint32_t mask) {
  if (mask == 0xFFFFFFFFu) return "all";
  std::string s;
  for (int ch = 0; ch < 32; ch++)
    if (mask >> ch & 1) s += (s.empty() ? "" : ",") + std::to_string(ch);
  return s.empty() ? "-" : s;
}

// Runs fn with the disk table narrowed to row i. The minute list says nothing of the
// disk a minute came from, so a per-disk listing asks the library one disk at a time.
template <typename F>
void on_disk(fs_app& app, int i, F fn) {
  db_info_t saved = app.db_info[0];
  int cnt = app.db_cnt;
  app.db_info[0] = app.db_info[i];
  app.db_cnt = 1;
  fn();
  app.db_info[0] = saved;
  app.db_cnt = cnt;
}

// Positional arguments left after the options: unknown "--" options are usage errors.
bool only_disks(const std::string& cmd, const std::vector<std::string>& args, int* rc) {
  for (const std::string& a : args)
    if (a.compare(0, 2, "--") == 0) {
      *rc = usage_error(cmd, "unknown option '" + a + "'");
      return false;
    }
  return true;
}

bool time_option(std::vector<std::string>& args, const char* name, long long* out, bool* given) {
  std::string v;
  *given = take_option(args, name, &v);
  if (!*given) return true;
  return parse_time(v, out) && *out >= 0 && *out <= INT32_MAX;
}

// ---- search ---------------------------------------------------------------------------

struct span {
  long long from, to;  // first block's second; end of the last second recorded
  int minutes;
  long long last_minute;
};

// Contiguous recorded time from a sorted minute list: minutes that follow each other
// join one span. A minute ends after the last second its mask marks.
std::vector<span> spans_of(const min_rec_t* m, int n) {
  std::vector<span> out;
  for (int i = 0; i < n; i++) {
    min_rec_t r;
    memcpy(&r, m + i, sizeof r);
    long long minute = r.time / 60;
    uint64_t mask = r.mask;
    int last = 59;
    while (last > 0 && !(mask >> last & 1)) last--;
    long long end = std::max<long long>(minute * 60 + (mask ? last + 1 : 60), r.time + 1);
    if (!out.empty() && minute <= out.back().last_minute + 1) {
      span& s = out.back();
      if (minute > s.last_minute) {
        s.minutes++;
        s.last_minute = minute;
      }
      s.to = std::max(s.to, end);
      continue;
    }
    out.push_back({r.time, end, 1, minute});
  }
  return out;
}

int run_search(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  bool json = take_flag(args, "--json");
  long long beg = 0, end = 0;
  bool has_from, has_to;
  if (!time_option(args, "--from", &beg, &has_from))
    return usage_error("search", "--from: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!time_option(args, "--to", &end, &has_to))
    return usage_error("search", "--to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (has_to && end < beg) return usage_error("search", "--to lies before --from");
  std::string event, chs, motion, cells;
  bool by_event = take_option(args, "--event", &event);
  bool has_ch = take_option(args, "--ch", &chs);
  bool by_motion = take_option(args, "--motion", &motion);
  bool has_cells = take_option(args, "--cells", &cells);
  int rc = 0;
  if (!only_disks("search", args, &rc)) return rc;
  if (by_event && by_motion) return usage_error("search", "give --event or --motion, not both");
  static const char* kinds[] = {"record", "vloss", "motion", "sensor"};
  int type = -1;
  if (by_event) {
    for (int k = 0; k < 4; k++)
      if (event == kinds[k]) type = k;
    if (type < 0) return usage_error("search", "--event: record, vloss, motion or sensor");
  }
  long long mask = 0xFFFFFFFFLL;
  if (has_ch && (!by_event || !parse_int(chs, &mask) || mask <= 0 || mask > 0xFFFFFFFFLL))
    return usage_error("search", "--ch takes a channel mask (like 0x5) with --event");
  long long ch = -1;
  if (by_motion && (!parse_int(motion, &ch) || ch < 0 || ch > 31))
    return usage_error("search", "--motion takes a channel number, 0 to 31");
  std::vector<unsigned> words;
  if (has_cells) {
    if (!by_motion) return usage_error("search", "--cells goes with --motion CH");
    size_t at = 0;
    while (at <= cells.size()) {
      size_t comma = cells.find(',', at);
      if (comma == std::string::npos) comma = cells.size();
      long long w;
      if (!parse_int(cells.substr(at, comma - at), &w) || w < 0 || w > 0xFFFFFFFFLL)
        return usage_error("search", "--cells: 32-bit words separated by commas, like 0xF0,0,1");
      words.push_back(static_cast<unsigned>(w));
      at = comma + 1;
    }
    if (words.empty() || words.size() > 64)
      return usage_error("search", "--cells: 1 to 64 grid words");
  }

  volume_set v;
  if ((rc = v.open(args)) != 0) return rc;
  fs_app& app = *v.app;
  int b = static_cast<int>(beg), e = static_cast<int>(end);

  if (by_event || by_motion) {
    int n = 0;
    min_rec_t* m;
    if (by_event)
      m = app.q_log(b, e, static_cast<int>(static_cast<uint32_t>(mask)), type, n);
    else if (has_cells)
      m = app.q_motionMask(b, e, static_cast<int>(ch), n, words.data(),
                           static_cast<int>(words.size()));
    else
      m = app.q_motion(b, e, static_cast<int>(ch), n);
    // One line per minute (per snapshot second with --cells): a minute recorded on two
    // disks is listed once.
    std::vector<long long> times;
    for (int i = 0; i < n; i++) {
      int32_t t;
      memcpy(&t, &m[i].time, sizeof t);
      times.push_back(has_cells ? t : t / 60 * 60);
    }
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    std::string what = by_event ? event : "motion";
    std::string on = by_event ? (mask == 0xFFFFFFFFLL
                                     ? "any channel"
                                     : "channels " + channels_of_mask(static_cast<uint32_t>(mask)))
                              : "channel " + std::to_string(ch);
    if (json) {
      printf("{\"search\": \"%s\", \"channels\": \"%s\", \"count\": %zu, \"times\": [",
             what.c_str(),
             by_event ? channels_of_mask(static_cast<uint32_t>(mask)).c_str()
                      : std::to_string(ch).c_str(),
             times.size());
      for (size_t i = 0; i < times.size(); i++)
        printf("%s\n  {\"time\": %lld, \"utc\": \"%s\"}", i ? "," : "", times[i],
               fmt_time(times[i]).c_str());
      printf("%s]}\n", times.empty() ? "" : "\n");
      return 0;
    }
    if (times.empty()) {
      printf("no minutes with %s on %s\n", what.c_str(), on.c_str());
      return 0;
    }
    printf("%zu %s%s with %s on %s:\n", times.size(), has_cells ? "snapshot" : "minute",
           times.size() == 1 ? "" : "s", what.c_str(), on.c_str());
    for (long long t : times)
      printf("  %s\n", has_cells ? fmt_time(t).c_str() : fmt_time(t).substr(0, 16).c_str());
    return 0;
  }

  // Recorded time, per disk.
  if (json) printf("{\"disks\": [");
  int shown = 0;
  for (int d = 0; d < app.db_cnt; d++) {
    if (app.db_info[d].db == nullptr || app.db_info[d].db->q_key() == 0) continue;
    std::vector<span> sp;
    on_disk(app, d, [&] {
      int n = 0;
      min_rec_t* m = app.q_min(b, e, n);
      sp = spans_of(m, n);
    });
    if (json) {
      printf("%s\n  {\"device\": \"%s\", \"spans\": [", shown ? "," : "",
             json_text(v.name(d)).c_str());
      for (size_t i = 0; i < sp.size(); i++)
        printf(
            "%s\n    {\"from\": %lld, \"to\": %lld, \"minutes\": %d, \"from_utc\": \"%s\", "
            "\"to_utc\": \"%s\"}",
            i ? "," : "", sp[i].from, sp[i].to, sp[i].minutes, fmt_time(sp[i].from).c_str(),
            fmt_time(sp[i].to).c_str());
      printf("%s]}", sp.empty() ? "" : "\n  ");
    } else {
      if (sp.empty())
        printf("%s: nothing recorded in the span\n", v.name(d));
      else
        printf("%s:\n", v.name(d));
      for (const span& s : sp)
        printf("  %s  to  %s  (%d min)\n", fmt_time(s.from).c_str(), fmt_time(s.to).c_str(),
               s.minutes);
    }
    shown++;
  }
  if (json) printf("%s]}\n", shown ? "\n" : "");
  return 0;
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
    // Frames lie back to back: frame_head_t, then len bytes. A length that runs past the
    // block ends the walk of this block.
    long long pos = 0;
    while (pos + FRAME_HEAD <= head.size) {
      frame_head_t fh;
      memcpy(&fh, buf.data() + pos, sizeof fh);
      if (fh.type >= FRAME_INVALID || fh.len > static_cast<uint32_t>(head.size - pos - FRAME_HEAD))
        break;
      const char* data = buf.data() + pos + FRAME_HEAD;
      pos += FRAME_HEAD + static_cast<long long>(fh.len);
      if (!frame_is_video(fh.type) || static_cast<int>(fh.ch) != ch ||
          fh.stream == BLOCK_STREAM_SUB)
        continue;
      if (!started && !frame_is_key(fh.type)) continue;  // a decoder starts at a key frame
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
    }
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
  if (!time_option(args, "--at", &at, &has_at) || !has_at)
    return usage_error("play", "--at TIME is required (seconds or YYYY-MM-DD HH:MM[:SS], UTC)");
  if (!time_option(args, "--to", &to, &has_to))
    return usage_error("play", "--to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  bool reverse = take_flag(args, "--reverse");
  bool keyframes = take_flag(args, "--keyframes");
  std::string v;
  long long count = 20, step = 0, mask = 0xFFFFFFFFLL, ch = -1;
  if (take_option(args, "--count", &v) && (!parse_int(v, &count) || count < 1))
    return usage_error("play", "--count: a number of blocks, 1 or more");
  bool has_step = take_option(args, "--step", &v);
  if (has_step && (!parse_int(v, &step) || step < 0 || step > 3600))
    return usage_error("play", "--step: seconds between key frames, 0 to 3600");
  bool has_mask = take_option(args, "--ch", &v);
  if (has_mask && (!parse_int(v, &mask) || mask <= 0 || mask > 0xFFFFFFFFLL))
    return usage_error("play", "--ch takes a channel mask (like 0x5)");
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
  if (!only_disks("play", args, &rc)) return rc;

  volume_set vol;
  if ((rc = vol.open(args)) != 0) return rc;
  fs_app& app = *vol.app;
  if (app.r_set(static_cast<int>(at), 0) != 0)
    return fail("nothing recorded at or after " + fmt_time(at) + " (see 'ringrec search')");
  if (extracting) return extract(app, at, to, has_to, static_cast<int>(ch), out);

  player p(app, reverse ? -1 : 1);
  p.keyframes = keyframes;
  p.mask = static_cast<int>(static_cast<uint32_t>(mask));
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
           block_kind(*h).c_str(), h->size, channels_of(h->count, 32).c_str(),
           slot >= 0 ? app.db_info[slot].dev : "?", app.r_cur.min.name, app.r_cur.off);
    shown++;
  }
  if (shown == 0 && keyframes)
    return fail("no main-stream key frame with channels " +
                channels_of_mask(static_cast<uint32_t>(mask)) + " from " + fmt_time(at));
  if (shown == 0) return fail("no blocks to play from " + fmt_time(at));
  if (shown < count) printf("(end of the recording)\n");
  return 0;
}

// ---- timeline -------------------------------------------------------------------------

int run_timeline(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string d;
  long long day;
  if (!take_option(args, "--day", &d) || !parse_day(d, &day) || day < 0 || day + 86399 > INT32_MAX)
    return usage_error("timeline", "--day YYYY-MM-DD is required");
  int rc = 0;
  if (!only_disks("timeline", args, &rc)) return rc;
  if (args.empty()) return usage_error("timeline", "give the output file (OUT.svg)");
  std::string out = args[0];
  args.erase(args.begin());

  volume_set vol;
  if ((rc = vol.open(args)) != 0) return rc;
  fs_app& app = *vol.app;
  int b = static_cast<int>(day), e = static_cast<int>(day + 86399);
  // Per minute of the day: bit 0 recorded, 1 motion, 2 video loss, 3 sensor.
  std::vector<int> marks(1440, 0);
  int n = 0;
  min_rec_t* m = app.q_min(b, e, n);
  auto mark = [&](min_rec_t* list, int count, int bit) {
    for (int i = 0; i < count; i++) {
      int32_t t;
      memcpy(&t, &list[i].time, sizeof t);
      long long k = (t - day) / 60;
      if (k >= 0 && k < 1440) marks[static_cast<size_t>(k)] |= bit;
    }
  };
  mark(m, n, 1);
  m = app.q_log(b, e, -1, 2, n);
  mark(m, n, 2);
  m = app.q_log(b, e, -1, 1, n);
  mark(m, n, 4);
  m = app.q_log(b, e, -1, 3, n);
  mark(m, n, 8);

  FILE* f = fopen(out.c_str(), "w");
  if (f == nullptr) return fail("cannot create " + out + ": check the directory exists");
  const int cw = 14, rh = 20, left = 70, top = 60;
  const int width = left + 60 * cw + 20, height = top + 24 * rh + 70;
  fprintf(f,
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
          "viewBox=\"0 0 %d %d\" font-family=\"sans-serif\" font-size=\"12\">\n"
          "<title>Recording on %s (UTC)</title>\n"
          "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n"
          "<text x=\"%d\" y=\"24\" font-size=\"16\" font-weight=\"bold\">Recording on %s "
          "(UTC)</text>\n",
          width, height, width, height, d.c_str(), left, d.c_str());
  for (int mi = 0; mi < 60; mi += 10)
    fprintf(f, "<text x=\"%d\" y=\"%d\" fill=\"#555\">:%02d</text>\n", left + mi * cw, top - 8, mi);
  int recorded = 0, with[4] = {0, 0, 0, 0};
  for (int h = 0; h < 24; h++) {
    int y = top + h * rh;
    fprintf(f, "<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%02d:00</text>\n", left - 8, y + rh - 6,
            h);
    for (int mi = 0; mi < 60; mi++) {
      int k = marks[static_cast<size_t>(h * 60 + mi)];
      int x = left + mi * cw;
      fprintf(f,
              "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\" "
              "stroke=\"#dddddd\"><title>%02d:%02d%s</title></rect>\n",
              x, y, cw, rh, k & 1 ? "#7fa7d9" : "#f4f4f4", h, mi, k & 1 ? " recorded" : "");
      // Events: three stripes across the minute, one colour each.
      if (k & 2)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#f08c00\"/>\n", x + 1,
                y + 1, cw - 2);
      if (k & 4)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#d9480f\"/>\n", x + 1,
                y + 7, cw - 2);
      if (k & 8)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#7b2cbf\"/>\n", x + 1,
                y + 13, cw - 2);
      for (int bit = 0; bit < 4; bit++) with[bit] += (k >> bit) & 1;
      recorded += k & 1;
    }
  }
  static const char* labels[] = {"recorded", "motion", "video loss", "sensor"};
  static const char* colours[] = {"#7fa7d9", "#f08c00", "#d9480f", "#7b2cbf"};
  int ly = top + 24 * rh + 30;
  for (int i = 0; i < 4; i++) {
    int lx = left + i * 190;
    fprintf(f,
            "<rect x=\"%d\" y=\"%d\" width=\"14\" height=\"14\" fill=\"%s\" stroke=\"#999\"/>\n"
            "<text x=\"%d\" y=\"%d\">%s (%d min)</text>\n",
            lx, ly - 11, colours[i], lx + 20, ly, labels[i], with[i]);
  }
  fprintf(f, "</svg>\n");
  if (fclose(f) != 0) return fail("writing " + out + " failed: check the free space");
  printf(
      "%s: %s, %d minutes recorded, %d with motion, %d with video loss, %d with sensor "
      "events\n",
      out.c_str(), d.c_str(), recorded, with[1], with[2], with[3]);
  return 0;
}

bool r1 = add_command(
    {"search",
     "search [DISK...] [--from TIME] [--to TIME] [--event record|vloss|motion|sensor [--ch MASK]"
     " | --motion CH [--cells WORDS]] [--json]",
     run_search});
bool r2 = add_command(
    {"play",
     "play [DISK...] --at TIME [--reverse] [--count N] [--keyframes [--step S] [--ch MASK]]"
     " | --at TIME --extract CH OUT.h264 [--to TIME]",
     run_play});
bool r3 = add_command({"timeline", "timeline [DISK...] --day DATE OUT.svg", run_timeline});

}  // namespace

}  // namespace tool
