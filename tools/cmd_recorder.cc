// The recorder commands: disk report, disk modes, retention, and a simulated recording
// driven by the capture simulator.
//
//   ringrec disks [--json]
//   ringrec mode DISK OVWR|WR|RDONLY          DISK: sda, /dev/sda or its index
//   ringrec retain HOURS [--now TIME]
//   ringrec record --channels N --from TIME --minutes M [--input FILE ...]
//                  [--events SCRIPT] [--codec 264|265] [--fps N] [--main-kbps N]
//                  [--sub-kbps N] [--no-audio]
//
// TIME is seconds since 1970 or "YYYY-MM-DD HH:MM[:SS]" / "YYYY-MM-DDTHH:MM[:SS]" (UTC).
// The first --input is the main stream, a second one the substream: raw H.264/H.265
// (Annex B), e.g. ffmpeg ... -c:v libx264 -bf 0 -g 25 -f h264 main.264.
//
// SCRIPT: one event a line, '#' starts a comment; SECOND counts from --from.
//   SECOND motion CH WORD...     motion on channel CH: motion-area words (at least one
//                                not 0) and the Motion bit of the event log
//   SECOND vloss MASK            video loss on the channels of MASK
//   SECOND sensor MASK           alarm inputs of MASK
//   SECOND event BITS            event bits carried by the blocks from then on (0 ends)
// MASK, WORD and BITS take C notation (0x1F, 31). Reports of second S are made after
// that second's first blocks are written, so they land in the minute that holds S;
// event bits go into the block headers, so they take effect before.
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "sim/capture.h"
#include "time_arg.h"

