// Seeded damage under the backup readers and the USB reader: block heads, frame heads
// whose lengths run past their block, minute tables, and a thousand damaged IRF files.
// Every run must end, return its status, and stay inside its buffers (run under
// AddressSanitizer and UndefinedBehaviorSanitizer).
#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>
#include <random>
#include <sstream>

#include "backup/bk_kit.h"

namespace {

using bk::block;

long long file_size(FILE* f) {
  fflush(f);
  fseeko(f, 0, SEEK_END);
  return ftello(f);
}

// Runs every backup writer over [beg, end] of channels 0-3 on a volume opened
// read-only; returns the bytes they wrote in total.
long long backup_all(int beg, int end) {
  fs_app app;
  app.set(4);
  if (app.db_open("r") < 1) return -1;
  long long bytes = 0;
  int n = app.bk_set(beg, end, 0xF);
  for (int i = 0; i < n; i++) {
    FILE* f = tmpfile();
    int started = 0;
    EXPECT_EQ(0, app.bk_irf_write(f, i, 0xF, started));
    bytes += file_size(f);
    fclose(f);
    int ftime = 0, r, files = 0;
    do {
      f = tmpfile();
      ftime = 0;
      r = app.bk_kesto_write(f, i, 0x3, ftime);
      bytes += file_size(f);
      fclose(f);
    } while (r == 1 && ++files < 100);
    EXPECT_LT(files, 100);
  }
  app.bk_over();
  app.bk_clr();
  int b[2] = {beg, beg}, e[2] = {end, end}, m[2] = {0x1, 0x4};
  n = app.bk_multi_set(b, e, m, 2);
  FILE* f = tmpfile();
  int lastkey = 0;
  for (int i = 0; i < n; i++)
    EXPECT_EQ(0, app.bk_multi_irf_write(f, i, i == 0 ? 0 : 2, lastkey, true));
  bytes += file_size(f);
  fclose(f);
  app.db_close();
  return bytes;
}

struct Damage : bk::Fixture {};

TEST_F(Damage, BackupReadersSurviveDamagedHeadsFramesAndMinuteTables) {
  start(4);
  int t0 = rec::kHour0 + 3600 - 100;  // two hours, four minutes
  std::vector<block> blocks = bk::scene(t0, 200, 4, 4, 0);
  record(blocks);
  app->db_close();
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(2u, v.size());
  long long base = backup_all(t0, t0 + 199);
  ASSERT_GT(base, 0);
  long long recorded = 0;
  for (const block& b : blocks) recorded += static_cast<long long>(b.bytes.size());

  std::string img = board->image("sda");
  std::mt19937 rng(2024);
  int changed = 0, runs = 0, kinds[3] = {0, 0, 0};
  kit::StderrCapture quiet;
  for (int it = 0; it < 48; it++) {
    const rec::hour_view& h = v[rng() % v.size()];
    const rec::minute_view& m = h.minutes[rng() % h.minutes.size()];
    size_t bi = 2 + rng() % (m.blocks.size() - 2);  // a frame block
    long long at = m.e.offset + m.offsets[bi];
    int kind = it % 3;
    kinds[kind]++;
    long long where;
    std::string patch;
    if (kind == 0) {
      // A block head: random bytes, or a size that agrees with the magic but lies.
      where = at;
      patch = kit::read_at(img, at, 288);
      int32_t time;
      memcpy(&time, &patch[12], 4);
      int32_t sizes[] = {-1, 0x7FFFFFF0, 1 << 20, static_cast<int32_t>(rng() % 100000)};
      int32_t size = sizes[rng() % 4];
      std::string d = patch;
      if (rng() % 2) {
        for (int k = 0; k < 8; k++) d[rng() % 288] = static_cast<char>(rng());
      } else {
        uint32_t magic = static_cast<uint32_t>(time) ^ static_cast<uint32_t>(size);
        memcpy(&d[4], &magic, 4);
        memcpy(&d[24], &size, 4);
        uint32_t frames = rng() % 2 ? 0xFFFFFFFF : 3;
        memcpy(&d[28], &frames, 4);
      }
      kit::write_at(img, at, d.data(), 288);
    } else if (kind == 1) {
      // A frame head inside the block: its length past the block, or its type.
      where = at + 288;
      patch = kit::read_at(img, where, 44);
      std::string d = patch;
      uint32_t lens[] = {0xFFFFFFFF, 0x7FFFFFFF, 100000, static_cast<uint32_t>(rng() % 5000)};
      uint32_t len = lens[rng() % 4];
      memcpy(&d[40], &len, 4);
      if (rng() % 3 == 0) {
        uint32_t type = rng() % 40;
        memcpy(&d[0], &type, 4);
      }
      uint32_t ch = rng() % 3 == 0 ? rng() : 1;
      memcpy(&d[4], &ch, 4);
      kit::write_at(img, where, d.data(), 44);
    } else {
      // The hour's minute table: its header or one of its entries.
      long long x = h.e.offset;
      where = x + static_cast<long long>(rng() % (16 + 324 * h.minutes.size()));
      patch = kit::read_at(img, where, 16);
      std::string d = patch;
      for (char& c : d) c = static_cast<char>(rng());
      kit::write_at(img, where, d.data(), 16);
    }
    long long got = backup_all(t0, t0 + 199);
    runs++;
    EXPECT_GE(got, 0);
    // Nothing is made up: every byte written comes from a recorded frame, plus the
    // records' own heads, at most what the undamaged run wrote per frame.
    EXPECT_LE(got, base + recorded);
    if (got != base) changed++;
    kit::write_at(img, where, patch.data(), static_cast<int>(patch.size()));
  }
  quiet.take();
  EXPECT_EQ(48, runs);
  EXPECT_EQ(16, kinds[0]);
  EXPECT_EQ(16, kinds[1]);
  EXPECT_EQ(16, kinds[2]);
  EXPECT_GT(changed, 24);                     // the damage reached what was read
  EXPECT_EQ(base, backup_all(t0, t0 + 199));  // every patch was undone
}

// An IRF file as the multi-slot writer makes one: header, then three channels' frames
// with back links to the latest key frame.
std::string sample_irf(fs_app& app, const std::string& path) {
  FILE* f = fopen(path.c_str(), "wb");
  std::string h("TOLVEX\0\0", 8);
  h.resize(4096, 'h');
  fwrite(h.data(), 1, h.size(), f);
  int key = -1;
  for (int i = 0; i < 60; i++) {
    bk::frame fr = bk::make_frame(i % 6 == 0 ? 0 : i % 6 == 3 ? 2 : 1, i % 3, 2, 50 + i * 13, i);
    frame_head_t fh;
    memcpy(&fh, fr.w, 44);
    int pos = static_cast<int>(ftell(f));
    app.bk_irf_write_frame(f, &fh, fr.data.data(), key);
    if (fr.w[0] == 0) key = pos;
  }
  fclose(f);
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(DamagedIrf, TheUsbReaderStaysInsideEveryDamagedFile) {
  kit::TempDir dir;
  fs_app app;
  std::string path = dir / "d.irf";
  std::string good = sample_irf(app, path);
  std::mt19937 rng(7);
  int files = 0, rejected = 0, complete = 0, short_walks = 0, back_walks = 0;
  std::vector<char> data;
  for (int it = 0; it < 1200; it++) {
    std::string d = good;
    int kind = it % 6;
    if (kind == 0) {
      d.resize(rng() % d.size());  // truncated anywhere
    } else if (kind == 1) {
      for (int k = 0; k < 1 + static_cast<int>(rng() % 8); k++)
        d[rng() % d.size()] = static_cast<char>(rng());
    } else {
      // A field of one record: its sync, length, link or kind.
      size_t rec = 4096;
      int skip = static_cast<int>(rng() % 60);
      for (int k = 0; k < skip; k++) {
        uint32_t n;
        memcpy(&n, &d[rec + 20], 4);
        rec += 68 + n;
      }
      uint32_t vals[] = {0xFFFFFFFF,
                         0x7FFFFFFF,
                         static_cast<uint32_t>(rng()),
                         static_cast<uint32_t>(rec),
                         static_cast<uint32_t>(d.size() + 10),
                         102401,
                         0};
      uint32_t val = vals[rng() % 7];
      size_t field = kind == 2 ? 0 : kind == 3 ? 20 : kind == 4 ? 52 : 40;
      memcpy(&d[rec + field], &val, 4);
    }
    std::ofstream(path, std::ios::binary | std::ios::trunc) << d;
    files++;
    ASSERT_EQ(1, app.usb_open_irf(path.c_str()));
    if (app.usb_check_irf_header(app.usb_f) != 1) {
      rejected++;
      continue;
    }
    int size = 0;
    app.usb_reset_irf(size);
    ASSERT_EQ(static_cast<int>(d.size()), size);
    // Forwards, as a player would: a record whose data would run past the end of the
    // file is where the walk stops.
    int n = 0;
    bool cut = false;
    for (;;) {
      long pos = app.usb_irf_position();
      irf_frame_rec_t* r = app.usb_read_video_header(0);
      if (r->len == 0 && r->kind == 0) break;
      if (static_cast<long long>(r->len) > size - pos - 68) {
        cut = true;
        break;
      }
      data.resize(r->len + 1);
      app.usb_read_video_data(data.data(), static_cast<int>(r->len));
      ASSERT_LE(++n, size / 68);
    }
    if (!cut && n == 60) complete++;
    if (n < 60) short_walks++;
    // Backwards from where it stopped: the chain of a damaged file may loop, so the
    // player bounds its steps by the records a file of this size can hold.
    for (int s = 0; s < size / 68 + 1; s++) {
      irf_frame_rec_t* r = app.usb_read_video_header(-1);
      if (r->len == 0 && r->kind == 0) break;
      back_walks++;
      if (static_cast<long long>(r->len) > size) break;
      data.resize(r->len + 1);
      app.usb_read_video_data(data.data(), static_cast<int>(r->len));
    }
  }
  app.usb_close_irf();
  EXPECT_EQ(1200, files);
  EXPECT_GT(rejected, 0);       // damage inside the header's first 8 bytes
  EXPECT_GT(complete, 100);     // damage elsewhere (data bytes, links) reads through
  EXPECT_GT(short_walks, 300);  // truncations and broken syncs or lengths stop early
  EXPECT_GT(back_walks, 0);
}

}  // namespace
