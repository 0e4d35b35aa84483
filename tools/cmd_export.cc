// The export command: a time range of chosen channels out of the recorder's disks into
// files a computer plays, the way the recorder's own backup menu does it.
//
//   ringrec export [DISK...] --from TIME --to TIME --ch N[,M...] OUTDIR [--substream]
//                  [--format mp4|irf|oem] [--single-pass [--audio]] [--force] [--json]
//
// MP4 (the default) goes through the two-phase export: a plan (printed), then each
// planned file written front to back; its files always carry a channel's recorded
// sound as they find it, so --audio there is a usage error. --single-pass writes as it
// reads, one file running across hours until the picture changes; --audio adds the
// sound track there, a file per hour. A file of the same name in OUTDIR is not
// replaced without --force (or --yes). Stored blocks that cannot be read end their
// minute for the readers: the tool names each such span and exits 1, since the files
// are valid but shorter than the range.
// Channels are numbered from 0, as everywhere in the tool; the file names count them
// from 1 ("ch01" is channel 0), as the recorder names its exports. --format irf writes
// one IRF backup file per selected hour with every chosen channel; --format oem one
// OEM-format file per minute.
//
// Progress and Ctrl-C: export_progress.h. Finished files stay valid and the tool names
// the file that was cut short.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <ringrec/ringrec.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "export_job.h"
#include "export_progress.h"
#include "quiet.h"
#include "range_survey.h"
#include "time_arg.h"

namespace {

using tool::cancelled;
using tool::fail;
using tool::take_flag;
using tool::take_option;
using tool::usage_error;

const char* const kUsage =
    "export [DISK...] --from TIME --to TIME --ch N[,M...] OUTDIR [--substream] [--audio] "
    "[--format mp4|irf|oem] [--single-pass]";

using job = tool::export_job;
using tool::say;
using tool::size_of;
using tool::taken;
using tool::write_error;
using tool::write_failed;
using tool::wrote;

// A single-pass file is written before its name is known; the name follows the
// pattern of the planned files, numbered when taken.
std::string free_name(const std::string& dir, int time, int ch, unsigned w, unsigned h,
                      unsigned fps) {
  time_t t = time;
  struct tm tm;
  gmtime_r(&t, &tm);
  char stem[96];
  snprintf(stem, sizeof stem, "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%ux%ux%u", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ch + 1, w, h, fps);
  for (int k = 0; k < 1000; k++) {
    std::string n = std::string(stem) + (k ? "_" + std::to_string(k) : "") + ".m4v";
    if (size_of(dir + "/" + n) < 0) return n;
  }
  return std::string(stem) + ".m4v";
}

// Output files are written in large pieces: the writers hand stdio a frame at a time.
FILE* open_out(const std::string& path) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f) setvbuf(f, nullptr, _IOFBF, 1 << 20);
  return f;
}

// Every channel is planned in one walk of each hour, and the files of one hour are
// written together from one walk of it: each stored block is read twice in all (plan
// and write), however many channels are chosen.
int two_phase(job& j) {
  std::vector<char> plan(1 << 20, '\0');
  int n = j.app->bk_phase_one_channels(j.dir.c_str(), j.beg, j.end, j.mask, plan.data(), j.sub);
  if (n <= 0) return say(j, "nothing recorded on those channels between --from and --to");
  if (!j.json) {
    std::string text = plan.data();
    if (!text.empty() && text.back() == '\n') text.pop_back();
    j.prog->line(stdout, "plan (name channel bytes item entry offset time):\n" + text);
  }
  // The plan's files, checked before any is written.
  std::vector<std::string> names;
  for (const char* p = plan.data(); *p;) {
    const char* nl = strchr(p, '\n');
    std::string line(p, nl ? static_cast<size_t>(nl - p) : strlen(p));
    p = nl ? nl + 1 : p + line.size();
    char name[128];
    int ch, size, item, entry, off, t;
    if (sscanf(line.c_str(), "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off,
               &t) != 7)
      continue;
    names.push_back(name);
    j.plan.push_back(line);
  }
  for (const std::string& name : names)
    if (taken(j, j.dir + "/" + name)) return 1;
  struct planned {
    std::string name, path;
    bk_plan_file_t f;
  };
  std::vector<planned> all;
  for (const char* p = plan.data(); *p;) {
    const char* nl = strchr(p, '\n');
    std::string line(p, nl ? static_cast<size_t>(nl - p) : strlen(p));
    p = nl ? nl + 1 : p + line.size();
    char name[128];
    planned x;
    int t;
    if (sscanf(line.c_str(), "%127s %d %d %d %d %d %d", name, &x.f.ch, &x.f.size, &x.f.item,
               &x.f.entry, &x.f.offset, &t) == 7) {
      x.name = name;
      x.path = j.dir + "/" + name;
      all.push_back(x);
    }
  }
  for (size_t i = 0; i < all.size();) {
    if (cancelled()) break;
    size_t k = i;  // the files of one hour: [i, k)
    while (k < all.size() && all[k].f.item == all[i].f.item) k++;
    std::vector<bk_plan_file_t> files;
    for (size_t m = i; m < k; m++) {
      all[m].f.out = open_out(all[m].path);
      if (!all[m].f.out) {
        for (bk_plan_file_t& f : files) fclose(f.out);
        return say(j, "cannot create " + all[m].path + ": " + strerror(errno));
      }
      files.push_back(all[m].f);
    }
    j.app->bk_phase_two_files(files.data(), static_cast<int>(files.size()), j.sub);
    int bad = -1;
    for (size_t m = i; m < k; m++)
      if (write_failed(files[m - i].out) && bad < 0) bad = static_cast<int>(m);
    if (bad >= 0) return write_error(j, all[bad].path);
    int unfinished = -1;
    for (size_t m = i; m < k; m++) {
      if (files[m - i].result > 0) {
        wrote(j, all[m].path, files[m - i].result);
        j.files++;
      } else {
        // A planned file is only valid whole: its mdat size was written first.
        remove(all[m].path.c_str());
        if (unfinished < 0) unfinished = static_cast<int>(m);
      }
    }
    if (unfinished >= 0) {
      if (!cancelled())
        return say(j, all[unfinished].name + ": the recording ended before the planned bytes");
      j.cut = all[unfinished].name;
      return 0;
    }
    i = k;
  }
  return 0;
}

