// MP4 export throughput: one hour of channel 1 of a 16-channel recording (real x264
// main and substreams with ADPCM audio, through the capture simulator and the write
// path) exported two-phase and single-pass, and all 16 channels exported at once by the
// calls that read each stored block once, against
//   (a) the limit: a plain pread loop over the same stored bytes (every block of the
//       hour, since blocks mix the channels) plus writing the export's output bytes
//       through fwrite, and
//   (b) `ffmpeg -f h264 -i ES -c copy OUT.mp4` of the channel's elementary stream.
// Five interleaved runs of each; medians with their spread (min..max). Positioned
// reads are counted through the system-call table.
//
//   bench_export [MINUTES] [DIR]   recording length (default 60: the 16-channel hour,
//                                  about 7 GB of stored blocks)
// DIR (default out/bench-export) keeps the simulated board, the encoded streams and the
// channel's elementary stream: building the hour takes minutes, so it is built once and
// reused while DIR/complete names the same shape. Outputs go to DIR/work, removed after.
#include <fcntl.h>
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_kit.h"
#include "sim/board.h"
#include "sim/capture.h"

namespace {

using bench::counting_pread;
using bench::now_s;
using bench::stat_t;
long long& g_preads = bench::counts().reads;
long long& g_pread_bytes = bench::counts().bytes;
long long (*&g_real_pread)(int, void*, int, long long) = bench::counts().real;

const int kStart = 1709287200;  // 2024-03-01 10:00:00 UTC

double two_phase(fs_app& app, const std::string& dir, int end, long long* out_bytes) {
  std::vector<char> plan(1 << 20, '\0');
  double t0 = now_s();
  app.bk_phase_one(dir.c_str(), kStart, end, 0x1, plan.data());
  *out_bytes = 0;
  for (const char* p = plan.data(); *p;) {
    char name[128];
    int ch, size, item, entry, off, t;
    if (sscanf(p, "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off, &t) != 7) break;
    FILE* f = fopen((dir + "/two.m4v").c_str(), "wb");
    *out_bytes += app.bk_phase_two(f, name, ch, size, item, entry, off);
    fclose(f);
    const char* nl = strchr(p, '\n');
    if (!nl) break;
    p = nl + 1;
  }
  app.bk_over();
  app.bk_clr();
  return now_s() - t0;
}

double single_pass(fs_app& app, const std::string& dir, int end, long long* out_bytes) {
  double t0 = now_s();
  int b = kStart, e = end, m = 1;
  int items = app.bk_multi_set(&b, &e, &m, 1);
  FILE* f = fopen((dir + "/one.m4v").c_str(), "wb");
  int t = 0;
  unsigned w = 0, h = 0, fps = 0, box = 0, data = 0;
  *out_bytes = 0;
  for (int i = 0; i < items; i++) {
    while (app.bk_multi_m4v_write(f, i, 0, t, w, h, fps, true) == 1) {
      app.bk_multi_m4v_close(f, box, data);
      *out_bytes += box + data + 32;
      rewind(f);
    }
  }
  app.bk_multi_m4v_close(f, box, data);
  *out_bytes += box + data + 32;
  fclose(f);
  free(app.bk_multi_state.items);
  memset(&app.bk_multi_state, 0, sizeof app.bk_multi_state);
  return now_s() - t0;
}

// Every channel of mask at once: planning in one walk of each hour, then the files of
// each hour written from one walk of it.
double two_phase_all(fs_app& app, const std::string& dir, int end, int mask, long long* out_bytes) {
  std::vector<char> plan(1 << 20, '\0');
  double t0 = now_s();
  app.bk_phase_one_channels(dir.c_str(), kStart, end, mask, plan.data(), false);
  std::vector<bk_plan_file_t> files;
  for (const char* p = plan.data(); *p;) {
    char name[128];
    int ch, size, item, entry, off, t;
    if (sscanf(p, "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off, &t) != 7) break;
    std::string path = dir + "/two_" + std::to_string(files.size()) + ".m4v";
    files.push_back({fopen(path.c_str(), "wb"), ch, size, item, entry, off, 0});
    const char* nl = strchr(p, '\n');
    if (!nl) break;
    p = nl + 1;
  }
  app.bk_phase_two_files(files.data(), static_cast<int>(files.size()), false);
  *out_bytes = 0;
  for (bk_plan_file_t& f : files) {
    *out_bytes += f.result;
    fclose(f.out);
  }
  app.bk_over();
  app.bk_clr();
  return now_s() - t0;
}

long long g_multi_bytes = 0;
FILE* multi_done(void* ctx, int k, FILE* f, unsigned pos, unsigned size, bool more) {
  (void)ctx;
  (void)k;
  if (size != 0) {
    fs_app::bk_set_mdat_size(f, size);
    g_multi_bytes += pos + size + 32;
  }
  if (!more) {
    fclose(f);
    return nullptr;
  }
  rewind(f);
  return f;
}

double single_pass_all(fs_app& app, const std::string& dir, int end, int mask,
                       long long* out_bytes) {
  double t0 = now_s();
  int items = app.bk_set(kStart, end, mask);
  g_multi_bytes = 0;
  for (int i = 0; i < items; i++) {
    int chs[32], times[32], results[32], n = 0;
    unsigned w[32], h[32], fps[32];
    FILE* outs[32];
    for (int ch = 0; ch < 32; ch++)
      if (mask >> ch & 1) {
        chs[n] = ch;
        outs[n] = fopen((dir + "/one_" + std::to_string(ch) + ".m4v").c_str(), "w+b");
        n++;
      }
    app.bk_write_channels(i, n, chs, outs, times, w, h, fps, results, multi_done, nullptr);
  }
  *out_bytes = g_multi_bytes;
  app.bk_over();
  app.bk_clr();
  return now_s() - t0;
}

// Writing `bytes` of output as the writers hand them to stdio: in frame-sized pieces
// (4 KiB) through fwrite, to a file of the same directory that, like the export's own
// files, holds the previous run's bytes of the same size.
double write_loop(const std::string& path, long long bytes) {
  std::vector<char> buf(4096, 'x');
  double t0 = now_s();
  FILE* f = fopen(path.c_str(), "wb");
  for (long long done = 0; done < bytes; done += static_cast<long long>(buf.size()))
    fwrite(buf.data(), 1, buf.size(), f);
  fclose(f);
  return now_s() - t0;
}

// The library's own block reader alone over the same selection, nothing muxed: how
// much of an export is reading.
double bk_read_loop(fs_app& app, int end) {
  double t0 = now_s();
  int items = app.bk_set(kStart, end, 0x1);
  q_t q;
  q.max = 0x80000;
  q.buf = static_cast<unsigned char*>(malloc(static_cast<size_t>(q.max)));
  for (int i = 0; i < items; i++) {
    bk_item_t& it = app.bk_state.items[i];
    for (int j = it.e.idx; j < it.x.num; j++) {
      entry_t e;
      if (it.db->e_read(it.x, j, e) != 0) break;
      int off = 0;
      head_t h;
      for (;;) {
        if (off + 288 > e.size) break;
        int r = app.bk_read(0, it.db, e, off, h, &q);
        if (r < 0) break;
        if (r == 1) off += 296 + h.size;
      }
    }
  }
  free(q.buf);
  app.bk_clr();
  return now_s() - t0;
}

// Region of each minute entry of the recording: device offset and used bytes.
struct region {
  long long off;
  int size;
};

std::vector<region> minute_regions(const std::string& dev) {
  std::vector<region> out;
  fs_db db;
  if (db.open(0, dev.c_str(), "r") != 0) return out;
  entryX_t root;
  if (db.x_read(0, root) != 0) return out;
  for (int i = 0; i < root.num; i++) {
    entry_t h;
    entryX_t x;
    if (db.e_read(root, i, h) != 0 || db.x_read(h.offset, x) != 0) continue;
    for (int j = 0; j < x.num; j++) {
      entry_t m;
      if (db.e_read(x, j, m) == 0) out.push_back({m.offset, m.size});
    }
  }
  db.close();
  return out;
}

double pread_loop(const std::string& image, const std::vector<region>& regions, long long* bytes) {
  std::vector<char> buf(0x80000);
  double t0 = now_s();
  int fd = open(image.c_str(), O_RDONLY);
  *bytes = 0;
  for (const region& r : regions) {
    for (long long done = 0; done < r.size;) {
      long long n = std::min<long long>(static_cast<long long>(buf.size()), r.size - done);
      g_preads++;
      long long got = pread(fd, buf.data(), static_cast<size_t>(n), r.off + done);
      if (got <= 0) break;
      done += got;
      *bytes += got;
    }
  }
  close(fd);
  return now_s() - t0;
}

std::string export_shape(int minutes) {
  return "16 channels, 768+128 kbit/s x264, ADPCM, 200 ms blocks, " + std::to_string(minutes) +
         " min, v1";
}

// The recording's shape and its stored bytes and build time, as DIR/complete holds them;
// false when DIR holds no finished recording of that shape.
bool built_as(const std::string& dir, const std::string& shape, long long* stored, double* rec_s) {
  FILE* f = fopen((dir + "/complete").c_str(), "r");
  if (f == nullptr) return false;
  char line[256] = {0};
  bool same = fgets(line, sizeof line, f) != nullptr && shape + "\n" == line &&
              fscanf(f, "%lld %lf", stored, rec_s) == 2;
  fclose(f);
  return same;
}

// Records MINUTES of 16 channels (real x264 main and substreams looped, ADPCM sound) into
// a fresh board in DIR, keeps channel 1's elementary stream as recorded in DIR/ch01.264
// and leaves DIR/complete last.
bool build(const std::string& dir, int minutes, long long* stored, double* rec_s) {
  if (system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()) != 0) return false;
  std::string root = dir + "/board";
  std::string main_es = dir + "/main.264", sub_es = dir + "/sub.264";
  std::string enc =
      "ffmpeg -v error -y -f lavfi -i testsrc2=size=%s:rate=25 -t 10 -pix_fmt yuv420p "
      "-c:v libx264 -preset ultrafast -b:v %s -bf 0 -g 25 "
      "-x264-params repeat-headers=1:slices=1 -f h264 %s";
  char cmd[512];
  snprintf(cmd, sizeof cmd, enc.c_str(), "640x360", "768k", main_es.c_str());
  int rc1 = system(cmd);
  snprintf(cmd, sizeof cmd, enc.c_str(), "320x180", "128k", sub_es.c_str());
  if (rc1 != 0 || system(cmd) != 0) {
    fprintf(stderr, "bench_export: ffmpeg with libx264 is needed (apt-get install ffmpeg)\n");
    return false;
  }
  std::string err;
  long long disk = 16LL << 30;  // sparse: only the recorded blocks take room
  if (sim::board_create(root, {{"sda", disk, "BENCH", false}}, &err) != 0) {
    fprintf(stderr, "bench_export: %s\n", err.c_str());
    return false;
  }
  setenv("RINGREC_ROOT", root.c_str(), 1);
  sim::capture_spec shape;
  shape.channels = 16;
  shape.fps = 25;
  shape.block_ms = 200;
  shape.main_input = main_es;
  shape.sub_input = sub_es;
  shape.main_w = 640;
  shape.main_h = 360;
  shape.sub_w = 320;
  shape.sub_h = 180;
  sim::capture cap;
  if (cap.open(shape, kStart * 1000LL, &err) != 0) {
    fprintf(stderr, "bench_export: %s\n", err.c_str());
    return false;
  }
  fs_app* app = new fs_app();
  app->set(16);
  if (app->db_open("w") < 1 || app->db_format(0) != 0) return false;
  sim::clock_follow();
  std::vector<std::string> blocks;
  std::string ch0;  // the channel's elementary stream, as recorded
  long long failed = 0;
  *stored = 0;
  double r0 = now_s();
  while (cap.now_ms() < (kStart + minutes * 60LL) * 1000LL) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    for (const std::string& b : blocks) {
      if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) != 0) failed++;
      *stored += static_cast<long long>(b.size());
      head_t h;
      memcpy(&h, b.data(), sizeof h);
      if (h.stream != 2) continue;
      for (size_t pos = 288; pos + 44 <= 288 + static_cast<size_t>(h.size);) {
        frame_head_t f;
        memcpy(&f, b.data() + pos, sizeof f);
        if (f.ch == 0 && (f.type == 0 || f.type == 1)) ch0.append(b, pos + 44, f.len);
        pos += 44 + f.len;
      }
    }
  }
  app->flush();
  *rec_s = now_s() - r0;
  sim::clock_release();
  app->db_close();
  delete app;
  if (failed != 0) return false;
  FILE* f = fopen((dir + "/ch01.264").c_str(), "wb");
  if (f == nullptr || fwrite(ch0.data(), 1, ch0.size(), f) != ch0.size() || fclose(f) != 0)
    return false;
  f = fopen((dir + "/complete").c_str(), "w");
  if (f == nullptr) return false;
  fprintf(f, "%s\n%lld %.1f\n", export_shape(minutes).c_str(), *stored, *rec_s);
  return fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  int minutes = argc > 1 ? atoi(argv[1]) : 60;
  if (minutes < 1 || minutes > 60) minutes = 60;
  std::string base = argc > 2 ? argv[2] : "out/bench-export";
  mkdir("out", 0755);
  std::string root = base + "/board", es = base + "/ch01.264";
  // The library's diagnostics would dominate the terminal: kept in a file.
  std::string dir = base + "/work";
  long long stored = 0;
  double rec_s = 0;
  bool cached = built_as(base, export_shape(minutes), &stored, &rec_s);
  if (!cached) {
    printf("building %s in %s\n", export_shape(minutes).c_str(), base.c_str());
    fflush(stdout);
    // The writer's lines of the build go to a file beside DIR.
    fflush(stderr);
    int keep = dup(2);
    int bl = open((base + ".build.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(bl, 2);
    close(bl);
    bool ok = build(base, minutes, &stored, &rec_s);
    fflush(stderr);
    dup2(keep, 2);
    close(keep);
    if (!ok) {
      fprintf(stderr, "bench_export: building the recording failed\n");
      return 1;
    }
  }
  if (system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()) != 0) return 1;
  setenv("RINGREC_ROOT", root.c_str(), 1);
  std::string log = dir + "/library.log";
  fflush(stderr);
  int saved = dup(2);
  int lf = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(lf, 2);
  close(lf);
  fs_app* app = new fs_app();
  app->set(16);
  if (app->db_open("r") < 1) return 1;
  int end = kStart + minutes * 60 - 1;
  audtype = 2;
  std::vector<region> regions = minute_regions("/dev/sda");

  g_real_pread = fs_sys.pread;
  fs_sys.pread = counting_pread;
  stat_t two, one, loop, ff, bkr, lim, lim16, two16, one16;
  long long two_bytes = 0, one_bytes = 0, loop_bytes = 0, two16_bytes = 0, one16_bytes = 0;
  long long two_reads = 0, one_reads = 0, loop_reads = 0;
  long long two_rb = 0, one_rb = 0, two16_rb = 0, one16_rb = 0;
  std::string ref = dir + "/ffmpeg.mp4";
  for (int run = 0; run < 5; run++) {
    g_preads = g_pread_bytes = 0;
    two.v.push_back(two_phase(*app, dir, end, &two_bytes));
    two_reads = g_preads;
    two_rb = g_pread_bytes;
    g_preads = g_pread_bytes = 0;
    one.v.push_back(single_pass(*app, dir, end, &one_bytes));
    one_reads = g_preads;
    one_rb = g_pread_bytes;
    g_preads = g_pread_bytes = 0;
    two16.v.push_back(two_phase_all(*app, dir, end, 0xFFFF, &two16_bytes));
    two16_rb = g_pread_bytes;
    g_preads = g_pread_bytes = 0;
    one16.v.push_back(single_pass_all(*app, dir, end, 0xFFFF, &one16_bytes));
    one16_rb = g_pread_bytes;
    g_preads = 0;
    double rd = pread_loop(root + "/dev/sda", regions, &loop_bytes);
    loop.v.push_back(rd);
    loop_reads = g_preads;
    lim.v.push_back(rd + write_loop(dir + "/limit1.out", std::max(two_bytes, one_bytes)));
    lim16.v.push_back(rd + write_loop(dir + "/limit16.out", std::max(two16_bytes, one16_bytes)));
    bkr.v.push_back(bk_read_loop(*app, end));
    double t0 = now_s();
    if (system(("ffmpeg -v error -y -f h264 -i " + es + " -c copy " + ref).c_str()) != 0) return 1;
    ff.v.push_back(now_s() - t0);
  }
  fs_sys.pread = g_real_pread;
  app->db_close();
  delete app;
  fflush(stderr);
  dup2(saved, 2);
  close(saved);

  double mb = loop_bytes / 1048576.0, es_mb = 0;
  {
    FILE* e = fopen(es.c_str(), "rb");
    fseek(e, 0, SEEK_END);
    es_mb = ftell(e) / 1048576.0;
    fclose(e);
  }
  printf("recording: %d min, 16 channels, %.1f MB stored in %.1f s%s\n", minutes,
         stored / 1048576.0, rec_s, cached ? " (built earlier)" : "");
  printf("channel 1: %.1f MB elementary stream; MP4 two-phase %.1f MB, single-pass %.1f MB\n",
         es_mb, two_bytes / 1048576.0, one_bytes / 1048576.0);
  auto line = [&](const char* name, const stat_t& s, double units) {
    printf("%s: %.1f MB/s (median of 5, %.2f s; spread %.2f..%.2f s)\n", name, units / s.median(),
           s.median(), s.lo(), s.hi());
  };
  line("two_phase_stored", two, mb);
  line("single_pass_stored", one, mb);
  line("pread_loop_stored", loop, mb);
  line("bk_read_loop_stored", bkr, mb);
  line("ffmpeg_copy_stream", ff, es_mb);
  line("two_phase_16ch_stored", two16, mb);
  line("single_pass_16ch_stored", one16, mb);
  printf("preads: two-phase %lld, single-pass %lld, pread loop %lld (%.1f MB)\n", two_reads,
         one_reads, loop_reads, mb);
  printf("limit: %.2f s (spread %.2f..%.2f s; 16ch %.2f s)\n", lim.median(), lim.lo(), lim.hi(),
         lim16.median());
  printf("ratio_limit: two-phase %.2f, single-pass %.2f\n", lim.median() / two.median(),
         lim.median() / one.median());
  printf("ratio_limit_16ch: two-phase %.2f, single-pass %.2f\n", lim16.median() / two16.median(),
         lim16.median() / one16.median());
  double st = static_cast<double>(loop_bytes);
  printf(
      "bytes_read_per_stored_byte: two-phase %.3f, single-pass %.3f, 16ch-two-phase %.3f, "
      "16ch-single-pass %.3f\n",
      two_rb / st, one_rb / st, two16_rb / st, one16_rb / st);
  printf("ratio_ffmpeg: two-phase %.2f, single-pass %.2f (same channel, wall time)\n",
         ff.median() / two.median(), ff.median() / one.median());
  // The outputs go; the recording stays for the next run.
  if (system(("rm -rf '" + dir + "'").c_str()) != 0) return 1;
  return 0;
}
