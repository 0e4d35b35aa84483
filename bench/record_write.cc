// The write path (fs_app::write) recording 16 channels (main ~4 Mbit/s, substream
// ~512 kbit/s, audio), measured three ways in one run:
//
// 1. Library overhead. fs_app::write against a positioned-write loop that replays the
//    library's own writes and fsyncs (captured through the system-call table) with the
//    same bytes at the same offsets, so both sides wait for the same write-back and the
//    ratio shows what the library adds. The monotonic clock behind region growth follows
//    capture time, as on a recorder recording in real time, so every library run issues
//    the same schedule.
// 2. Exact counts of that schedule, scaled to one recorded hour: system calls per block,
//    fsyncs, bytes written per byte of payload.
// 3. Capture stalls. Four capture threads of four channels each, paced at real time and
//    at ten times real time, with two detector threads reporting events and motion: the
//    time each write call takes (50th, 99th, 99.9th percentile, maximum), against the
//    same threads writing the same blocks with a plain positioned-write loop that makes
//    its data durable at each minute boundary as the library does.
//
// Every figure is the median of RUNS interleaved runs (reference, library, ...), with
// the smallest and largest value.
//
//   bench_record_write [SECONDS [PACED_SECONDS [RUNS]]]
//     SECONDS        capture seconds of the overhead runs (default 30)
//     PACED_SECONDS  capture seconds of the paced runs (default 15; 10x runs take 4x that)
//     RUNS           runs of each kind (default 5)
#include <fcntl.h>
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_kit.h"
#include "sim/board.h"
#include "sim/capture.h"

