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

const unsigned kFileLimit = 0x7FE00000u;  // export's size limit: just short of 2 GiB
const char* const kReach[] = {"listed", "region", "unlisted"};

std::string mb(long long b) {
  char t[32];
  snprintf(t, sizeof t, "%.1f MB", static_cast<double>(b) / 1e6);
  return t;
}

// The path to hand the library for a file the tool names: the resolver prefixes the
// board's root to absolute paths, so one outside the board goes as a relative name.
std::string lib_path(const std::string& p) {
  return tool::resolve_dev(p.find('/') == std::string::npos ? "./" + p : p);
}

struct disk {
  std::string name;
  std::unique_ptr<fs_recover> r;
};

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

// ---- blocks in time order over every disk ---------------------------------------------

struct step {
  int disk, chain, t0;
  long long beg;
};

std::vector<step> time_order(std::vector<disk>& disks) {
  std::vector<step> v;
  for (size_t i = 0; i < disks.size(); i++) {
    fs_recover& r = *disks[i].r;
    for (int c = 0; c < r.chain_cnt; c++)
      v.push_back({static_cast<int>(i), c, r.chains[c].t0, r.chains[c].beg});
  }
  std::stable_sort(v.begin(), v.end(), [](const step& a, const step& b) {
    return a.t0 != b.t0 ? a.t0 < b.t0 : a.disk != b.disk ? a.disk < b.disk : a.beg < b.beg;
  });
  return v;
}

// Calls fn for every block found, in time order. 0, or 1 after fn stopped the walk.
int walk_blocks(std::vector<disk>& disks, int from, int to, rc_visit_fn fn, void* ctx) {
  std::vector<step> order = time_order(disks);
  for (size_t i = 0; i < order.size(); i++) {
    fs_recover& r = *disks[order[i].disk].r;
    if (r.replay(r.chains[order[i].chain], from, to, fn, ctx) == 1) return 1;
    tool::progress("writing", static_cast<double>(i + 1), static_cast<double>(order.size()));
  }
  tool::progress_end();
  return 0;
}

// ---- export ---------------------------------------------------------------------------

struct out_file {
  FILE* f = nullptr;
  fs_mp4* mp4 = nullptr;
  int time = 0, last = 0;
  unsigned w = 0, h = 0, fps = 0, codec = 0;
};

struct exporter {
  std::string dir;
  std::vector<int> chans;
  bool sub = false, audio = false;
  out_file files[32];
  std::vector<std::string> written;
  std::string error;
  std::vector<char> pcmbuf;

  std::string tmp(int ch) const { return dir + "/.recover-ch" + std::to_string(ch) + ".part"; }

  // Closes a channel's file: moov, the mdat size at byte 24, and its final name.
  bool finish(int ch) {
    out_file& o = files[ch];
    if (o.f == nullptr) return true;
    o.mp4->w_box_moov(o.f);
    unsigned box = 0, data = 0;
    o.mp4->g_box(box, data);
    unsigned v = data + 8;
    unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    fseek(o.f, 24, SEEK_SET);
    fwrite(b, 1, 4, o.f);
    bool bad = fflush(o.f) != 0 || ferror(o.f) != 0;
    bad = fclose(o.f) != 0 || bad;
    delete o.mp4;
    o.f = nullptr;
    o.mp4 = nullptr;
    if (bad) {
      remove(tmp(ch).c_str());
      error =
          "writing into " + dir + " failed (is the disk full?); the unfinished file was removed";
      return false;
    }
    time_t t = o.time;
    struct tm tm;
    gmtime_r(&t, &tm);
    char stem[96];
    snprintf(stem, sizeof stem, "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%ux%ux%u", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ch + 1, o.w, o.h, o.fps);
    std::string name;
    struct stat st;
    for (int k = 0; k < 1000; k++) {
      name = std::string(stem) + (k ? "_" + std::to_string(k) : "") + ".m4v";
      if (stat((dir + "/" + name).c_str(), &st) != 0) break;
    }
    if (rename(tmp(ch).c_str(), (dir + "/" + name).c_str()) != 0) {
      remove(tmp(ch).c_str());
      error = "cannot name " + dir + "/" + name;
      return false;
    }
    written.push_back(dir + "/" + name);
    return true;
  }

