// Search and playback on seven days of recording on two disks: positioning the cursor,
// the searches, and playing one hour forwards and backwards against a plain pread loop
// over the same block bytes, in one run. Read calls and bytes are counted through the
// system-call table (exact); times are medians of interleaved runs with their spread.
//
//   bench_playback [DIR] [RUNS] [MINUTES]
//
// MINUTES (default 60) of the recorder-rate recording (16 channels, DIR-recorder), played
// both ways against a one-read pread loop: the ratio_recorder line.
// DIR (default out/bench-playback) holds the simulated board. The recording takes
// minutes to build, so it is built once and reused while DIR/complete says it was
// built with the same shape.
#include <fcntl.h>
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bench_kit.h"
#include "sim/board.h"
#include "sim/capture.h"

namespace {

const int kDays = 7;
const int kStart = 1699920000;  // 2023-11-14 00:00:00 UTC
const int kEnd = kStart + kDays * 86400;
const char kShape[] = "7 days, 2 disks of 24 GiB, 2 channels, 2 fps, 8 kbit/s, 1 block/s, v1";

using bench::counting_pread;
using bench::now_s;
using bench::sim_clock;
long long& g_reads = bench::counts().reads;
long long& g_bytes = bench::counts().bytes;
long long (*&g_pread)(int, void*, int, long long) = bench::counts().real;
long long& g_mono_ms = bench::sim_mono_ms();

bool build(const std::string& dir) {
  std::string err;
  std::vector<sim::disk_spec> disks = {{"sda", 24LL << 30, "BENCH-A", false},
                                       {"sdb", 24LL << 30, "BENCH-B", false}};
  if (system(("rm -rf '" + dir + "'").c_str()) != 0) return false;
  if (sim::board_create(dir, disks, &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return false;
  }
  fs_app app;
  app.set(2);
  if (app.db_open("w") != 2 || app.db_format(0) != 0 || app.db_format(1) != 0) return false;
  sim::capture_spec s;
  s.channels = 2;
  s.fps = 2;
  s.gop = 2;
  s.main_kbps = 8;
  s.substream = false;
  s.audio = false;
  s.block_ms = 1000;
  s.main_w = 352;
  s.main_h = 288;
  sim::capture cap;
  if (cap.open(s, kStart * 1000LL, &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return false;
  }
  sim::clock_follow();
  fs_sys.clock_gettime = sim_clock;
  std::vector<std::string> blocks;
  unsigned grid[20] = {0x1};
  long long failed = 0;
  double t0 = now_s();
  for (int t = kStart; t < kEnd; t++) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    g_mono_ms += 1000;
    // A detector's reports now and then: video loss, motion.
    if (t % 600 == 30) app.set_log_info(1 << (t / 600 % 2), 0, 0, 0, 0, 0, 0);
    if (t % 900 == 45) app.set_motion_info(t / 900 % 2, grid, 1);
    for (const std::string& b : blocks)
      if (app.write(cap.time(), static_cast<int>(b.size()), b.data()) != 0) failed++;
    if ((t - kStart) % 86400 == 86399)
      fprintf(stdout, "built day %d (%.0f s)\n", (t - kStart) / 86400 + 1, now_s() - t0);
  }
  app.flush();
  app.db_close();
  sim::clock_release();
  fs_sys_reset();
  if (failed != 0) fprintf(stdout, "build: %lld blocks refused\n", failed);
  FILE* f = fopen((dir + "/complete").c_str(), "w");
  if (f == nullptr) return false;
  fputs(kShape, f);
  fclose(f);
  return true;
}

bool built(const std::string& dir) {
  FILE* f = fopen((dir + "/complete").c_str(), "r");
  if (f == nullptr) return false;
  char line[256] = {0};
  bool same = fgets(line, sizeof line, f) != nullptr && strcmp(line, kShape) == 0;
  fclose(f);
  return same;
}

typedef bench::spread stat_t;
using bench::summary;

// One stored block as the cursor met it: where its bytes lie on which device.
struct span {
  int disk;
  long long off;
  int len;
};

int disk_of(fs_app& app) {
  for (int i = 0; i < app.db_cnt; i++)
    if (app.db_info[i].db == app.r_cur.db) return i;
  return -1;
}

// Plays hour `h0` (seconds) forwards or backwards through the cursor: r_head and
// r_data per block. Returns the data bytes; fills `spans` when given.
long long play_hour(fs_app& app, int h0, bool fwd, std::vector<char>& buf,
                    std::vector<span>* spans) {
  long long bytes = 0;
  bool entered = false;
  if (fwd) {
    if (app.r_set(h0, 0) != 0) return -1;
  } else {
    // The first block of the next hour, then back into this one.
    if (app.r_set(h0 + 3600, 0) != 0 || app.r_next(-1) != 0) return -1;
  }
  for (;;) {
    // The head is read before the hour is looked at, as a player does after each step:
    // positioning by time trusts the head buffer to belong to the current minute.
    head_t* h = app.r_head();
    if (h == nullptr) return -1;
    bool in = app.r_cur.min.time / 3600 == h0 / 3600;
    // Positioning by time may start on the previous minute's key-frame index records,
    // stamped when they were written, in the first second of this hour.
    if (!in && fwd && !entered) {
      if (app.r_seek(1) != 0 && app.r_next(1) != 0) return -1;
      continue;
    }
    if (!in) break;
    entered = true;
    int size = h->size;
    if (static_cast<int>(buf.size()) < size) buf.resize(static_cast<size_t>(size));
    if (app.r_data(buf.data(), size) != 0) return -1;
    bytes += 296 + size;
    if (spans != nullptr) {
      long long region = app.r_cur.min.offset;
      spans->push_back({disk_of(app), region + app.r_cur.off, 296 + size});
    }
    if (app.r_seek(fwd ? 1 : -1) != 0 && app.r_next(fwd ? 1 : -1) != 0) break;
  }
  return bytes;
}

long long pread_loop(const std::vector<int>& fds, const std::vector<span>& spans,
                     std::vector<char>& buf) {
  long long bytes = 0;
  for (const span& s : spans) {
    if (static_cast<int>(buf.size()) < s.len) buf.resize(static_cast<size_t>(s.len));
    if (pread(fds[s.disk], buf.data(), static_cast<size_t>(s.len), static_cast<off_t>(s.off)) !=
        s.len)
      return -1;
    bytes += s.len;
  }
  return bytes;
}

// The same blocks read the way the calling order reads them: the previous tail with the
// head (296 bytes at offset - 8), then the data (at offset + 288). Two reads a block is
// the least any player of this interface makes, so against this loop the ratio is the
// library's own cost; against the one-read loop it is the interface's as well.
long long pread_pair_loop(const std::vector<int>& fds, const std::vector<span>& spans,
                          std::vector<char>& buf) {
  long long bytes = 0;
  for (const span& s : spans) {
    if (static_cast<int>(buf.size()) < s.len) buf.resize(static_cast<size_t>(s.len));
    int size = s.len - 296;
    if (pread(fds[s.disk], buf.data(), 296, static_cast<off_t>(s.off - 8)) != 296 ||
        pread(fds[s.disk], buf.data() + 296, static_cast<size_t>(size),
              static_cast<off_t>(s.off + 288)) != size)
      return -1;
    bytes += s.len;
  }
  return bytes;
}

// The recorder's own shape: 16 channels at 4 Mbit/s main and 512 kbit/s substream with
// sound, 200 ms blocks (about 110 KB each), on one disk. It fills the last `minutes` of
// an hour and one minute of the next, so that play_hour covers it both ways.
const int kRecHour = kStart + 86400;  // an hour of its own, on a board of its own
std::string recorder_shape(int minutes) {
  return "16 channels, 4000+512 kbit/s, 200 ms blocks, " + std::to_string(minutes) + " min, v1";
}

bool build_recorder(const std::string& dir, int minutes) {
  std::string err;
  long long need = (static_cast<long long>(minutes) + 1) * 60 * 16 * 4600 / 8 * 1000;
  std::vector<sim::disk_spec> disks = {{"sda", need * 2 + (1LL << 30), "BENCH-R", false}};
  if (system(("rm -rf '" + dir + "'").c_str()) != 0) return false;
  if (sim::board_create(dir, disks, &err) != 0) return false;
  setenv("RINGREC_ROOT", dir.c_str(), 1);
  fs_app app;
  app.set(16);
  if (app.db_open("w") != 1 || app.db_format(0) != 0) return false;
  sim::capture_spec s;
  s.channels = 16;
  sim::capture cap;
  int t0 = kRecHour + 3600 - minutes * 60;
  if (cap.open(s, t0 * 1000LL, &err) != 0) return false;
  sim::clock_follow();
  std::vector<std::string> blocks;
  long long failed = 0;
  while (cap.now_ms() < (kRecHour + 3660) * 1000LL) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    for (const std::string& b : blocks)
      if (app.write(cap.time(), static_cast<int>(b.size()), b.data()) != 0) failed++;
  }
  app.flush();
  app.db_close();
  sim::clock_release();
  if (failed != 0) return false;
  FILE* f = fopen((dir + "/complete").c_str(), "w");
  if (f == nullptr) return false;
  fputs(recorder_shape(minutes).c_str(), f);
  fclose(f);
  return true;
}

bool built_as(const std::string& dir, const std::string& shape) {
  FILE* f = fopen((dir + "/complete").c_str(), "r");
  if (f == nullptr) return false;
  char line[256] = {0};
  bool same = fgets(line, sizeof line, f) != nullptr && shape == line;
  fclose(f);
  return same;
}

// Plays the recorder hour through the cursor forwards and backwards against a one-read
// pread loop over the same blocks, interleaved; prints ratio_recorder.
void recorder_ratios(const std::string& dir, int minutes, int runs, double small_fwd,
                     double small_back) {
  if (!built_as(dir, recorder_shape(minutes))) {
    fprintf(stdout, "building %s in %s\n", recorder_shape(minutes).c_str(), dir.c_str());
    fflush(stdout);
    double t0 = now_s();
    fs_sys.pread = g_pread;
    if (!build_recorder(dir, minutes)) {
      fprintf(stdout, "recorder: building failed\n");
      return;
    }
    fs_sys.pread = counting_pread;
    fprintf(stdout, "build: %.0f s\n", now_s() - t0);
  }
  setenv("RINGREC_ROOT", dir.c_str(), 1);
  fs_app app;
  app.set(16);
  if (app.db_open("r") != 1) return;
  std::vector<char> buf;
  std::vector<span> fs, bs;
  long long fb = play_hour(app, kRecHour, true, buf, &fs);
  long long bb = play_hour(app, kRecHour, false, buf, &bs);
  g_reads = g_bytes = 0;
  play_hour(app, kRecHour, true, buf, nullptr);
  long long fr_reads = g_reads, fr_bytes = g_bytes;
  g_reads = g_bytes = 0;
  play_hour(app, kRecHour, false, buf, nullptr);
  long long br_reads = g_reads, br_bytes = g_bytes;
  std::vector<int> fds = {open((dir + "/dev/sda").c_str(), O_RDONLY)};
  std::vector<double> fr, br;
  for (int r = 0; r < runs; r++) {
    for (int k = 0; k < 2; k++) {
      double dt[2];
      for (int j = 0; j < 2; j++) {
        int who = (j + r) % 2;
        double t0 = now_s();
        long long got = who == 0 ? play_hour(app, kRecHour, k == 0, buf, nullptr)
                                 : pread_loop(fds, k == 0 ? fs : bs, buf);
        dt[who] = now_s() - t0;
        if (got != (k == 0 ? fb : bb)) printf("mismatch: %lld bytes\n", got);
      }
      (k == 0 ? fr : br).push_back(dt[1] / dt[0]);
    }
  }
  close(fds[0]);
  app.db_close();
  stat_t f = summary(fr), b = summary(br);
  printf(
      "recorder: %zu blocks, %.1f MB, reads forward %lld (%.3f a block, %.3f bytes a stored "
      "byte), backward %lld (%.3f a block, %.3f)\n",
      fs.size(), fb / 1048576.0, fr_reads, static_cast<double>(fr_reads) / fs.size(),
      static_cast<double>(fr_bytes) / fb, br_reads, static_cast<double>(br_reads) / bs.size(),
      static_cast<double>(br_bytes) / bb);
  printf(
      "ratio_recorder: forward %.3f, backward %.3f (median of %d, %.3f..%.3f, %.3f..%.3f; "
      "2.6 KB blocks: forward %.3f, backward %.3f)\n",
      f.med, b.med, runs, f.lo, f.hi, b.lo, b.hi, small_fwd, small_back);
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : "out/bench-playback";
  int runs = argc > 2 ? atoi(argv[2]) : 5;
  int rec_minutes = argc > 3 ? atoi(argv[3]) : 60;
  if (rec_minutes < 1 || rec_minutes > 60) rec_minutes = 60;
  if (runs < 5) runs = 5;
  mkdir("out", 0755);
  char abs[4096];
  if (realpath(".", abs) == nullptr) return 1;
  if (dir[0] != '/') dir = std::string(abs) + "/" + dir;
  setenv("RINGREC_ROOT", dir.c_str(), 1);
  // The library's diagnostic lines would cost terminal time inside the measurements.
  int quiet = open("/dev/null", O_WRONLY);
  int saved_err = dup(2);
  dup2(quiet, 2);
  if (!built(dir)) {
    fprintf(stdout, "building %s in %s\n", kShape, dir.c_str());
    fflush(stdout);
    double t0 = now_s();
    if (!build(dir)) {
      dup2(saved_err, 2);
      fprintf(stderr, "bench_playback: building the recording failed\n");
      return 1;
    }
    fprintf(stdout, "build: %.0f s\n", now_s() - t0);
  } else {
    fprintf(stdout, "reusing %s\n", dir.c_str());
  }

  fs_app app;
  app.set(2);
  if (app.db_open("r") != 2) {
    dup2(saved_err, 2);
    fprintf(stderr, "bench_playback: the two disks do not open\n");
    return 1;
  }
  g_pread = fs_sys.pread;
  fs_sys.pread = counting_pread;

  // The recording as the index has it.
  int n = 0;
  app.q_hour(0, 0, n);
  int hours = n;
  app.q_min(0, 0, n);
  int minutes = n;
  printf("recording: %d hour entries, %d minute entries, %d days\n", hours, minutes, kDays);

  std::mt19937 rng(7);
  std::vector<int> instants(1000);
  for (int& t : instants)
    t = kStart + static_cast<int>(rng() % static_cast<unsigned>(kEnd - kStart));

  // (a) r_set to 1000 random instants.
  std::vector<double> set_us;
  long long set_reads = 0, set_bytes = 0;
  int set_fail = 0;
  for (int r = 0; r < runs; r++) {
    g_reads = g_bytes = 0;
    double t0 = now_s();
    for (int t : instants)
      if (app.r_set(t, 0) != 0) set_fail++;
    set_us.push_back((now_s() - t0) * 1e6 / 1000);
    set_reads = g_reads;
    set_bytes = g_bytes;
  }
  stat_t s = summary(set_us);
  printf("r_set_reads: %.1f reads/call (%lld for 1000 calls)\n", set_reads / 1000.0, set_reads);
  printf("r_set_bytes: %.0f bytes/call\n", set_bytes / 1000.0);
  printf("r_set_time: %.1f us/call (median of %d, %.1f..%.1f)\n", s.med, runs, s.lo, s.hi);
  printf("r_set_failed: %d\n", set_fail);

  // (b) The searches over the whole recording.
  struct query {
    const char* name;
    int which;
  } queries[] = {{"q_hour", 0}, {"q_min", 1}, {"q_time_1000", 2}, {"q_log", 3}};
  for (const query& q : queries) {
    std::vector<double> ms;
    long long reads = 0, bytes = 0;
    int found = 0;
    for (int r = 0; r < runs; r++) {
      std::vector<int> t = instants;
      g_reads = g_bytes = 0;
      double t0 = now_s();
      if (q.which == 0) app.q_hour(0, 0, found);
      if (q.which == 1) app.q_min(0, 0, found);
      if (q.which == 2) {
        app.q_time(1000, t.data());
        found = static_cast<int>(std::count_if(t.begin(), t.end(), [](int v) { return v != 0; }));
      }
      if (q.which == 3) app.q_log(0, 0, 0x3, 1, found);
      ms.push_back((now_s() - t0) * 1e3);
      reads = g_reads;
      bytes = g_bytes;
    }
    s = summary(ms);
    printf("%s: %lld reads, %lld bytes, %.2f ms (median of %d, %.2f..%.2f), %d found\n", q.name,
           reads, bytes, s.med, runs, s.lo, s.hi, found);
  }

  // (c) One hour forwards and backwards against a pread loop over the same bytes.
  int h0 = (kStart + 3 * 86400 + 12 * 3600);  // day 4, noon
  std::vector<char> buf;
  std::vector<span> fwd_spans, back_spans;
  long long fwd_bytes = play_hour(app, h0, true, buf, &fwd_spans);
  long long back_bytes = play_hour(app, h0, false, buf, &back_spans);
  g_reads = 0;
  play_hour(app, h0, true, buf, nullptr);
  long long fwd_reads = g_reads;
  g_reads = 0;
  play_hour(app, h0, false, buf, nullptr);
  long long back_reads = g_reads;
  std::vector<int> fds;
  for (int i = 0; i < app.db_cnt; i++) {
    std::string img = dir + app.db_info[i].dev;
    fds.push_back(open(img.c_str(), O_RDONLY));
  }
  // Per run and direction: the cursor, the one-read loop and the two-read loop, their
  // order rotating from run to run so drift in the machine's load falls on all three.
  std::vector<double> fr, br, f2, b2, f_ms, b_ms;
  for (int r = 0; r < runs; r++) {
    for (int k = 0; k < 2; k++) {
      const std::vector<span>& sp = k == 0 ? fwd_spans : back_spans;
      double dt[3] = {0, 0, 0};
      for (int j = 0; j < 3; j++) {
        int who = (j + r) % 3;
        double t0 = now_s();
        long long got = who == 0   ? play_hour(app, h0, k == 0, buf, nullptr)
                        : who == 1 ? pread_loop(fds, sp, buf)
                                   : pread_pair_loop(fds, sp, buf);
        dt[who] = now_s() - t0;
        if (got != (k == 0 ? fwd_bytes : back_bytes)) printf("mismatch: %lld bytes\n", got);
      }
      (k == 0 ? fr : br).push_back(dt[1] / dt[0]);
      (k == 0 ? f2 : b2).push_back(dt[2] / dt[0]);
      (k == 0 ? f_ms : b_ms).push_back(dt[0] * 1e3);
    }
  }
  printf("hour: %zu blocks forwards, %zu backwards, %lld bytes\n", fwd_spans.size(),
         back_spans.size(), fwd_bytes);
  printf("play_forward_reads: %lld (%.2f per block)\n", fwd_reads,
         static_cast<double>(fwd_reads) / static_cast<double>(fwd_spans.size()));
  printf("play_backward_reads: %lld (%.2f per block)\n", back_reads,
         static_cast<double>(back_reads) / static_cast<double>(back_spans.size()));
  s = summary(f_ms);
  printf("play_forward: %.2f ms (median of %d, %.2f..%.2f)\n", s.med, runs, s.lo, s.hi);
  s = summary(b_ms);
  printf("play_backward: %.2f ms (median of %d, %.2f..%.2f)\n", s.med, runs, s.lo, s.hi);
  s = summary(fr);
  printf("ratio: forward %.3f (pread loop time / cursor time; median of %d, %.3f..%.3f)\n", s.med,
         runs, s.lo, s.hi);
  s = summary(br);
  printf("ratio: backward %.3f (median of %d, %.3f..%.3f)\n", s.med, runs, s.lo, s.hi);
  s = summary(f2);
  printf("ratio: forward %.3f against two reads a block (median of %d, %.3f..%.3f)\n", s.med, runs,
         s.lo, s.hi);
  s = summary(b2);
  printf("ratio: backward %.3f against two reads a block (median of %d, %.3f..%.3f)\n", s.med, runs,
         s.lo, s.hi);
  double small_f = summary(fr).med, small_b = summary(br).med;
  for (int fd : fds) close(fd);
  app.db_close();
  recorder_ratios(dir + "-recorder", rec_minutes, runs, small_f, small_b);
  fs_sys.pread = g_pread;
  dup2(saved_err, 2);
  return 0;
}