namespace {

using tool::fail;
using tool::parse_int;
using tool::parse_time;
using tool::take_flag;
using tool::take_option;
using tool::usage_error;

struct disk_row {
  char dev[32], model[80], state[16], mode[16];
  long long total, avail;
  int err;
};

int open_disks(fs_app& app, const char* mode) {
  int n = app.db_open(mode);
  if (n <= 0) return fail("no internal disks found (is --root or RINGREC_ROOT set?)");
  return 0;
}

int run_disks(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  bool as_json = take_flag(args, "--json");
  if (!args.empty()) return usage_error("disks", "unexpected argument '" + args[0] + "'");
  fs_app* app = new fs_app();
  int rc = open_disks(*app, "r");
  if (rc != 0) {
    delete app;
    return rc;
  }
  std::vector<disk_row> rows;
  for (int i = 0; i < app->g_db_num(); i++) {
    disk_row r;
    memset(&r, 0, sizeof r);
    if (app->g_db_info(i, r.dev, r.model, r.state, r.mode, r.total, r.avail, r.err) == 0)
      rows.push_back(r);
  }
  app->db_close();
  delete app;
  if (as_json) {
    tool::json j;
    j.arr();
    for (const disk_row& r : rows) {
      j.obj().str("device", r.dev).str("model", r.model).str("state", r.state);
      j.str("mode", r.mode).num("total", r.total).num("free", r.avail).num("error", r.err).end();
    }
    j.end().print();
    return 0;
  }
  printf("%-4s %-10s %-24s %-7s %-7s %10s %10s %s\n", "#", "DEVICE", "MODEL", "STATE", "MODE",
         "TOTAL MiB", "FREE MiB", "ERROR");
  for (size_t i = 0; i < rows.size(); i++) {
    const disk_row& r = rows[i];
    printf("%-4zu %-10s %-24s %-7s %-7s %10lld %10lld %d\n", i, r.dev, r.model, r.state, r.mode,
           r.total >> 20, r.avail >> 20, r.err);
  }
  return 0;
}

int find_disk(fs_app& app, const std::string& name) {
  long long idx;
  if (parse_int(name, &idx)) return idx >= 0 && idx < app.g_db_num() ? static_cast<int>(idx) : -1;
  std::string dev = name.compare(0, 5, "/dev/") == 0 ? name : "/dev/" + name;
  for (int i = 0; i < app.g_db_num(); i++)
    if (dev == app.db_info[i].dev) return i;
  return -1;
}

int run_mode(const std::vector<std::string>& args) {
  if (args.size() != 2) return usage_error("mode", "expected DISK and a mode");
  const std::string& mode = args[1];
  if (mode != "OVWR" && mode != "WR" && mode != "RDONLY")
    return usage_error("mode", "mode must be OVWR, WR or RDONLY, not '" + mode + "'");
  fs_app* app = new fs_app();
  int rc = open_disks(*app, "w");
  if (rc == 0) {
    int idx = find_disk(*app, args[0]);
    if (idx < 0) {
      rc = fail("no disk '" + args[0] + "' (see 'ringrec disks')");
    } else if (app->db_info[idx].db->q_key() == 0) {
      rc = fail(std::string(app->db_info[idx].dev) + " holds no volume; format it first");
    } else if (app->db_set(idx, mode.c_str()) != 0 || app->db_info[idx].db->error() == 2) {
      rc = fail(std::string("could not set the mode of ") + app->db_info[idx].dev);
    } else {
      printf("%s: %s\n", app->db_info[idx].dev, mode.c_str());
    }
  }
  app->db_close();
  delete app;
  return rc;
}

int run_retain(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string now_text;
  long long now = static_cast<long long>(time(nullptr));
  if (take_option(args, "--now", &now_text) && !parse_time(now_text, &now))
    return usage_error("retain", "bad --now time '" + now_text + "'");
  long long hours;
  if (args.size() != 1 || !parse_int(args[0], &hours) || hours < 0 || hours > 24 * 365 * 100)
    return usage_error("retain", "expected a number of hours");
  fs_app* app = new fs_app();
  int rc = open_disks(*app, "w");
  if (rc == 0) app->check_valid(static_cast<int>(now), static_cast<int>(hours));
  app->db_close();
  delete app;
  return rc;
}

struct script_event {
  long long at;
  std::string kind;
  std::vector<long long> vals;
};

int load_script(const std::string& path, std::vector<script_event>& out, std::string* err) {
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) {
    *err = path + ": cannot open";
    return -1;
  }
  char line[512];
  int no = 0;
  while (fgets(line, sizeof line, f) != nullptr) {
    no++;
    char* hash = strchr(line, '#');
    if (hash != nullptr) *hash = 0;
    std::vector<std::string> w;
    for (char* tok = strtok(line, " \t\r\n"); tok != nullptr; tok = strtok(nullptr, " \t\r\n"))
      w.push_back(tok);
    if (w.empty()) continue;
    script_event e;
    bool ok = w.size() >= 3 && parse_int(w[0], &e.at) && e.at >= 0;
    e.kind = ok ? w[1] : "";
    for (size_t i = 2; ok && i < w.size(); i++) {
      long long v;
      ok = parse_int(w[i], &v);
      e.vals.push_back(v);
    }
    bool some_area = false;
    for (size_t i = 1; i < e.vals.size(); i++) some_area = some_area || e.vals[i] != 0;
    // A detector reports motion with the cells that moved; a report without any is no
    // motion, and is taken for a mistake in the script.
    if (ok && e.kind == "motion")
      ok = e.vals[0] >= 0 && e.vals[0] < 32 && e.vals.size() <= 21 && some_area;
    else if (ok && (e.kind == "vloss" || e.kind == "sensor" || e.kind == "event"))
      ok = e.vals.size() == 1;
    else
      ok = false;
    if (!ok) {
      fclose(f);
      *err = path + ":" + std::to_string(no) +
             ": expected 'SECOND motion CH WORD...' (a word not 0), 'SECOND vloss MASK', "
             "'SECOND sensor MASK' or 'SECOND event BITS'";
      return -1;
    }
    out.push_back(e);
  }
  fclose(f);
  std::stable_sort(out.begin(), out.end(),
                   [](const script_event& a, const script_event& b) { return a.at < b.at; });
  return 0;
}

void apply_report(fs_app& app, const script_event& e) {
  if (e.kind == "motion") {
    unsigned words[20];
    int k = 0;
    for (size_t i = 1; i < e.vals.size(); i++) words[k++] = static_cast<unsigned>(e.vals[i]);
    app.set_motion_info(static_cast<int>(e.vals[0]), words, k);
    app.set_log_info(0, 1 << e.vals[0], 0, 0, 0, 0, 0);
  } else if (e.kind == "vloss") {
    app.set_log_info(static_cast<int>(e.vals[0]), 0, 0, 0, 0, 0, 0);
  } else if (e.kind == "sensor") {
    app.set_log_info(0, 0, static_cast<int>(e.vals[0]), 0, 0, 0, 0);
  }
}

