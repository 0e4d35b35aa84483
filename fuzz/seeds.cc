// Writes the seed corpora: a small volume recorded by the service from the capture
// simulator (one channel, low bit rates, across a minute and an hour boundary), cut into
// the fuzz_volume pieces, and the data of each of its closed minutes for fuzz_minute.
//
//   fuzz_seeds DIR   writes DIR/volume/recorded and DIR/minute/minute-N
#include <fcntl.h>
#include <ringrec/fs_app.h>
#include <sys/stat.h>

#include "image.h"
#include "sim/board.h"
#include "sim/capture.h"

namespace {

std::string read_at(const std::string& path, long long off, size_t n) {
  std::string b(n, '\0');
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0 || pread(fd, &b[0], n, off) != static_cast<ssize_t>(n)) abort();
  close(fd);
  return b;
}

void put(const std::string& path, const std::string& bytes) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) abort();
  fclose(f);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fuzz_seeds DIR\n");
    return 2;
  }
  std::string out = argv[1];
  mkdir((out + "/volume").c_str(), 0755);
  mkdir((out + "/minute").c_str(), 0755);
  char tmpl[] = "/tmp/ringrec-seeds-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  std::string root = tmpl, err;
  if (sim::board_create(root, {{"sda", fuzz::kDevice, "SEED", false}}, &err) != 0) return 1;
  setenv("RINGREC_ROOT", root.c_str(), 1);
  const int start = 1699999200 + 3600 - 70;  // a minute and an hour boundary ahead
  sim::clock_follow();
  sim::clock_set(start);
  fs_app app;
  app.set(1);
  app.db_open("w");
  if (app.db_format(0) != 0) return 1;
  sim::capture_spec s;
  s.channels = 1;
  s.fps = 5;
  s.gop = 5;
  s.main_kbps = 8;
  s.sub_kbps = 4;
  s.block_ms = 1000;
  s.main_w = 352;
  s.main_h = 288;
  s.sub_w = 176;
  s.sub_h = 144;
  sim::capture cap;
  if (cap.open(s, start * 1000LL, &err) != 0) return 1;
  std::vector<std::string> blocks;
  while (cap.now_ms() < (start + 140) * 1000LL) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    for (const std::string& b : blocks) app.write(cap.time(), static_cast<int>(b.size()), b.data());
  }
  app.flush();
  app.db_close();
  sim::clock_release();

  const std::string img = root + "/dev/sda";
  std::string v = read_at(img, 0, 36) + read_at(img, 0x400000, 4096) +
                  read_at(img, 0x800000, 8192) + read_at(img, 0xC00000, 8192) +
                  read_at(img, 0x1000000, 8192);
  put(out + "/volume/recorded", v);

  // Each closed minute: every minute entry of every hour but the last one written.
  fs_db d;
  if (d.open(0, "/dev/sda", "r") != 0) return 1;  // through RINGREC_ROOT
  entryX_t r;
  d.x_read(0, r);
  int n = 0;
  for (int i = 0; i < r.num; i++) {
    entry_t h;
    entryX_t x;
    if (d.e_read(r, i, h) != 0 || d.x_read(h.offset, x) != 0) continue;
    for (int j = 0; j < x.num; j++) {
      entry_t m;
      if (d.e_read(x, j, m) != 0 || m.size <= 0) continue;
      std::string b(static_cast<size_t>(m.size), '\0');
      if (d.d_read(m, 0, m.size, &b[0]) != 0) continue;
      put(out + "/minute/minute-" + std::to_string(n++), b);
    }
  }
  d.close();
  std::string cmd = "rm -rf '" + root + "'";
  return system(cmd.c_str()) == 0 && n > 0 ? 0 : 1;
}
