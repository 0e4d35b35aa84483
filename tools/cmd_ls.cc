// ringrec ls: every minute of every hour of one volume.
//
//   ringrec ls DEV [--json]   name, first block, size, channels of each minute
//   ringrec ls DEV --raw      the library's own listing (the last minute of each hour)
#include <ringrec/entry_names.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "time_arg.h"
#include "volume_list.h"

namespace tool {

namespace {

min_rec_t minute_rec(const entry_t& e) {
  min_rec_t r;
  memcpy(&r, &e.time, sizeof r);
  return r;
}

uint32_t channels_in(const min_rec_t& r) {
  uint32_t m = 0;
  for (int ch = 0; ch < 32; ch++)
    if (r.count[ch] > 0) m |= 1u << ch;
  return m;
}

// Runs fn with the library's diagnostics (standard error) sent to standard output, for
// the library's own listing.
template <typename F>
void to_stdout(F fn) {
  fflush(stdout);
  int saved = dup(2);
  dup2(1, 2);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
}

// Two entries of one minute in an hour (MIN_10:00 and MIN_10:00-1, written after the
// recorder's clock was set back) hold two recordings of it.
bool twice(const std::vector<entry_t>& mins, size_t i) {
  for (size_t k = 0; k < mins.size(); k++)
    if (k != i && is_minute(mins[k]) && mins[k].size > 0 && mins[k].time / 60 == mins[i].time / 60)
      return true;
  return false;
}

int run_ls(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  bool raw = take_flag(args, "--raw");
  bool as_json = take_flag(args, "--json");
  int rc = 0;
  if (!only_positional("ls", args, &rc)) return rc;
  if (args.size() != 1) return usage_error("ls", "give one device");
  fs_db db;
  volume_state st;
  if (open_volume(db, args[0], "r", &st) != 0) return 1;
  entryX_t root;
  if (st.root_damaged || db.x_read(0, root) != 0) {
    db.close();
    return fail("cannot read the root table of " + args[0] +
                ": the volume's index is damaged ('ringrec check " + args[0] +
                "' rebuilds what it can; -v shows the library's findings)");
  }
  if (raw) {
    printf("%s: %d hour entries\n", args[0].c_str(), root.num);
    to_stdout([&] { db.print(); });
    db.close();
    return 0;
  }
  int bad = 0;
  std::vector<entry_t> hours = read_table(db, root, &bad);
  std::vector<std::vector<entry_t>> minutes(hours.size());
  long long total = 0;
  int nmin = 0, nhour = 0, ntwice = 0;
  for (size_t i = 0; i < hours.size(); i++) {
    if (!is_hour(hours[i])) continue;
    nhour++;
    entryX_t x;
    long long off = hours[i].offset;
    if (db.x_read(off, x) != 0) {
      bad++;
      continue;
    }
    minutes[i] = read_table(db, x, &bad);
    for (const entry_t& m : minutes[i])
      if (is_minute(m) && m.size > 0) {
        nmin++;
        total += m.size;
      }
  }
  db.close();
  json j;
  j.obj().str("device", args[0]).num("hours", nhour).num("minutes", nmin).num("bytes", total);
  j.num("unreadable", bad).arr("hour_entries");
  if (!as_json)
    printf("%s: %d hour%s, %d minute%s, %lld bytes\n", args[0].c_str(), nhour,
           nhour == 1 ? "" : "s", nmin, nmin == 1 ? "" : "s", total);
  for (size_t i = 0; i < hours.size(); i++) {
    const entry_t& h = hours[i];
    if (!is_hour(h)) continue;
    hour_rec_t hr;
    memcpy(&hr, &h.time, sizeof hr);
    std::string hname(h.name, strnlen(h.name, sizeof h.name));
    j.obj().str("name", hname).num("time", hr.time).num("events", hr.events).arr("minutes");
    if (!as_json)
      printf("%s  %s  events 0x%X\n", hname.c_str(), fmt_time(hr.time).c_str(), hr.events);
    for (size_t k = 0; k < minutes[i].size(); k++) {
      const entry_t& m = minutes[i][k];
      if (!is_minute(m) || m.size <= 0) continue;
      std::string mname(m.name, strnlen(m.name, sizeof m.name));
      uint32_t chans = channels_in(minute_rec(m));
      bool two = twice(minutes[i], k);
      ntwice += two;
      long long region = m.offset;
      j.obj().str("name", mname).num("time", m.time).num("bytes", m.size).num("region", region);
      j.str("channels", channel_list(chans)).boolean("recorded_twice", two).end();
      if (!as_json)
        printf("  %-12s  %s  %11d bytes  channels %s%s\n", mname.c_str(), fmt_time(m.time).c_str(),
               m.size, channel_list(chans).c_str(), two ? "  (minute recorded twice)" : "");
    }
    j.end().end();
  }
  j.end().end();
  if (as_json) j.print();
  if (ntwice > 0 && !as_json)
    err("%d minute entries share their minute with another (recorded twice, e.g. after a clock "
        "change): search and playback merge them, an export of such a minute runs longer",
        ntwice);
  if (bad > 0)
    return fail(std::to_string(bad) + " table" + (bad == 1 ? "" : "s") + " or entr" +
                (bad == 1 ? "y" : "ies") + " could not be read and " + (bad == 1 ? "is" : "are") +
                " left out; -v shows the library's findings");
  return 0;
}

bool r = add_command({"ls", "ls DEV [--json | --raw]", run_ls});

}  // namespace

std::vector<entry_t> read_table(fs_db& db, entryX_t& x, int* bad) {
  // A damaged header may claim any count. A root table holds one entry per recorded
  // hour and a minute table one per minute; 65536 is far beyond either and bounds the
  // buffer.
  int n = x.num < 0 ? 0 : x.num > 65536 ? 65536 : x.num;
  std::vector<entry_t> out;
  std::vector<entry_t> run(64);
  for (int i = 0; i < n; i += 64) {
    int k = n - i < 64 ? n - i : 64;
    if (db.e_reads(x, i, run.data(), k) == 0) {
      out.insert(out.end(), run.begin(), run.begin() + k);
      continue;
    }
    // A run that does not read (a damaged entry) is read again entry by entry so that
    // one bad entry hides only itself.
    for (int j = 0; j < k; j++) {
      entry_t e;
      if (db.e_read(x, i + j, e) == 0)
        out.push_back(e);
      else
        ++*bad;
    }
  }
  return out;
}

bool is_hour(const entry_t& e) { return entry_is_hour(e.name); }
bool is_minute(const entry_t& e) { return entry_is_min(e.name); }

long long last_recorded(fs_db& db) {
  entryX_t root;
  if (db.x_read(0, root) != 0) return -1;
  int bad = 0;
  std::vector<entry_t> hours = read_table(db, root, &bad);
  const entry_t* newest = nullptr;
  for (const entry_t& h : hours)
    if (is_hour(h) && (newest == nullptr || h.time > newest->time)) newest = &h;
  if (newest == nullptr) return bad > 0 ? -1 : 0;
  entryX_t x;
  if (db.x_read(newest->offset, x) != 0) return -1;
  long long last = 0;
  for (const entry_t& m : read_table(db, x, &bad)) {
    if (!is_minute(m) || m.size <= 0) continue;
    min_rec_t r = minute_rec(m);
    uint64_t mask = r.mask;
    int s = 59;
    while (s > 0 && !(mask >> s & 1)) s--;
    long long t = mask != 0 ? static_cast<long long>(r.time) / 60 * 60 + s : r.time;
    if (t > last) last = t;
  }
  return last;
}

}  // namespace tool