// Each hour of every chosen channel comes from one walk of the hour; the files are
// named as they end.
struct hour_run {
  job* j;
  std::vector<std::string> tmp;
  std::vector<int> times, results;
  std::vector<unsigned> w, h, fps;
  int err = 0;
};

FILE* hour_file_done(void* ctx, int k, FILE* f, unsigned pos, unsigned size, bool more) {
  (void)pos;
  hour_run& r = *static_cast<hour_run*>(ctx);
  job& j = *r.j;
  fs_app::bk_set_mdat_size(f, size);
  const std::string& tmp = r.tmp[k];
  if (write_failed(f)) {
    if (!r.err) r.err = write_error(j, tmp);
    return nullptr;
  }
  if (size == 0) {
    remove(tmp.c_str());
  } else {
    std::string name = free_name(j.dir, r.times[k], j.chans[k], r.w[k], r.h[k], r.fps[k]);
    std::string path = j.dir + "/" + name;
    if (rename(tmp.c_str(), path.c_str()) != 0) {
      if (!r.err) r.err = say(j, "cannot name " + path);
      return nullptr;
    }
    wrote(j, path, size_of(path));
    j.files++;
    if (cancelled()) j.cut = name;
  }
  if (!more || r.err) return nullptr;
  FILE* next = open_out(tmp);
  if (!next) r.err = say(j, "cannot create " + tmp + ": " + strerror(errno));
  return next;
}