int run_record(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string v;
  sim::capture_spec shape;
  long long n, from = -1, minutes = -1;
  if (take_option(args, "--channels", &v)) {
    if (!parse_int(v, &n) || n < 1 || n > 32) return usage_error("record", "--channels: 1 to 32");
    shape.channels = static_cast<int>(n);
  } else {
    return usage_error("record", "--channels is required");
  }
  bool given;
  if (!tool::take_time(args, "--from", &from, &given))
    return usage_error("record", "bad --from: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!given) return usage_error("record", "--from TIME is required");
  if (!take_option(args, "--minutes", &v)) return usage_error("record", "--minutes M is required");
  if (!parse_int(v, &minutes) || minutes < 1 || minutes > 60 * 24 * 366)
    return usage_error("record", "bad --minutes '" + v + "': a number of minutes, 1 or more");
  std::vector<std::string> inputs = tool::take_options(args, "--input");
  if (inputs.size() > 2) return usage_error("record", "at most two --input streams");
  if (!inputs.empty()) shape.main_input = inputs[0];
  if (inputs.size() > 1) shape.sub_input = inputs[1];
  if (take_option(args, "--codec", &v)) {
    if (v != "264" && v != "265") return usage_error("record", "--codec: 264 or 265");
    shape.codec = atoi(v.c_str());
  }
  if (take_option(args, "--fps", &v)) {
    if (!parse_int(v, &n) || n < 1 || n > 60) return usage_error("record", "--fps: 1 to 60");
    shape.fps = static_cast<int>(n);
  }
  if (take_option(args, "--main-kbps", &v)) {
    if (!parse_int(v, &n) || n < 1 || n > 20000) return usage_error("record", "--main-kbps");
    shape.main_kbps = static_cast<int>(n);
  }
  if (take_option(args, "--sub-kbps", &v)) {
    if (!parse_int(v, &n) || n < 1 || n > 4000) return usage_error("record", "--sub-kbps");
    shape.sub_kbps = static_cast<int>(n);
  }
  if (take_flag(args, "--no-audio")) shape.audio = false;
  std::vector<script_event> script;
  if (take_option(args, "--events", &v)) {
    std::string err;
    if (load_script(v, script, &err) != 0) return usage_error("record", err);
  }
  if (!args.empty()) return usage_error("record", "unexpected argument '" + args[0] + "'");
  // Blocks of 200 ms when the frame rate allows, else of one second.
  shape.block_ms = (shape.fps * 200) % 1000 == 0 ? 200 : 1000;
  shape.gop = shape.fps;

  sim::capture cap;
  std::string err;
  if (cap.open(shape, from * 1000, &err) != 0) return fail(err);

  fs_app* app = new fs_app();
  int rc = open_disks(*app, "w");
  if (rc != 0) {
    delete app;
    return rc;
  }
  app->set(shape.channels);
  // The library stamps its records and picks live event slots by its wall clock, which
  // must run with the simulated capture time.
  sim::clock_follow();
  sim::clock_set(from);

  long long end_ms = (from + minutes * 60) * 1000;
  long long blocks = 0, bytes = 0, refused = 0;
  size_t next_bits = 0, next_report = 0;
  std::vector<std::string> out;
  struct timespec t0, t1;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  while (cap.now_ms() < end_ms) {
    long long sec = cap.now_ms() / 1000;
    sim::clock_set(sec);
    for (; next_bits < script.size() && from + script[next_bits].at <= sec; next_bits++)
      if (script[next_bits].kind == "event")
        cap.set_events(static_cast<uint32_t>(script[next_bits].vals[0]));
    cap.next(out);
    for (const std::string& b : out) {
      if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) == 0) {
        blocks++;
        bytes += static_cast<long long>(b.size());
      } else {
        refused++;
      }
    }
    // The detector's reports of this second, once its first blocks have opened the
    // minute they belong to.
    for (; next_report < script.size() && from + script[next_report].at <= sec; next_report++)
      apply_report(*app, script[next_report]);
    if (cap.now_ms() % 10000 == 0)
      tool::progress("record", static_cast<double>(cap.now_ms() - from * 1000),
                     static_cast<double>(end_ms - from * 1000));
  }
  tool::finish_recording(*app);
  clock_gettime(CLOCK_MONOTONIC, &t1);
  tool::progress_end();
  app->db_close();
  delete app;
  sim::clock_release();
  double secs = static_cast<double>(t1.tv_sec - t0.tv_sec) +
                static_cast<double>(t1.tv_nsec - t0.tv_nsec) / 1e9;
  printf("recorded %lld minutes of %d channels: %lld blocks, %lld MB in %.1f s (%.1f MB/s)\n",
         minutes, shape.channels, blocks, bytes >> 20, secs,
         secs > 0 ? static_cast<double>(bytes) / 1048576.0 / secs : 0.0);
  if (refused > 0) {
    tool::err("%lld blocks were refused (no writable disk with room?)", refused);
    return 1;
  }
  return 0;
}

bool reg1 = tool::add_command({"disks", "disks [--json]", run_disks});
bool reg2 = tool::add_command({"mode", "mode DISK OVWR|WR|RDONLY", run_mode});
bool reg3 = tool::add_command({"retain", "retain HOURS [--now TIME]", run_retain});
bool reg4 = tool::add_command(
    {"record",
     "record --channels N --from TIME --minutes M [--input FILE ...] [--events SCRIPT] "
     "[--codec 264|265] [--fps N] [--main-kbps N] [--sub-kbps N] [--no-audio]",
     run_record});

}  // namespace
