#include "kit/recorder.h"

#include <gtest/gtest.h>
#include <string.h>

namespace rec {

sim::capture_spec small_spec(int channels) {
  sim::capture_spec s;
  s.channels = channels;
  s.fps = 5;
  s.gop = 5;
  s.main_kbps = 32;
  s.sub_kbps = 8;
  s.block_ms = 1000;
  s.main_w = 352;
  s.main_h = 288;
  s.sub_w = 176;
  s.sub_h = 144;
  return s;
}

void format_all(fs_app& app) {
  for (int i = 0; i < app.g_db_num(); i++) ASSERT_EQ(0, app.db_format(i));
}

int open_formatted(fs_app& app, int channels) {
  app.set(channels);
  int n = app.db_open("w");
  format_all(app);
  return n;
}

std::vector<written> record(fs_app& app, sim::capture& cap, int seconds, bool expect_ok) {
  std::vector<written> out;
  std::vector<std::string> blocks;
  long long end = cap.now_ms() + seconds * 1000LL;
  while (cap.now_ms() < end) {
    cap.next(blocks);
    kit::FakeClock::wall = cap.time();
    kit::FakeClock::mono_ms += cap.shape().block_ms;
    for (const std::string& b : blocks) {
      int r = app.write(cap.time(), static_cast<int>(b.size()), b.data());
      if (expect_ok) {
        EXPECT_EQ(0, r) << "block at " << cap.time();
      }
      if (r == 0) out.push_back({cap.time(), b});
    }
  }
  return out;
}

head_t head_of(const std::string& block) {
  head_t h;
  memset(&h, 0, sizeof h);
  memcpy(&h, block.data(), std::min(block.size(), sizeof h));
  return h;
}

namespace {
template <typename T>
T field(const entry_t& e, size_t off) {
  T v;
  memcpy(&v, reinterpret_cast<const unsigned char*>(&e) + off, sizeof v);
  return v;
}
}  // namespace

uint64_t mask_of(const entry_t& e) { return field<uint64_t>(e, 72); }
uint32_t events_of(const entry_t& e) { return field<uint32_t>(e, 80); }
int32_t count_of(const entry_t& e, int ch) {
  return field<int32_t>(e, 84 + 4 * static_cast<size_t>(ch));
}

bool is_record(uint32_t type) { return type == 4 || type == 8 || type == 9 || type == 10; }

std::vector<std::string> frames_of(const minute_view& m) {
  std::vector<std::string> v;
  for (const std::string& b : m.blocks)
    if (!is_record(head_of(b).type)) v.push_back(b);
  return v;
}

std::vector<hour_view> read_volume(const char* dev) {
  std::vector<hour_view> out;
  fs_db db;
  if (db.open(0, dev, "r") != 0) return out;
  entryX_t root;
  if (db.x_read(0, root) != 0) return out;
  for (int i = 0; i < root.num; i++) {
    hour_view hv;
    if (db.e_read(root, i, hv.e) != 0) continue;
    entryX_t x;
    if (db.x_read(hv.e.offset, x) != 0) continue;
    for (int j = 0; j < x.num; j++) {
      minute_view mv;
      if (db.e_read(x, j, mv.e) != 0) continue;
      long long off = 0;
      while (off + 296 <= mv.e.size) {
        head_t h;
        if (db.d_read(mv.e, static_cast<int>(off), sizeof h, &h) != 0) break;
        if (h.sync != 0x1234 || h.size < 0 || off + 296 + h.size > mv.e.size) break;
        std::string b(296 + static_cast<size_t>(h.size), '\0');
        if (db.d_read(mv.e, static_cast<int>(off), static_cast<int>(b.size()), &b[0]) != 0) break;
        mv.blocks.push_back(b);
        mv.offsets.push_back(off);
        off += static_cast<long long>(b.size());
      }
      hv.minutes.push_back(mv);
    }
    out.push_back(hv);
  }
  db.close();
  return out;
}

}  // namespace rec