  bool wanted(int ch) const { return std::find(chans.begin(), chans.end(), ch) != chans.end(); }

  int frame(int block_time, const frame_head_t& fh, const char* data) {
    int ch = static_cast<int>(fh.ch);
    out_file& o = files[ch];
    bool key = frame_is_key(fh.type);
    if (fh.type == FRAME_AUDIO) {
      if (!audio || o.f == nullptr || fh.len < 4) return 0;
      if (fh.width == 2) {  // linear PCM already
        if (o.mp4->add(FRAME_AUDIO, data, fh.len) > 0)
          o.mp4->w_data(FRAME_AUDIO, o.f, data, fh.len);
        return 0;
      }
      if (!(data[0] == 0 && data[1] == 1 && data[2] == 0x52 && data[3] == 0) || fh.len < 8)
        return 0;
      pcmbuf.resize(4 * static_cast<size_t>(fh.len));
      int out = 0;
      adpcm2lpcm(data, static_cast<int>(fh.len), pcmbuf.data(), out);
      if (out > 0 && o.mp4->add(FRAME_AUDIO, pcmbuf.data(), static_cast<unsigned>(out)) > 0)
        o.mp4->w_data(FRAME_AUDIO, o.f, pcmbuf.data(), static_cast<unsigned>(out));
      return 0;
    }
    if (!frame_is_video(fh.type)) return 0;
    unsigned codec = fh.type >= FRAME_H265_KEY ? 265 : 264;
    if (o.f != nullptr) {
      // A new file at a pause, a change of picture or codec, or the size limit.
      bool ends = block_time > o.last + RC_SPAN_GAP || fh.width != o.w || fh.height != o.h ||
                  fh.fps != o.fps || codec != o.codec || o.mp4->g_size() + fh.len > kFileLimit;
      if (ends && (key || block_time > o.last + RC_SPAN_GAP || codec != o.codec)) {
        if (!finish(ch)) return 1;
      }
    }
    if (o.f == nullptr) {
      if (!key || fh.width == 0 || fh.height == 0) return 0;  // a file starts at a key frame
      o.f = fopen(tmp(ch).c_str(), "wb");
      if (o.f == nullptr) {
        error = "cannot create " + tmp(ch) + ": " + strerror(errno);
        return 1;
      }
      o.mp4 = new fs_mp4(codec == 265 ? "hvc1" : "avc1");
      o.mp4->set(static_cast<unsigned short>(fh.width), static_cast<unsigned short>(fh.height),
                 fh.fps, static_cast<unsigned>(block_time));
      o.mp4->w_box_mdat(o.f);
      o.time = block_time;
      o.w = fh.width;
      o.h = fh.height;
      o.fps = fh.fps;
      o.codec = codec;
    }
    o.last = block_time;
    if (o.mp4->add(static_cast<int>(fh.type), data, fh.len) > 0)
      o.mp4->w_data(static_cast<int>(fh.type), o.f, data, fh.len);
    return 0;
  }

  static int visit(void* ctx, const rc_block_t& b) {
    exporter& x = *static_cast<exporter*>(ctx);
    if (!b.frame_block) return 0;
    head_t h;
    memcpy(&h, b.bytes, sizeof h);
    int r = 0;
    block_frames(h, b.bytes + BLOCK_HEAD, [&](const frame_head_t& fh, const char* data) {
      bool sub = fh.stream == BLOCK_STREAM_SUB || (fh.stream < 2 && h.stream == BLOCK_STREAM_SUB);
      if (fh.ch >= 32 || !x.wanted(static_cast<int>(fh.ch)) || sub != x.sub) return true;
      // Frames come in time order: a block older than what the file holds (an earlier
      // lap of the ring found after a later one) is left out.
      out_file& o = x.files[fh.ch];
      if (o.f != nullptr && h.time < o.last) return true;
      r = x.frame(h.time, fh, data);
      return r == 0;
    });
    return r != 0 ? 1 : 0;
  }
};

