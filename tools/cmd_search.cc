// ringrec search: recorded time per disk, minutes with events, motion snapshots, on a
// board (--root) or straight on disk images or devices pulled from a recorder. The
// volumes are opened read-only.
//
//   ringrec search [DISK...] [--from TIME] [--to TIME] [--json]
//   ringrec search [DISK...] --event record|vloss|motion|sensor [--ch LIST] ...
//   ringrec search [DISK...] --motion CH [--cells WORDS] ...
//
// LIST is channels from 0 separated by commas ("0,2"). WORDS is a comma-separated list
// of 32-bit motion-grid words in C notation ("0xF0,0,0x1").
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "range_survey.h"
#include "time_arg.h"

namespace tool {

namespace {

// ---- search ---------------------------------------------------------------------------

struct span {
  long long from, to;  // first block's second; end of the last second recorded
  int minutes;
  long long last_minute;
  std::vector<long long> twice;  // minutes that two entries hold (a clock set back)
};

// Contiguous recorded time from a sorted minute list: minutes that follow each other
// join one span. A minute ends after the last second its mask marks. Two entries of
// the same minute (MIN_10:00 and MIN_10:00-1, after the clock was set back) hold two
// recordings of it; the span keeps the minute once and names it.
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
      } else if (s.twice.empty() || s.twice.back() != minute * 60) {
        s.twice.push_back(minute * 60);
      }
      s.to = std::max(s.to, end);
      continue;
    }
    out.push_back({r.time, end, 1, minute, {}});
  }
  return out;
}

struct search_args {
  bool json = false, by_event = false, by_motion = false, has_cells = false;
  long long beg = 0, end = 0, ch = -1;
  int type = -1;
  uint32_t mask = 0xFFFFFFFFu;
  std::string event;
  std::vector<unsigned> words;
};