int single_pass_hours(job& j) {
  size_t n = j.chans.size();
  hour_run r;
  r.j = &j;
  for (size_t k = 0; k < n; k++) r.tmp.push_back(j.dir + "/.export.part" + std::to_string(k));
  r.times.resize(n);
  r.results.resize(n);
  r.w.resize(n);
  r.h.resize(n);
  r.fps.resize(n);
  int items = j.app->bk_set(j.beg, j.end, j.mask);
  for (int item = 0; item < items && !cancelled() && !r.err; item++) {
    std::vector<FILE*> outs;
    for (size_t k = 0; k < n; k++) {
      outs.push_back(open_out(r.tmp[k]));
      if (!outs.back()) {
        for (FILE* f : outs)
          if (f) fclose(f);
        return say(j, "cannot create " + r.tmp[k] + ": " + strerror(errno));
      }
    }
    j.app->bk_write_channels(item, static_cast<int>(n), j.chans.data(), outs.data(), r.times.data(),
                             r.w.data(), r.h.data(), r.fps.data(), r.results.data(), hour_file_done,
                             &r);
    for (size_t k = 0; k < n; k++)
      if (r.results[k] < 0)
        say(j, "channel " + std::to_string(j.chans[k]) + ": video loss, the file ends there");
  }
  j.app->bk_clr();
  if (r.err) return 1;
  if (j.files == 0 && !cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return 0;
}

// Single pass writes as it reads. Without sound the multi-slot writer runs each chosen
// channel's file on across the hours until the picture changes, every channel from one
// walk of each hour (bk_multi_m4v_write_channels). With sound each hour is written by the
// per-hour writer, which hands the converted sound to the file frame by frame; the
// multi-slot writer gathers it into 8000-byte pieces that the file's fixed sound chunk
// table does not describe, so players would play that sound at the wrong pace.
int single_pass(job& j) {
  if (j.audio) return single_pass_hours(j);
  size_t n = j.chans.size();
  hour_run r;
  r.j = &j;
  for (size_t k = 0; k < n; k++) r.tmp.push_back(j.dir + "/.export.part" + std::to_string(k));
  r.times.resize(n);
  r.results.resize(n);
  r.w.resize(n);
  r.h.resize(n);
  r.fps.resize(n);
  std::vector<FILE*> outs;
  std::vector<fs_mp4*> writers(n, nullptr);
  for (size_t k = 0; k < n; k++) {
    outs.push_back(open_out(r.tmp[k]));
    if (!outs.back()) {
      for (FILE* f : outs)
        if (f) fclose(f);
      return say(j, "cannot create " + r.tmp[k] + ": " + strerror(errno));
    }
  }
  int b = j.beg, e = j.end, m = j.mask;
  int items = j.app->bk_multi_set(&b, &e, &m, 1);
  int c = static_cast<int>(n);
  for (int item = 0; item < items && !cancelled() && !r.err; item++) {
    j.app->bk_multi_m4v_write_channels(item, c, j.chans.data(), outs.data(), writers.data(),
                                       r.times.data(), r.w.data(), r.h.data(), r.fps.data(),
                                       r.results.data(), hour_file_done, &r);
    for (size_t k = 0; k < n; k++)
      if (r.results[k] < 0)
        say(j, "channel " + std::to_string(j.chans[k]) + ": video loss, the file ends there");
  }
  // Past the last item: every file still open is finished.
  j.app->bk_multi_m4v_write_channels(-1, c, j.chans.data(), outs.data(), writers.data(),
                                     r.times.data(), r.w.data(), r.h.data(), r.fps.data(),
                                     r.results.data(), hour_file_done, &r);
  // The multi selection has no clear of its own and a new selection zeroes its fields
  // without freeing: the array goes back here (its writers are closed above).
  free(j.app->bk_multi_state.items);
  memset(&j.app->bk_multi_state, 0, sizeof j.app->bk_multi_state);
  if (r.err) return 1;
  if (j.files == 0 && !cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return 0;
}

void tell_gaps(job& j, const tool::range_survey& survey) {
  for (const tool::lost_span& l : survey.lost)
    say(j, "incomplete: stored blocks could not be read, " + tool::describe(l));
  if (!survey.lost.empty())
    say(j, "the exported files are valid but lack those seconds" +
               (tool::recover_hint(survey.lost[0].disk).empty()
                    ? std::string()
                    : "; " + tool::recover_hint(survey.lost[0].disk)));
}

void print_json(job& j, const tool::range_survey& survey, int rc) {
  tool::json o;
  o.obj().str("directory", j.dir).str("format", j.format).arr("plan");
  for (const std::string& line : j.plan) {
    char name[128];
    int ch, size, item, entry, off, t;
    if (sscanf(line.c_str(), "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off,
               &t) == 7)
      o.obj()
          .str("name", name)
          .num("channel", ch)
          .num("bytes", size)
          .num("item", item)
          .num("entry", entry)
          .num("offset", off)
          .num("time", t)
          .end();
  }
  o.end().arr("files");
  for (const auto& w : j.written) o.obj().str("path", w.first).num("bytes", w.second).end();
  o.end().arr("lost");
  for (const tool::lost_span& l : survey.lost)
    o.obj()
        .str("disk", l.disk)
        .str("minute", l.minute)
        .num("from", l.from)
        .num("to", l.to)
        .num("offset", l.offset)
        .end();
  o.end().arr("recorded_twice");
  for (const tool::twice_minute& t : survey.twice)
    o.obj().str("disk", t.disk).num("minute", t.minute).end();
  o.end().arr("empty_channels");
  for (int ch : j.chans)
    if (!(survey.channels >> ch & 1)) o.num(nullptr, ch);
  o.end().boolean("cancelled", cancelled()).boolean("complete", rc == 0).end().print();
}

int run_export(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string chs, format = "mp4";
  bool sub = take_flag(args, "--substream");
  bool audio = take_flag(args, "--audio");
  bool single = take_flag(args, "--single-pass");
  bool force = take_flag(args, "--force");
  force = take_flag(args, "--yes") || force;
  bool as_json = take_flag(args, "--json");
  take_option(args, "--format", &format);
  long long b = 0, e = 0;
  bool has_from, has_to;
  if (!tool::take_time(args, "--from", &b, &has_from))
    return usage_error("export", "bad --from: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!tool::take_time(args, "--to", &e, &has_to))
    return usage_error("export", "bad --to: seconds or YYYY-MM-DD HH:MM[:SS] (UTC)");
  if (!has_from || !has_to) return usage_error("export", "--from and --to are required");
  if (!take_option(args, "--ch", &chs)) return usage_error("export", "--ch is required");
  int rc = 0;
  if (!tool::only_positional("export", args, &rc)) return rc;
  if (args.empty()) return usage_error("export", "give the output directory");
  job j;
  j.json = as_json;
  j.force = force;
  // The last name is the output directory; any before it are the disks to read.
  j.dir = args.back();
  args.pop_back();
  if (e < b) return usage_error("export", "--to is before --from");
  j.beg = static_cast<int>(b);
  j.end = static_cast<int>(e);
  uint32_t mask = 0;
  if (!tool::parse_channels(chs, &mask, &j.chans))
    return usage_error("export", "bad --ch '" + chs + "': channels 0 to 31 like 0,2,5");
  j.mask = static_cast<int>(mask);
  if (format != "mp4" && format != "irf" && format != "oem")
    return usage_error("export", "--format: mp4, irf or oem");
  // The single-pass writers classify frames as main-stream ones only.
  if (sub && single) return usage_error("export", "--substream exports are two-phase only");
  if (format != "mp4" && (sub || single || audio))
    return usage_error("export", "--substream, --audio and --single-pass are for --format mp4");
  if (audio && !single)
    return usage_error("export",
                       "--audio goes with --single-pass: two-phase files always carry the "
                       "channel's recorded sound");
  struct stat st;
  if (stat(j.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    return fail("output directory " + j.dir + " does not exist: create it first");
  if (access(j.dir.c_str(), W_OK) != 0) return fail("cannot write into " + j.dir);
  j.sub = sub;
  j.audio = audio;
  j.single = single;
  j.format = format;

  // The tool's own words go to the terminal's standard error, beside the library's
  // lines that the quiet scope keeps off it.
  FILE* tool_out = fdopen(dup(tool::err_fd()), "w");
  if (tool_out) setvbuf(tool_out, nullptr, _IOLBF, 0);
  j.out = tool_out ? tool_out : stderr;
  tool::volume_set vols;
  fs_app* app = vols.app;
  j.app = app;
  app->set(32);
  rc = vols.open(args);
  if (rc != 0) {
    if (tool_out) fclose(tool_out);
    return rc;
  }
  // The recorder stores sound as IMA ADPCM; MP4 export converts it to 16-bit PCM,
  // which the "sowt" sample entry describes.
  audtype = 2;
  tool::progress_reader prog(j.out, isatty(tool::err_fd()) != 0);
  j.prog = &prog;
  if (!prog.open())
    fprintf(j.out, "ringrec: no progress semaphore (%s); exporting without progress\n",
            strerror(errno));
  // What the range holds, read before the writers run: channels with nothing, minutes
  // recorded twice, and blocks the readers will stop at.
  tool::range_survey survey = tool::survey_range(vols, j.beg, j.end);
  tool::warn_empty(survey, static_cast<uint32_t>(j.mask), "between --from and --to");
  for (const tool::twice_minute& t : survey.twice)
    say(j, "warning: " + tool::fmt_time(t.minute).substr(0, 16) + " was recorded twice on " +
               t.disk +
               " (a clock set back?): its files hold both recordings, one after the other");
  tool::cancel_arm();
  prog.start();
  rc = format == "irf"   ? tool::irf_export(j)
       : format == "oem" ? tool::oem_export(j)
       : single          ? single_pass(j)
                         : two_phase(j);
  // Completion (100 %, result 1) is posted only for a run that completed: a recorder's
  // interface reading the semaphore must not show a cancelled or failed backup as done.
  if (rc == 0 && !cancelled()) app->bk_over();
  prog.finish();
  app->bk_clr();
  tool::cancel_disarm();
  if (cancelled()) {
    if (!j.cut.empty())
      say(j, "cancelled: " + j.cut + " was cut short" +
                 (format == "mp4" && !single ? " and removed" : "") + "; " +
                 std::to_string(j.files - (format == "mp4" && !single ? 0 : 1)) +
                 " file(s) before it are whole");
    else
      say(j, "cancelled after " + std::to_string(j.files) + " file(s)");
    rc = 1;
  } else if (rc == 0) {
    tell_gaps(j, survey);
    if (!survey.lost.empty()) rc = 1;
    fprintf(j.out, "exported %d file(s) into %s%s\n", j.files, j.dir.c_str(),
            survey.lost.empty() ? "" : ", incomplete");
  }
  if (j.json) print_json(j, survey, rc);
  if (tool_out) fclose(tool_out);
  return rc;
}

bool registered = tool::add_command({"export", kUsage, run_export});

}  // namespace
