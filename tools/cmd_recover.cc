// The recover command: every recording a pulled disk still holds, whether or not its
// index lists it (torn tables, recycled hours, a disk formatted again).
//
//   ringrec recover DISK... [--from TIME] [--to TIME] [--json]
//   ringrec recover DISK... --export OUTDIR --from TIME --to TIME --ch N[,M...]
//                   [--substream] [--audio]
//   ringrec recover DISK... --rebuild OUT.img [--size SIZE] [--from TIME] [--to TIME]
//
// The disks are only read. The report lists, per disk, channel and stream, spans of time
// with block and frame counts, each marked as listed by the index or found only by the
// scan. --export writes MP4 files through the library's writer, named as export names
// them; a file starts at a key frame and ends where the picture changes, the recording
// pauses for more than ten seconds, or the file reaches the export size limit.
// --rebuild records every recovered block into a new volume image through the
// library's own write path, so every other command works on it.
#include <errno.h>
#include <fcntl.h>
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "quiet.h"
#include "recover_out.h"
#include "sim/board.h"
#include "time_arg.h"

namespace {

using tool::fail;
using tool::take_flag;
using tool::take_option;
using tool::usage_error;

const char* const kUsage =
    "recover DISK... [--from TIME] [--to TIME] [--json] [--export OUTDIR --ch N[,M...] "
    "[--substream] [--audio]] [--rebuild OUT.img [--size SIZE]]";

const char* const kReach[] = {"listed", "region", "unlisted"};

using recover::disk;
using recover::mb;

void on_progress(void* ctx, long long done, long long total) {
  tool::progress(static_cast<const char*>(ctx), static_cast<double>(done),
                 static_cast<double>(total));
}

// ---- report ---------------------------------------------------------------------------

void report_text(const disk& d) {
  const fs_recover& r = *d.r;
  static const char* const from[] = {"primary superblock", "secondary superblock",
                                     "no valid superblock: device size and fixed layout"};
  printf("%s: %s; data area %lld MB\n", d.name.c_str(), from[r.sb_from],
         (r.ring_end - r.ring_beg) >> 20);
  if (r.index_ok)
    printf(
        "  index: %d minute(s) listed%s\n", r.minutes,
        r.bad_entries ? (", " + std::to_string(r.bad_entries) + " damaged entries").c_str() : "");
  else
    printf("  index: unreadable (every block counts as unlisted)\n");
  printf(
      "  blocks: %lld found (%lld frame blocks, %lld records), %lld cut by newer writes, "
      "%lld with damaged frames\n",
      r.st.blocks, r.st.frame_blocks, r.st.record_blocks, r.st.no_tail, r.st.bad_frames);
  if (r.st.unreadable) printf("  unreadable: %s of the data area\n", mb(r.st.unreadable).c_str());
  for (int i = 0; i < r.span_cnt; i++) {
    const rc_span_t& s = r.spans[i];
    printf("  ch %2d %-4s %s .. %s  %6d blocks %7d frames %10s  %s\n", s.ch, s.sub ? "sub" : "main",
           tool::fmt_time(s.t0).c_str(), tool::fmt_time(s.t1).c_str(), s.blocks, s.frames,
           mb(s.bytes).c_str(),
           s.reach == RC_LISTED   ? "listed"
           : s.reach == RC_REGION ? "found by scan (in a listed region)"
                                  : "found by scan only");
  }
  printf("  recovered: %s listed, %s found only by scanning\n",
         mb(r.st.by_reach[RC_LISTED]).c_str(),
         mb(r.st.by_reach[RC_REGION] + r.st.by_reach[RC_NONE]).c_str());
}

void report_json(const disk& d, bool last) {
  const fs_recover& r = *d.r;
  static const char* const from[] = {"primary", "secondary", "layout"};
  printf("{\"disk\":%s,\"superblock\":\"%s\",\"data_area\":[%lld,%lld],",
         tool::json_str(d.name).c_str(), from[r.sb_from], r.ring_beg, r.ring_end);
  printf("\"index\":{\"readable\":%s,\"minutes\":%d,\"damaged_entries\":%d},",
         r.index_ok ? "true" : "false", r.minutes, r.bad_entries);
  printf(
      "\"blocks\":%lld,\"frame_blocks\":%lld,\"records\":%lld,\"cut\":%lld,\"bad_frames\":%lld,"
      "\"unreadable_bytes\":%lld,",
      r.st.blocks, r.st.frame_blocks, r.st.record_blocks, r.st.no_tail, r.st.bad_frames,
      r.st.unreadable);
  printf("\"bytes\":{\"listed\":%lld,\"region\":%lld,\"unlisted\":%lld},\"spans\":[",
         r.st.by_reach[RC_LISTED], r.st.by_reach[RC_REGION], r.st.by_reach[RC_NONE]);
  for (int i = 0; i < r.span_cnt; i++) {
    const rc_span_t& s = r.spans[i];
    printf(
        "%s{\"ch\":%d,\"stream\":\"%s\",\"from\":%d,\"to\":%d,\"blocks\":%d,\"frames\":%d,"
        "\"bytes\":%lld,\"listed\":%s,\"reach\":\"%s\"}",
        i ? "," : "", s.ch, s.sub ? "sub" : "main", s.t0, s.t1, s.blocks, s.frames, s.bytes,
        s.reach == RC_LISTED ? "true" : "false", kReach[s.reach]);
  }
  printf("]}%s", last ? "" : ",");
}

// ---- command --------------------------------------------------------------------------

int run_recover(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string from_s, to_s, outdir, chs, rebuild, size_s;
  bool json = take_flag(args, "--json");
  bool sub = take_flag(args, "--substream");
  bool audio = take_flag(args, "--audio");
  bool has_from = take_option(args, "--from", &from_s);
  bool has_to = take_option(args, "--to", &to_s);
  bool exp = take_option(args, "--export", &outdir);
  bool has_ch = take_option(args, "--ch", &chs);
  bool reb = take_option(args, "--rebuild", &rebuild);
  bool has_size = take_option(args, "--size", &size_s);
  for (const std::string& a : args)
    if (a.compare(0, 2, "--") == 0) return usage_error("recover", "unknown option '" + a + "'");
  if (args.empty()) return usage_error("recover", "name the disks or images to recover from");
  if (args.size() > 16) return usage_error("recover", "at most 16 disks at once");
  long long from = -0x80000000LL, to = 0x7FFFFFFFLL;
  if (has_from && !tool::parse_time(from_s, &from))
    return usage_error("recover", "--from: seconds or YYYY-MM-DD HH:MM[:SS]");
  if (has_to && !tool::parse_time(to_s, &to))
    return usage_error("recover", "--to: seconds or YYYY-MM-DD HH:MM[:SS]");
  if (to < from) return usage_error("recover", "--to is before --from");
  if (exp && reb) return usage_error("recover", "--export and --rebuild are separate runs");
  if (exp && (!has_from || !has_to || !has_ch))
    return usage_error("recover", "--export needs --from, --to and --ch");
  if (!exp && (has_ch || sub || audio))
    return usage_error("recover", "--ch, --substream and --audio go with --export");
  if (has_size && !reb) return usage_error("recover", "--size goes with --rebuild");
  if ((exp || reb) && json) return usage_error("recover", "--json is for the report");
  recover::export_opts x;
  if (exp) {
    uint32_t mask = 0;
    if (!tool::parse_channels(chs, &mask, &x.chans))
      return usage_error("recover", "--ch: channel numbers 0 to 31, separated by commas");
    x.dir = outdir;
    x.sub = sub;
    x.audio = audio;
    struct stat st;
    if (stat(outdir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      return fail("output directory " + outdir + " does not exist: create it first");
    if (access(outdir.c_str(), W_OK) != 0) return fail("cannot write into " + outdir);
  }
  long long size = 0;
  if (has_size) {
    size = sim::parse_size(size_s);
    if (size < (16LL << 20)) return usage_error("recover", "--size: at least 16M (e.g. 2G)");
  }

  std::vector<disk> disks;
  long long found = 0;
  int rc = 0;
  for (const std::string& name : args) {
    std::string path = tool::resolve_dev(name);
    if (path.empty()) return 1;
    disk d;
    d.name = name;
    d.r.reset(new fs_recover());
    if (d.r->open(path.c_str()) != 0) {
      tool::err(
          "%s: cannot be read, or is shorter than a volume's fixed layout (16 MiB); "
          "check the path, or copy the disk to an image first",
          name.c_str());
      rc = 1;
      continue;
    }
    d.r->progress = on_progress;
    d.r->progress_ctx = const_cast<char*>("scanning");
    int n = d.r->scan(static_cast<int>(from), static_cast<int>(to), nullptr, nullptr);
    tool::progress_end();
    if (n < 0) {
      tool::err("%s: the data area could not be read; try a copy of the disk (ddrescue)",
                name.c_str());
      rc = 1;
      continue;
    }
    found += d.r->st.frame_blocks;
    disks.push_back(std::move(d));
  }
  if (!exp && !reb) {
    if (json) printf("{\"disks\":[");
    for (size_t i = 0; i < disks.size(); i++) {
      if (json)
        report_json(disks[i], i + 1 == disks.size());
      else
        report_text(disks[i]);
    }
    if (json) printf("]}\n");
  }
  if (found == 0) {
    if (!disks.empty())
      tool::err("no recordings found%s: the data area holds no whole stored block%s",
                has_from || has_to ? " between --from and --to" : "",
                disks.size() > 1 ? " on any disk" : "");
    return 1;
  }
  if (exp) return recover::run_export(disks, x, static_cast<int>(from), static_cast<int>(to));
  if (reb)
    return recover::run_rebuild(disks, rebuild, size, static_cast<int>(from), static_cast<int>(to));
  return rc;
}

bool registered = tool::add_command({"recover", kUsage, run_recover});

}  // namespace