int run_export(std::vector<disk>& disks, exporter& x, int from, int to) {
  audtype = 2;  // sound goes in as 16-bit PCM ("sowt"), as export writes it
  int stopped = walk_blocks(disks, from, to, exporter::visit, &x);
  for (int ch : x.chans)
    if (!x.finish(ch)) stopped = 1;
  if (stopped) {
    for (int ch : x.chans) {
      if (x.files[ch].f) {
        fclose(x.files[ch].f);
        delete x.files[ch].mp4;
        x.files[ch].f = nullptr;
      }
      remove(x.tmp(ch).c_str());
    }
    for (const std::string& p : x.written) remove(p.c_str());
    return fail(x.error.empty() ? "export failed" : x.error);
  }
  for (const std::string& p : x.written) printf("wrote %s\n", p.c_str());
  if (x.written.empty()) return fail("no frames of those channels between --from and --to");
  printf("exported %zu file(s) into %s\n", x.written.size(), x.dir.c_str());
  return 0;
}

// ---- rebuild --------------------------------------------------------------------------

// While rebuilding, the library's clocks follow the recovered blocks: the wall clock
// stamps the records and picks the live event slot as the recorder's did, and the
// monotonic clock moves on far enough per block that regions grow a unit at a time.
long long g_wall, g_mono_ms;
time_t rebuild_time(time_t* t) {
  if (t) *t = static_cast<time_t>(g_wall);
  return static_cast<time_t>(g_wall);
}
int rebuild_clock(clockid_t, struct timespec* ts) {
  g_mono_ms += 4000;
  ts->tv_sec = static_cast<time_t>(g_mono_ms / 1000);
  ts->tv_nsec = static_cast<long>(g_mono_ms % 1000) * 1000000L;
  return 0;
}

struct rebuilder {
  fs_app* app;
  int failed = 0;
  long long blocks = 0, bytes = 0;
  int cur_minute = -1;
  // The records of the minute being rebuilt, found beside its blocks: the detector
  // reports they hold are replayed once the minute's entry exists.
  int log_minute = -1, motion_minute = -1;
  log_rec_t log;
  motion_rec_t motion;

  void replay_records(int minute) {
    long long keep = g_wall;
    if (log_minute == minute) {
      for (int k = 0; k < 12; k++) {
        const event_t& e = log.rows[k];
        g_wall = minute * 60LL + k * 5;
        app->set_log_info(static_cast<int>(e.Vloss), static_cast<int>(e.Motion),
                          static_cast<int>(e.Sensor), static_cast<int>(e.mask[0]),
                          static_cast<int>(e.mask[1]), static_cast<int>(e.mask[2]),
                          static_cast<int>(e.mask[3]));
      }
    }
    if (motion_minute == minute) {
      for (int s = 0; s < 6; s++) {
        g_wall = minute * 60LL + s * 10;
        for (int ch = 0; ch < 32; ch++) {
          bool any = false;
          for (int w = 0; w < 20; w++) any = any || motion.grid[s][ch][w] != 0;
          if (any || (s == 0 && (motion.head.events >> ch & 1)))
            app->set_motion_info(ch, motion.grid[s][ch], 20);
        }
      }
    }
    g_wall = keep;
  }

  static int visit(void* ctx, const rc_block_t& b) {
    rebuilder& r = *static_cast<rebuilder*>(ctx);
    head_t h;
    memcpy(&h, b.bytes, sizeof h);
    if (!b.frame_block) {
      if (h.type == BLOCK_LOG && b.len == static_cast<int>(sizeof(log_rec_t))) {
        memcpy(&r.log, b.bytes, sizeof r.log);
        r.log_minute = h.time / 60;
      } else if (h.type == BLOCK_MOTION && b.len == static_cast<int>(sizeof(motion_rec_t))) {
        memcpy(&r.motion, b.bytes, sizeof r.motion);
        r.motion_minute = h.time / 60;
      }
      return 0;  // the write path makes its own records
    }
    g_wall = h.time;
    if (r.app->write(h.time, b.len, b.bytes) != 0) {
      r.failed = 1;
      return 1;
    }
    if (h.time / 60 != r.cur_minute) {
      r.cur_minute = h.time / 60;
      r.replay_records(r.cur_minute);
    }
    r.blocks++;
    r.bytes += b.len;
    return 0;
  }
};

