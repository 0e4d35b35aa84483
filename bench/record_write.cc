// The write path (fs_app::write) recording 16 channels (main ~4 Mbit/s, substream
// ~512 kbit/s, audio) across minute boundaries, against a plain positioned-write loop of
// the same block bytes on the same kind of image, in one run.
//
//   bench_record_write [SECONDS]   simulated seconds to record (default 150)
#include <fcntl.h>
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/capture.h"

namespace {

double now_s() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double cpu_s() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Restamps a block for another tick: time and magic only, as the capture side would.
void restamp(std::string& b, int t) {
  head_t h;
  memcpy(&h, b.data(), sizeof h);
  h.time = t;
  h.magic = static_cast<uint32_t>(t) ^ static_cast<uint32_t>(h.size);
  memcpy(&b[0], &h, sizeof h);
}

// Positioned-write reference: the same bytes, back to back, on a fresh sparse image of
// the same size, made durable at the end as the write path's closing flush makes its own.
bool raw_run(const std::string& image, long long disk, std::vector<std::vector<std::string>>& ticks,
             int start, int seconds, double* wall, double* cpu, long long* bytes,
             long long* nblocks) {
  unlink(image.c_str());
  int fd = open(image.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(disk)) != 0) return false;
  long long off = 0x800000;
  *bytes = 0;
  *nblocks = 0;
  double c0 = cpu_s(), t0 = now_s();
  for (int s = 0; s < seconds; s++) {
    for (auto& t : ticks) {
      for (std::string& b : t) {
        restamp(b, start + s);
        if (pwrite(fd, b.data(), b.size(), static_cast<off_t>(off)) !=
            static_cast<ssize_t>(b.size()))
          return false;
        off += static_cast<long long>(b.size());
        *bytes += static_cast<long long>(b.size());
        (*nblocks)++;
      }
    }
  }
  fsync(fd);
  *wall = now_s() - t0;
  *cpu = cpu_s() - c0;
  close(fd);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = argc > 1 ? atoi(argv[1]) : 150;
  if (seconds < 1) seconds = 150;
  char tmpl[] = "/tmp/ringrec-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  std::string root = tmpl;
  const long long disk = 4LL << 30;
  std::string err;
  if (sim::board_create(root, {{"sda", disk, "BENCH", false}, {"sdb", disk, "BENCH", false}},
                        &err) != 0) {
    fprintf(stderr, "%s\n", err.c_str());
    return 1;
  }
  setenv("RINGREC_ROOT", root.c_str(), 1);

  // One second of capture (5 ticks of 200 ms), reused with new time stamps.
  sim::capture_spec shape;
  shape.channels = 16;
  shape.main_kbps = 4000;
  shape.sub_kbps = 512;
  shape.block_ms = 200;
  sim::capture cap;
  const int start = 1700000000 - 1700000000 % 3600 + 3600 - 20;
  if (cap.open(shape, start * 1000LL, &err) != 0) return 1;
  std::vector<std::vector<std::string>> ticks(5);
  for (auto& t : ticks) cap.next(t);

  // The write path on sda.
  // The reference runs before and after the write path, on a fresh image each time, so
  // that neither side profits from the order (page cache, write-back of the other run).
  double raw_t1, raw_c1, raw_t2, raw_c2;
  long long bytes = 0, nblocks = 0;
  const std::string ref_image = root + "/dev/sdb";
  if (!raw_run(ref_image, disk, ticks, start, seconds, &raw_t1, &raw_c1, &bytes, &nblocks))
    return 1;

  fs_app* app = new fs_app();
  // The library reports every new minute entry on stderr; keep the figures readable.
  int quiet = open("/dev/null", O_WRONLY);
  int saved = dup(2);
  dup2(quiet, 2);
  app->set(16);
  if (app->db_open("w") < 1 || app->db_format(0) != 0) return 1;
  app->db_set(1, "RDONLY");
  sim::clock_follow();
  double c0 = cpu_s(), t0 = now_s();
  long long failed = 0;
  for (int s = 0; s < seconds; s++) {
    sim::clock_set(start + s);
    for (auto& t : ticks) {
      for (std::string& b : t) {
        restamp(b, start + s);
        if (app->write(start + s, static_cast<int>(b.size()), b.data()) != 0) failed++;
      }
    }
  }
  app->flush();
  double app_t = now_s() - t0, app_cpu = cpu_s() - c0;
  app->db_close();
  delete app;
  sim::clock_release();
  dup2(saved, 2);
  if (!raw_run(ref_image, disk, ticks, start, seconds, &raw_t2, &raw_c2, &bytes, &nblocks))
    return 1;
  double raw_t = (raw_t1 + raw_t2) / 2, raw_cpu = (raw_c1 + raw_c2) / 2;

  double mb = static_cast<double>(bytes) / 1048576.0;
  printf("blocks: %lld (%d s of 16 channels, %.0f MB)\n", nblocks, seconds, mb);
  printf("pwrite_loop: %.1f MB/s\n", mb / raw_t);
  printf("fs_app_write: %.1f MB/s\n", mb / app_t);
  printf("ratio: %.3f\n", raw_t / app_t);
  printf("cpu_pwrite_loop: %.1f us/block\n", raw_cpu * 1e6 / static_cast<double>(nblocks));
  printf("cpu_fs_app_write: %.1f us/block\n", app_cpu * 1e6 / static_cast<double>(nblocks));
  printf("failed_writes: %lld\n", failed);
  std::string cmd = "rm -rf '" + root + "'";
  return system(cmd.c_str()) == 0 && failed == 0 ? 0 : 1;
}