// 0, or the usage error's status.
int parse(std::vector<std::string>& args, search_args& a) {
  a.json = take_flag(args, "--json");
  bool has_from, has_to;
  if (!take_time(args, "--from", &a.beg, &has_from))
    return usage_error("search", "bad --from: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!take_time(args, "--to", &a.end, &has_to))
    return usage_error("search", "bad --to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (has_to && a.end < a.beg) return usage_error("search", "--to lies before --from");
  std::string chs, motion, cells;
  a.by_event = take_option(args, "--event", &a.event);
  bool has_ch = take_option(args, "--ch", &chs);
  a.by_motion = take_option(args, "--motion", &motion);
  a.has_cells = take_option(args, "--cells", &cells);
  int rc = 0;
  if (!only_positional("search", args, &rc)) return rc;
  if (a.by_event && a.by_motion) return usage_error("search", "give --event or --motion, not both");
  static const char* kinds[] = {"record", "vloss", "motion", "sensor"};
  if (a.by_event) {
    for (int k = 0; k < 4; k++)
      if (a.event == kinds[k]) a.type = k;
    if (a.type < 0) return usage_error("search", "bad --event: record, vloss, motion or sensor");
  }
  if (has_ch && !a.by_event) return usage_error("search", "--ch goes with --event");
  if (has_ch && !parse_channels(chs, &a.mask))
    return usage_error("search", "bad --ch '" + chs + "': channels 0 to 31 like 0,2,5");
  if (a.by_motion && (!parse_int(motion, &a.ch) || a.ch < 0 || a.ch > 31))
    return usage_error("search", "bad --motion: a channel number, 0 to 31");
  if (a.has_cells) {
    if (!a.by_motion) return usage_error("search", "--cells goes with --motion CH");
    size_t at = 0;
    while (at <= cells.size()) {
      size_t comma = cells.find(',', at);
      if (comma == std::string::npos) comma = cells.size();
      long long w;
      if (!parse_int(cells.substr(at, comma - at), &w) || w < 0 || w > 0xFFFFFFFFLL)
        return usage_error("search",
                           "bad --cells: 32-bit words separated by commas, like 0xF0,0,1");
      a.words.push_back(static_cast<unsigned>(w));
      at = comma + 1;
    }
    if (a.words.size() > 64) return usage_error("search", "bad --cells: 1 to 64 grid words");
  }
  return 0;
}

// Minutes (snapshot seconds with --cells) with an event or motion, once each.
int find_events(fs_app& app, const search_args& a) {
  int b = static_cast<int>(a.beg), e = static_cast<int>(a.end);
  int n = 0;
  min_rec_t* m;
  if (a.by_event)
    m = app.q_log(b, e, static_cast<int>(a.mask), a.type, n);
  else if (a.has_cells)
    m = app.q_motionMask(b, e, static_cast<int>(a.ch), n, const_cast<unsigned*>(a.words.data()),
                         static_cast<int>(a.words.size()));
  else
    m = app.q_motion(b, e, static_cast<int>(a.ch), n);
  std::vector<long long> times;
  for (int i = 0; i < n; i++) {
    int32_t t;
    memcpy(&t, &m[i].time, sizeof t);
    times.push_back(a.has_cells ? t : t / 60 * 60);
  }
  std::sort(times.begin(), times.end());
  times.erase(std::unique(times.begin(), times.end()), times.end());
  std::string what = a.by_event ? a.event : "motion";
  std::string chans =
      a.by_event ? (a.mask == 0xFFFFFFFFu ? "all" : channel_list(a.mask)) : std::to_string(a.ch);
  if (a.json) {
    json j;
    j.obj()
        .str("search", what)
        .str("channels", chans)
        .num("count", static_cast<long long>(times.size()));
    j.arr("times");
    for (long long t : times) j.obj().num("time", t).str("utc", fmt_time(t)).end();
    j.end().end().print();
    return 0;
  }
  std::string on = chans == "all" ? "any channel"
                   : a.by_event   ? "channels " + chans
                                  : "channel " + chans;
  if (times.empty()) {
    printf("no minutes with %s on %s\n", what.c_str(), on.c_str());
    return 0;
  }
  printf("%zu %s%s with %s on %s:\n", times.size(), a.has_cells ? "snapshot" : "minute",
         times.size() == 1 ? "" : "s", what.c_str(), on.c_str());
  for (long long t : times)
    printf("  %s\n", a.has_cells ? fmt_time(t).c_str() : fmt_time(t).substr(0, 16).c_str());
  return 0;
}

int run_search(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  search_args a;
  int rc = parse(args, a);
  if (rc != 0) return rc;
  volume_set v;
  if ((rc = v.open(args)) != 0) return rc;
  fs_app& app = *v.app;
  // A disk whose index cannot be read lists nothing: said above, and the exit says so.
  rc = v.damaged.empty() ? 0 : 1;
  if (a.by_event && a.mask != 0xFFFFFFFFu)
    warn_empty(survey_range(v, a.beg, a.end > 0 ? a.end : INT32_MAX, false), a.mask,
               "in the span searched");
  if (a.by_event || a.by_motion) return find_events(app, a) | rc;

  // Recorded time, per disk.
  json j;
  j.obj().arr("disks");
  for (int d = 0; d < app.db_cnt; d++) {
    if (app.db_info[d].db == nullptr || app.db_info[d].db->q_key() == 0) continue;
    if (std::find(v.damaged.begin(), v.damaged.end(), d) != v.damaged.end()) {
      if (a.json)
        j.obj().str("device", v.name(d)).boolean("damaged", true).arr("spans").end().end();
      continue;
    }
    std::vector<span> sp;
    on_disk(app, d, [&] {
      int n = 0;
      min_rec_t* m = app.q_min(static_cast<int>(a.beg), static_cast<int>(a.end), n);
      sp = spans_of(m, n);
    });
    if (a.json) {
      j.obj().str("device", v.name(d)).boolean("damaged", false).arr("spans");
      for (const span& s : sp) {
        j.obj().num("from", s.from).num("to", s.to).num("minutes", s.minutes);
        j.str("from_utc", fmt_time(s.from)).str("to_utc", fmt_time(s.to)).arr("recorded_twice");
        for (long long t : s.twice) j.num(nullptr, t);
        j.end().end();
      }
      j.end().end();
      continue;
    }
    if (sp.empty())
      printf("%s: nothing recorded in the span\n", v.name(d));
    else
      printf("%s:\n", v.name(d));
    for (const span& s : sp) {
      printf("  %s  to  %s  (%d min)\n", fmt_time(s.from).c_str(), fmt_time(s.to).c_str(),
             s.minutes);
      for (long long t : s.twice)
        printf("    %s recorded twice (two entries of the minute, e.g. after a clock change)\n",
               fmt_time(t).substr(0, 16).c_str());
    }
  }
  if (a.json) j.end().end().print();
  return rc;
}

bool r1 = add_command(
    {"search",
     "search [DISK...] [--from TIME] [--to TIME] [--event record|vloss|motion|sensor [--ch LIST]"
     " | --motion CH [--cells WORDS]] [--json]",
     run_search});

}  // namespace

}  // namespace tool