int run_rebuild(std::vector<disk>& disks, const std::string& out, long long size, int from,
                int to) {
  struct stat st;
  if (stat(out.c_str(), &st) == 0)
    return fail(out + " exists already: give a new file for the rebuilt volume");
  int max_ch = 0;
  long long bytes = 0, minutes = 0;
  for (disk& d : disks) {
    for (int i = 0; i < d.r->span_cnt; i++) max_ch = std::max(max_ch, d.r->spans[i].ch);
    bytes += d.r->st.bytes;
    for (int c = 0; c < d.r->chain_cnt; c++)
      minutes += d.r->chains[c].t1 / 60 - d.r->chains[c].t0 / 60 + 1;
  }
  if (size <= 0) {
    // Each minute takes a region of whole 4 MiB units, plus the fixed 12 MiB outside.
    size = bytes + (minutes + 2) * (4LL << 20) + (16LL << 20);
    size = (size + (4LL << 20) - 1) / (4LL << 20) * (4LL << 20) + (12LL << 20);
  }
  std::string tmp = out + ".part";
  int fd = open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return fail("cannot create " + tmp + ": " + strerror(errno));
  bool sized = ftruncate(fd, static_cast<off_t>(size)) == 0;
  close(fd);
  if (!sized) {
    remove(tmp.c_str());
    return fail("cannot make " + out + " " + std::to_string(size >> 20) + " MB long");
  }
  std::string path = lib_path(tmp);
  fs_app* app = new fs_app();
  app->set(max_ch + 1);
  db_info_t& row = app->db_info[0];
  memset(&row, 0, sizeof row);
  snprintf(row.dev, sizeof row.dev, "%s", "rebuilt");
  snprintf(row.model, sizeof row.model, "image");
  row.db = new fs_db();
  app->db_cnt = 1;
  row.db->open(0, path.c_str(), "w");  // no volume yet: the format below makes one
  int rc = 0;
  if (row.db->format() != 0 || row.db->s_flag(1) != 0) {
    rc = fail("cannot format " + out + " (is the disk full or read-only?)");
  } else {
    rebuilder rb;
    rb.app = app;
    fs_sys_t keep = fs_sys;
    g_mono_ms = 1000;
    fs_sys.time = rebuild_time;
    fs_sys.clock_gettime = rebuild_clock;
    walk_blocks(disks, from, to, rebuilder::visit, &rb);
    tool::finish_recording(*app);
    fs_sys = keep;
    // Written as a write-once volume, so that a full image refuses blocks instead of
    // recycling the first hours; handed over recyclable, as a recorder formats its disks.
    if (!rb.failed && row.db->s_flag(0) != 0) rb.failed = 1;
    if (rb.failed)
      rc = fail("writing the rebuilt volume failed after " + std::to_string(rb.blocks) +
                " blocks (is the disk full, or --size too small?); nothing was kept");
    else if (rb.blocks == 0)
      rc = fail("no frame blocks between --from and --to to rebuild a volume from");
    else
      printf("rebuilt %s: %lld blocks, %s, in a %lld MB volume\n", out.c_str(), rb.blocks,
             mb(rb.bytes).c_str(), size >> 20);
  }
  app->db_close();
  delete app;
  if (rc == 0 && rename(tmp.c_str(), out.c_str()) != 0)
    rc = fail("cannot name " + out + ": " + strerror(errno));
  if (rc != 0) remove(tmp.c_str());
  return rc;
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
  exporter x;
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
  if (exp) return run_export(disks, x, static_cast<int>(from), static_cast<int>(to));
  if (reb) return run_rebuild(disks, rebuild, size, static_cast<int>(from), static_cast<int>(to));
  return rc;
}

bool registered = tool::add_command({"recover", kUsage, run_recover});

}  // namespace
