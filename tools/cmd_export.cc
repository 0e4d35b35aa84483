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

using tool::fail;
using tool::take_flag;
using tool::take_option;
using tool::usage_error;

const char* const kUsage =
    "export [DISK...] --from TIME --to TIME --ch N[,M...] OUTDIR [--substream] [--audio] "
    "[--format mp4|irf|oem] [--single-pass]";

using job = tool::export_job;
using tool::say;

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
  o.end().boolean("cancelled", j.cancelled()).boolean("complete", rc == 0).end().print();
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
  rc = tool::export_run(j);
  prog.finish();
  app->bk_clr();
  tool::cancel_disarm();
  if (j.cancelled()) {
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
