// d_write of 256 KiB blocks into one growing entry, against a plain positioned-write
// loop of the same bytes at the same offsets on the same kind of image. Both end with
// their data made durable (the volume's closing e_flush syncs; the loop calls fsync),
// and each runs on a fresh sparse image. Prints rates in MB/s and their ratio.
//
//   bench_d_write [total MiB, default 1024] [rounds, default 2]
#include <fcntl.h>
#include <ringrec/fs_db.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

const int kBlock = 256 * 1024;

std::string image_path(const char* tag) {
  const char* dir = getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/ringrec-bench-" + tag + "-" +
         std::to_string(getpid());
}

bool make_sparse(const std::string& path, long long bytes) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  bool ok = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  ::close(fd);
  return ok;
}

double seconds_since(const timespec& t0) {
  timespec t1;
  clock_gettime(CLOCK_MONOTONIC, &t1);
  return static_cast<double>(t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
}

// The volume path: format, one hour table, one minute entry, then the blocks.
// Returns seconds, and the absolute offsets written in *offsets.
double run_volume(const std::string& img, long long image_bytes, long long total,
                  const std::vector<char>& block, std::vector<long long>* offsets) {
  if (!make_sparse(img, image_bytes)) return -1;
  fs_db db;
  // No volume yet: open the device only, then format it.
  if (db.io->open(img.c_str(), "w") != 0 || db.format() != 0 ||
      db.f_create(0, 1, "HOUR_0:00") != 0 || db.f_create(5, 2, "HOUR_0:00", "MIN_00:00") != 0)
    return -1;
  entry_t e;
  if (db.f_open(e, 2, "HOUR_0:00", "MIN_00:00") != 0) return -1;
  long long region = e.offset;
  offsets->clear();
  timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  for (long long off = 0; off < total; off += kBlock) {
    if (db.d_write(e, static_cast<int>(off), kBlock, block.data()) != 0) return -1;
    offsets->push_back(region + off);
  }
  if (db.e_flush(e) != 0) return -1;
  double s = seconds_since(t0);
  db.close();
  return s;
}

double run_pwrite(const std::string& img, long long image_bytes,
                  const std::vector<long long>& offsets, const std::vector<char>& block) {
  if (!make_sparse(img, image_bytes)) return -1;
  int fd = ::open(img.c_str(), O_RDWR);
  if (fd < 0) return -1;
  timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  for (long long off : offsets)
    if (pwrite(fd, block.data(), kBlock, static_cast<off_t>(off)) != kBlock) return -1;
  fsync(fd);
  double s = seconds_since(t0);
  ::close(fd);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  long long total = (argc > 1 ? atoll(argv[1]) : 1024) << 20;
  int rounds = argc > 2 ? atoi(argv[2]) : 2;
  // Room for the data, the 256 MiB growth steps and the 12 MiB outside the ring.
  long long image_bytes = total + (1LL << 30);
  std::vector<char> block(kBlock);
  for (int i = 0; i < kBlock; i++) block[i] = static_cast<char>(i * 31 + 7);

  std::string vimg = image_path("volume"), pimg = image_path("pwrite");
  std::vector<long long> offsets;
  double best_v = 0, best_p = 0;
  // The offsets of the loop come from the first volume run; afterwards the two
  // alternate which goes first, so neither always meets the page cache as the other
  // left it.
  if (run_volume(vimg, image_bytes, total, block, &offsets) <= 0) {
    fprintf(stderr, "bench_d_write: volume run failed (image %s)\n", vimg.c_str());
    return 1;
  }
  unlink(vimg.c_str());
  for (int r = 0; r < rounds; r++) {
    double v, p;
    if (r % 2 == 0) {
      p = run_pwrite(pimg, image_bytes, offsets, block);
      unlink(pimg.c_str());
      v = run_volume(vimg, image_bytes, total, block, &offsets);
      unlink(vimg.c_str());
    } else {
      v = run_volume(vimg, image_bytes, total, block, &offsets);
      unlink(vimg.c_str());
      p = run_pwrite(pimg, image_bytes, offsets, block);
      unlink(pimg.c_str());
    }
    if (v <= 0 || p <= 0) {
      fprintf(stderr, "bench_d_write: a run failed (image in %s)\n", vimg.c_str());
      return 1;
    }
    if (best_v == 0 || v < best_v) best_v = v;
    if (best_p == 0 || p < best_p) best_p = p;
  }
  double mb = static_cast<double>(total) / 1e6;
  printf("d_write: %.1f MB/s\n", mb / best_v);
  printf("pwrite: %.1f MB/s\n", mb / best_p);
  printf("ratio: %.3f\n", best_p / best_v);
  return 0;
}