namespace {

const long long kDisk = 4LL << 30;
const int kStart = 1700000000 - 1700000000 % 3600 + 3600 - 20;  // 20 s before an hour

using bench::now_s;

void restamp(std::string& b, int t) {
  head_t h;
  memcpy(&h, b.data(), sizeof h);
  h.time = t;
  h.magic = static_cast<uint32_t>(t) ^ static_cast<uint32_t>(h.size);
  memcpy(&b[0], &h, sizeof h);
}

bool fresh_image(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  bool ok = fd >= 0 && ftruncate(fd, static_cast<off_t>(kDisk)) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

// ---- the system-call table: counting, capturing, and a clock following capture ----

struct op {
  bool sync;
  long long off;
  std::string bytes;
};
std::mutex g_mu;
std::atomic<long long> g_pwrites(0), g_fsyncs(0), g_written(0);
std::vector<op>* g_capture = nullptr;
std::atomic<long long> g_mono_ms(0);

long long count_pwrite(int fd, const void* buf, int n, long long off) {
  long long r = ::pwrite64(fd, buf, static_cast<size_t>(n), static_cast<off64_t>(off));
  g_pwrites++;
  g_written += n;
  if (g_capture != nullptr) {
    std::lock_guard<std::mutex> g(g_mu);
    g_capture->push_back({false, off, std::string(static_cast<const char*>(buf), n)});
  }
  return r;
}

int count_fsync(int fd) {
  int r = ::fsync(fd);
  g_fsyncs++;
  if (g_capture != nullptr) {
    std::lock_guard<std::mutex> g(g_mu);
    g_capture->push_back({true, 0, std::string()});
  }
  return r;
}

int capture_clock(clockid_t, struct timespec* ts) {
  long long ms = g_mono_ms.load();
  ts->tv_sec = static_cast<time_t>(ms / 1000);
  ts->tv_nsec = static_cast<long>(ms % 1000) * 1000000;
  return 0;
}

void reset_counts() {
  g_pwrites = 0;
  g_fsyncs = 0;
  g_written = 0;
}

// Keeps the library's line per new minute entry off the terminal.
struct quiet_stderr {
  int saved;
  quiet_stderr() {
    fflush(stderr);
    saved = dup(2);
    int n = open("/dev/null", O_WRONLY);
    dup2(n, 2);
    close(n);
  }
  ~quiet_stderr() {
    dup2(saved, 2);
    close(saved);
  }
};

fs_app* open_app(const std::string& image, int channels) {
  if (!fresh_image(image)) return nullptr;
  sim::clock_set(kStart);  // the format time: a volume stamped 0 counts as absent
  fs_app* app = new fs_app();
  app->set(channels);
  if (app->db_open("w") < 1 || app->db_format(0) != 0) {
    delete app;
    return nullptr;
  }
  return app;
}

// ---- 1 and 2: overhead and counts ----

struct one_second {
  std::vector<std::vector<std::string>> ticks;  // 5 ticks of 200 ms
};

struct lib_run {
  double wall = 0;
  long long pwrites = 0, fsyncs = 0, written = 0, payload = 0, blocks = 0;
};

bool run_library(const std::string& image, one_second& sec, int seconds, std::vector<op>* capture,
                 size_t* setup_ops, lib_run* out) {
  quiet_stderr q;
  g_capture = capture;
  g_mono_ms = kStart * 1000LL;
  fs_app* app = open_app(image, 16);
  if (app == nullptr) return false;
  if (setup_ops != nullptr) *setup_ops = capture->size();
  reset_counts();
  long long payload = 0, blocks = 0, failed = 0;
  double t0 = now_s();
  for (int s = 0; s < seconds; s++) {
    sim::clock_set(kStart + s);
    for (size_t k = 0; k < sec.ticks.size(); k++) {
      g_mono_ms = (kStart + s) * 1000LL + static_cast<long long>(k) * 200;
      for (std::string& b : sec.ticks[k]) {
        restamp(b, kStart + s);
        if (app->write(kStart + s, static_cast<int>(b.size()), b.data()) != 0) failed++;
        payload += static_cast<long long>(b.size());
        blocks++;
      }
    }
  }
  app->flush();
  out->wall = now_s() - t0;
  out->pwrites = g_pwrites;
  out->fsyncs = g_fsyncs;
  out->written = g_written;
  out->payload = payload;
  out->blocks = blocks;
  g_capture = nullptr;
  app->db_close();
  delete app;
  if (failed != 0) fprintf(stdout, "library run: %lld blocks refused\n", failed);
  return failed == 0;
}

// Replays a captured schedule with plain calls on a fresh image; the writes before
// `from` (formatting) are applied untimed.
bool run_replay(const std::string& image, const std::vector<op>& sched, size_t from, double* wall) {
  if (!fresh_image(image)) return false;
  int fd = open(image.c_str(), O_RDWR);
  if (fd < 0) return false;
  bool ok = true;
  for (size_t i = 0; i < from; i++)
    if (!sched[i].sync)
      ok &= pwrite64(fd, sched[i].bytes.data(), sched[i].bytes.size(), sched[i].off) ==
            static_cast<ssize_t>(sched[i].bytes.size());
  fsync(fd);
  double t0 = now_s();
  for (size_t i = from; i < sched.size(); i++) {
    const op& o = sched[i];
    if (o.sync)
      fsync(fd);
    else
      ok &= pwrite64(fd, o.bytes.data(), o.bytes.size(), o.off) ==
            static_cast<ssize_t>(o.bytes.size());
  }
  *wall = now_s() - t0;
  close(fd);
  return ok;
}

// ---- 3: paced capture ----

struct paced_result {
  std::vector<double> ms;  // every write call, milliseconds
  double p50 = 0, p99 = 0, p999 = 0, max = 0;
  long long failed = 0;
};

void summarise(paced_result& r) {
  std::sort(r.ms.begin(), r.ms.end());
  auto at = [&](double q) {
    size_t i = static_cast<size_t>(q * static_cast<double>(r.ms.size() - 1));
    return r.ms[i];
  };
  if (r.ms.empty()) return;
  r.p50 = at(0.5);
  r.p99 = at(0.99);
  r.p999 = at(0.999);
  r.max = r.ms.back();
}

// Four capture threads of four channels each at `speed` times real time for `seconds`
// of capture time; with `app` null they write with the plain loop to `image`.
bool run_paced(fs_app* app, const std::string& image, int seconds, int speed, paced_result* out) {
  int fd = -1;
  if (app == nullptr) {
    if (!fresh_image(image)) return false;
    fd = open(image.c_str(), O_RDWR);
    if (fd < 0) return false;
  }
  std::atomic<long long> cursor(0x800000);
  std::atomic<int> minute(kStart / 60);
  std::atomic<bool> done(false);
  std::vector<std::vector<double>> per(4);
  std::atomic<long long> failed(0);
  const int ticks = seconds * 5;
  const double t0 = now_s() + 0.05;
  auto capture = [&](int id) {
    sim::capture_spec shape;
    shape.channels = 4;
    shape.seed = static_cast<uint32_t>(id + 1);
    sim::capture cap;
    if (cap.open(shape, kStart * 1000LL, nullptr) != 0) {
      failed++;
      return;
    }
    std::vector<std::string> blocks;
    for (int k = 0; k < ticks; k++) {
      cap.next(blocks);  // prepared before its moment, as an encoder hands a finished block
      double due = t0 + (k + 1) * 0.2 / speed;
      double wait = due - now_s();
      if (wait > 0) usleep(static_cast<useconds_t>(wait * 1e6));
      int t = cap.time();
      if (id == 0) sim::clock_set(t);
      for (const std::string& b : blocks) {
        double a = now_s();
        if (app != nullptr) {
          if (app->write(t, static_cast<int>(b.size()), b.data()) != 0) failed++;
        } else {
          long long off = cursor.fetch_add(static_cast<long long>(b.size()));
          if (pwrite64(fd, b.data(), b.size(), off) != static_cast<ssize_t>(b.size())) failed++;
          int m = minute.load();
          if (t / 60 != m && minute.compare_exchange_strong(m, t / 60)) fsync(fd);
        }
        per[static_cast<size_t>(id)].push_back((now_s() - a) * 1e3);
      }
    }
  };
  auto detector = [&](int id) {
    unsigned mask[20];
    for (int i = 0; i < 20; i++) mask[i] = 1u << i;
    int n = 0;
    while (!done.load()) {
      if (app != nullptr) {
        if (id == 0)
          app->set_motion_info(n % 16, mask, 20);
        else
          app->set_log_info(1 << (n % 16), 0, 0, 0, 0, 0, n);
      }
      n++;
      usleep(static_cast<useconds_t>(100000 / speed));
    }
  };
  std::vector<std::thread> th;
  for (int i = 0; i < 4; i++) th.emplace_back(capture, i);
  std::thread d0(detector, 0), d1(detector, 1);
  for (std::thread& t : th) t.join();
  done = true;
  d0.join();
  d1.join();
  if (app != nullptr) {
    app->flush();
  } else {
    fsync(fd);
    close(fd);
  }
  for (auto& v : per) out->ms.insert(out->ms.end(), v.begin(), v.end());
  out->failed = failed;
  summarise(*out);
  return failed == 0;
}

struct stat3 {
  double med, lo, hi;
};
stat3 stat(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}
void print(const char* name, const std::vector<double>& v, const char* unit) {
  stat3 s = stat(v);
  printf("%s: %.3f %s (min %.3f, max %.3f)\n", name, s.med, unit, s.lo, s.hi);
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = argc > 1 ? atoi(argv[1]) : 30;
  int paced = argc > 2 ? atoi(argv[2]) : 15;
  int runs = argc > 3 ? atoi(argv[3]) : 5;
  if (seconds < 1) seconds = 30;
  if (paced < 1) paced = 15;
  if (runs < 1) runs = 5;
  char tmpl[] = "/tmp/ringrec-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  std::string root = tmpl;
  std::string err;
  if (sim::board_create(root, {{"sda", kDisk, "BENCH", false}}, &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return 1;
  }
  setenv("RINGREC_ROOT", root.c_str(), 1);
  const std::string image = root + "/dev/sda";
  const std::string ref_image = root + "/ref.img";
  fs_sys.pwrite = count_pwrite;
  fs_sys.fsync = count_fsync;
  sim::clock_follow();

  // ---- 1 and 2 ----
  one_second sec;
  sim::capture_spec shape;
  shape.channels = 16;
  sim::capture cap;
  if (cap.open(shape, kStart * 1000LL, &err) != 0) return 1;
  sec.ticks.resize(5);
  for (auto& t : sec.ticks) cap.next(t);

  int (*real_clock)(clockid_t, struct timespec*) = fs_sys.clock_gettime;
  fs_sys.clock_gettime = capture_clock;
  std::vector<op> sched;
  size_t setup = 0;
  lib_run warm;
  if (!run_library(image, sec, seconds, &sched, &setup, &warm)) return 1;
  std::vector<double> lib_mbs, ref_mbs, ratio;
  bool same = true;
  double mb = static_cast<double>(warm.payload) / 1048576.0;
  for (int r = 0; r < runs; r++) {
    double ref_t;
    if (!run_replay(ref_image, sched, setup, &ref_t)) return 1;
    unlink(ref_image.c_str());
    lib_run lr;
    if (!run_library(image, sec, seconds, nullptr, nullptr, &lr)) return 1;
    same &= lr.pwrites == warm.pwrites && lr.fsyncs == warm.fsyncs && lr.written == warm.written;
    ref_mbs.push_back(mb / ref_t);
    lib_mbs.push_back(mb / lr.wall);
    ratio.push_back(ref_t / lr.wall);
  }
  fs_sys.clock_gettime = real_clock;
  printf("overhead_runs: %d x %d s of 16 channels, %.0f MB, %lld blocks\n", runs, seconds, mb,
         warm.blocks);
  printf("schedule_repeated: %s\n", same ? "yes" : "NO");
  print("replay_loop", ref_mbs, "MB/s");
  print("fs_app_write", lib_mbs, "MB/s");
  print("ratio", ratio, "(replay time / library time)");
  double hour = 3600.0 / seconds;
  printf("syscalls_per_block: %.4f (%lld pwrite + %lld fsync for %lld blocks)\n",
         static_cast<double>(warm.pwrites + warm.fsyncs) / static_cast<double>(warm.blocks),
         warm.pwrites, warm.fsyncs, warm.blocks);
  printf("per_hour_pwrites: %.0f\n", static_cast<double>(warm.pwrites) * hour);
  printf("per_hour_fsyncs: %.0f\n", static_cast<double>(warm.fsyncs) * hour);
  printf("write_amplification: %.5f (bytes written per byte of payload)\n",
         static_cast<double>(warm.written) / static_cast<double>(warm.payload));
  sched.clear();
  sched.shrink_to_fit();

  // ---- 3 ----
  for (int speed : {1, 10}) {
    int secs = speed == 1 ? paced : paced * 4;
    std::vector<double> p[2][4];
    long long calls = 0;
    for (int r = 0; r < runs; r++) {
      for (int lib = 0; lib < 2; lib++) {
        paced_result pr;
        fs_app* app = nullptr;
        if (lib) {
          quiet_stderr q;
          app = open_app(image, 16);
          if (app == nullptr) return 1;
          if (!run_paced(app, image, secs, speed, &pr)) return 1;
          app->db_close();
          delete app;
        } else if (!run_paced(nullptr, ref_image, secs, speed, &pr)) {
          return 1;
        }
        unlink(ref_image.c_str());
        calls = static_cast<long long>(pr.ms.size());
        p[lib][0].push_back(pr.p50);
        p[lib][1].push_back(pr.p99);
        p[lib][2].push_back(pr.p999);
        p[lib][3].push_back(pr.max);
      }
    }
    printf("paced_%dx: %d s of capture, 4 threads, %lld write calls per run\n", speed, secs, calls);
    const char* q[4] = {"p50", "p99", "p99.9", "max"};
    for (int lib = 0; lib < 2; lib++)
      for (int i = 0; i < 4; i++) {
        char name[64];
        snprintf(name, sizeof name, "paced_%dx_%s_%s", speed, lib ? "fs_app_write" : "plain_loop",
                 q[i]);
        print(name, p[lib][i], "ms");
      }
  }
  sim::clock_release();
  std::string cmd = "rm -rf '" + root + "'";
  return system(cmd.c_str()) == 0 ? 0 : 1;
}
