// The recovery scan of a 24 GiB disk holding an hour of 16 channels, against a plain
// sequential pread loop over the same data area in the same run: the whole data area
// (mostly never written, as on a young disk) and the recorded stretch alone. Bytes read
// are counted through the system-call table (exact); times are medians of interleaved
// runs with their spread; peak memory is the scanning child's maximum resident size,
// beside the heap the scanner holds and how that grows per recorded hour.
//
//   bench_recover [DIR] [RUNS]
//
// DIR (default out/bench-recover) holds the simulated board, built once and reused
// while DIR/complete says it was built with the same shape.
#include <fcntl.h>
#include <ringrec/fs_app.h>
#include <ringrec/recovery.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_kit.h"
#include "sim/board.h"
#include "sim/capture.h"

namespace {

const int kStart = 1699999200;  // 2023-11-14 22:00:00 UTC
const int kSeconds = 3600 + 60;
const long long kDisk = (24LL << 30) + (12LL << 20);
const char kShape[] = "24 GiB + 12 MiB, 16 channels, 61 min, 5 fps, 256+64 kbit/s, 200 ms, v1";

using bench::counting_pread;
using bench::now_s;
using bench::sim_clock;
long long& g_reads = bench::counts().reads;
long long& g_bytes = bench::counts().bytes;
long long (*&g_pread)(int, void*, int, long long) = bench::counts().real;
long long& g_mono_ms = bench::sim_mono_ms();

bool build(const std::string& dir) {
  std::string err;
  if (system(("rm -rf '" + dir + "'").c_str()) != 0) return false;
  if (sim::board_create(dir, {{"sda", kDisk, "BENCH", false}}, &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return false;
  }
  setenv("RINGREC_ROOT", dir.c_str(), 1);
  fs_app app;
  app.set(16);
  if (app.db_open("w") != 1 || app.db_format(0) != 0) return false;
  sim::capture_spec s;
  s.channels = 16;
  s.fps = 5;
  s.gop = 5;
  s.main_kbps = 256;
  s.sub_kbps = 64;
  s.audio = false;
  s.block_ms = 200;
  s.main_w = 704;
  s.main_h = 576;
  sim::capture cap;
  if (cap.open(s, kStart * 1000LL, &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return false;
  }
  sim::clock_follow();
  fs_sys.clock_gettime = sim_clock;
  std::vector<std::string> blocks;
  long long failed = 0;
  double t0 = now_s();
  while (cap.now_ms() < (kStart + kSeconds) * 1000LL) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    g_mono_ms += s.block_ms;
    for (const std::string& b : blocks)
      if (app.write(cap.time(), static_cast<int>(b.size()), b.data()) != 0) failed++;
  }
  app.flush();
  app.db_close();
  sim::clock_release();
  fs_sys_reset();
  unsetenv("RINGREC_ROOT");
  fprintf(stdout, "built in %.0f s%s\n", now_s() - t0, failed ? " (blocks refused)" : "");
  FILE* f = fopen((dir + "/complete").c_str(), "w");
  if (f == nullptr) return false;
  fputs(kShape, f);
  fclose(f);
  return failed == 0;
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

// The reference: 8 MiB preads front to back over [beg, end), touching every page.
double pread_loop(const std::string& path, long long beg, long long end) {
  int fd = open(path.c_str(), O_RDONLY);
  std::vector<char> b(8 << 20);
  unsigned sum = 0;
  double t0 = now_s();
  for (long long off = beg; off < end;) {
    int n = static_cast<int>(std::min<long long>(b.size(), end - off));
    if (pread(fd, b.data(), static_cast<size_t>(n), off) != n) break;
    for (int i = 0; i < n; i += 4096) sum += static_cast<unsigned char>(b[static_cast<size_t>(i)]);
    off += n;
  }
  double t = now_s() - t0;
  close(fd);
  if (sum == 1) fprintf(stderr, " ");
  return t;
}

struct found {
  rc_stats_t st;
  long long beg, end, mem, last;  // last: end of the last chain
  int chains, spans, minutes;
};

double scan(const std::string& path, long long beg, long long end, found* keep) {
  fs_recover r;
  if (r.open(path.c_str()) != 0) return -1;
  if (end > 0) {
    r.ring_beg = beg;
    r.ring_end = end;
  }
  double t0 = now_s();
  int n = r.scan(-0x7FFFFFFF - 1, 0x7FFFFFFF, nullptr, nullptr);
  double t = now_s() - t0;
  if (n < 0) return -1;
  if (keep) {
    keep->st = r.st;
    keep->beg = r.ring_beg;
    keep->end = r.ring_end;
    keep->mem = r.mem_bytes();
    keep->last = r.ring_beg;
    for (int i = 0; i < r.chain_cnt; i++) keep->last = std::max(keep->last, r.chains[i].end);
    keep->chains = r.chain_cnt;
    keep->spans = r.span_cnt;
    keep->minutes = r.minutes;
  }
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : "out/bench-recover";
  int runs = argc > 2 ? atoi(argv[2]) : 5;
  if (runs < 5) runs = 5;
  if (!built(dir) && !build(dir)) {
    fprintf(stderr, "bench_recover: cannot build the board in %s\n", dir.c_str());
    return 1;
  }
  std::string img = dir + "/dev/sda";

  // One scan counted: what it reads, what it finds, what it holds.
  found one;
  g_pread = fs_sys.pread;
  fs_sys.pread = counting_pread;
  if (scan(img, 0, 0, &one) < 0) return 1;
  fs_sys.pread = g_pread;
  long long area = one.end - one.beg;
  long long recorded = one.st.bytes;
  // The recorded stretch: from the ring's start to past the last block found.
  long long rec_end = (one.last + (8 << 20) - 1) / (8 << 20) * (8 << 20);
  printf(
      "disk: %lld MiB, data area %lld MiB, %lld MiB of blocks in %lld frame blocks, "
      "%d minutes listed\n",
      kDisk >> 20, area >> 20, recorded >> 20, one.st.frame_blocks, one.minutes);
  printf("reads: %lld of %lld bytes each at most\n", g_reads, 8LL << 20);
  printf("bytes_read_per_area_byte: %.4f\n", static_cast<double>(g_bytes) / area);
  printf("chains: %d, spans: %d\n", one.chains, one.spans);
  long long heap = one.mem;
  printf("scanner_heap: %.2f MB (read buffer %d MB; chains, spans and index regions %.1f KB)\n",
         heap / 1e6, (8 + 4), (heap - (12 << 20)) / 1e3);
  // Growth: chains and index regions come one per recorded minute, spans per pause.
  double per_hour = static_cast<double>(heap - (12 << 20)) / (kSeconds / 3600.0);
  double hours_2tb = (2e12 / static_cast<double>(recorded)) * (kSeconds / 3600.0);
  printf(
      "heap_growth: %.1f KB per recorded hour; a 2 TB disk of this recording "
      "(%.0f hours): %.1f MB\n",
      per_hour / 1e3, hours_2tb, ((12 << 20) + per_hour * hours_2tb) / 1e6);

  // Peak resident memory of a process that only scans.
  pid_t pid = fork();
  if (pid == 0) _exit(scan(img, 0, 0, nullptr) < 0 ? 1 : 0);
  int status = 0;
  struct rusage ru;
  wait4(pid, &status, 0, &ru);
  printf("peak_rss: %.1f MB (the scanning process, library and C runtime included)\n",
         ru.ru_maxrss / 1024.0);

  // Interleaved timing runs: the scan and the pread loop over the whole data area, and
  // over the recorded stretch.
  std::vector<double> s_all, p_all, s_rec, p_rec, r_all, r_rec;
  for (int i = 0; i < runs; i++) {
    // The order of each pair alternates from run to run. The whole area is larger than
    // the page cache, so each pass over it reads the disk; the recorded stretch fits, so
    // it is read once untimed before each of its passes and both measure the same cache.
    double a, b, c, d;
    if (i % 2 == 0) {
      a = scan(img, 0, 0, nullptr);
      b = pread_loop(img, one.beg, one.end);
    } else {
      b = pread_loop(img, one.beg, one.end);
      a = scan(img, 0, 0, nullptr);
    }
    pread_loop(img, one.beg, rec_end);
    if (i % 2 == 0) {
      c = scan(img, one.beg, rec_end, nullptr);
      pread_loop(img, one.beg, rec_end);
      d = pread_loop(img, one.beg, rec_end);
    } else {
      d = pread_loop(img, one.beg, rec_end);
      pread_loop(img, one.beg, rec_end);
      c = scan(img, one.beg, rec_end, nullptr);
    }
    s_all.push_back(a);
    p_all.push_back(b);
    s_rec.push_back(c);
    p_rec.push_back(d);
    r_all.push_back(b / a);
    r_rec.push_back(d / c);
  }
  stat_t sa = summary(s_all), pa = summary(p_all), sr = summary(s_rec), pr = summary(p_rec);
  stat_t ra = summary(r_all), rr = summary(r_rec);
  printf("scan_area: %.3f s (%.3f..%.3f), %.0f MB/s\n", sa.med, sa.lo, sa.hi, area / 1e6 / sa.med);
  printf("pread_area: %.3f s (%.3f..%.3f), %.0f MB/s\n", pa.med, pa.lo, pa.hi, area / 1e6 / pa.med);
  printf("ratio: %.3f (%.3f..%.3f) pread time / scan time, whole data area, %d runs\n", ra.med,
         ra.lo, ra.hi, runs);
  printf("scan_recorded: %.3f s (%.3f..%.3f), %.0f MB/s over %lld MiB\n", sr.med, sr.lo, sr.hi,
         (rec_end - one.beg) / 1e6 / sr.med, (rec_end - one.beg) >> 20);
  printf("pread_recorded: %.3f s (%.3f..%.3f)\n", pr.med, pr.lo, pr.hi);
  printf("ratio_recorded: %.3f (%.3f..%.3f) pread time / scan time, recorded stretch\n", rr.med,
         rr.lo, rr.hi);
  return 0;
}
