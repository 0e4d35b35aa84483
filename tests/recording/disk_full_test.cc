// Full disks: recycling the oldest hour, moving to the next disk, and the disk modes
// that forbid writing or recycling.
#include <gtest/gtest.h>

#include <set>

#include "kit/recorder.h"

namespace {

// Hours (counted from rec::kHour0) held by a volume, in root-table order.
std::vector<int> hours_on(const char* dev) {
  std::vector<int> out;
  for (const rec::hour_view& h : rec::read_volume(dev))
    out.push_back((h.e.time - rec::kHour0) / 3600);
  return out;
}

struct FullDisks : rec::Recorder {
  sim::capture cap;
  void open_board() { start(4); }
  // Two minutes at the start of each hour: each hour takes three 4 MiB regions (its
  // minute table and two minutes), so a 64 MiB volume (13 regions) holds four hours.
  void record_hours(int from, int to, bool expect_ok = true) {
    for (int h = from; h < to; h++) {
      ASSERT_EQ(0, cap.open(rec::small_spec(4), (rec::kHour0 + h * 3600) * 1000LL, nullptr));
      rec::record(*app, cap, 120, expect_ok);
    }
    app->flush();
  }
};

TEST_F(FullDisks, OneDiskRecyclesItsOldestHoursAndGoesOn) {
  make_board(1, 64LL << 20);
  open_board();
  kit::StderrCapture err;
  record_hours(0, 10);
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("write[790]: HDD0: ")) << log.substr(0, 2000);
  std::vector<int> h = hours_on("/dev/sda");
  ASSERT_FALSE(h.empty());
  EXPECT_EQ(9, h.back());
  EXPECT_LE(h.size(), 4u);
  for (size_t i = 1; i < h.size(); i++) EXPECT_EQ(h[i - 1] + 1, h[i]);
  // The newest hour is whole.
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  EXPECT_EQ(0x3ULL, rec::mask_of(v.back().e));
  ASSERT_EQ(2u, v.back().minutes.size());
  EXPECT_EQ(2u + 2 * 60 + 2, v.back().minutes[0].blocks.size());
}

TEST_F(FullDisks, SecondDiskTakesOverThenTheOldestDiskIsRecycled) {
  make_board(2, 64LL << 20);
  open_board();
  kit::StderrCapture err;
  record_hours(0, 7);
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("write[778]: HDD1: ")) << log.substr(0, 2000);
  std::vector<int> a = hours_on("/dev/sda"), b1 = hours_on("/dev/sdb");
  ASSERT_FALSE(a.empty());
  ASSERT_FALSE(b1.empty());
  EXPECT_EQ(0, a.front());
  EXPECT_GE(b1.front(), a.back());  // the writer moved on when sda filled
  EXPECT_EQ(6, b1.back());
  kit::StderrCapture err2;
  record_hours(7, 10);
  log = err2.take();
  EXPECT_NE(std::string::npos, log.find("write[790]: HDD0: ")) << log.substr(0, 2000);
  // sda held the oldest recording, so its oldest hours made room for 7, 8 and 9 and
  // sdb was left as it was.
  a = hours_on("/dev/sda");
  EXPECT_EQ(b1, hours_on("/dev/sdb"));
  ASSERT_GE(a.size(), 3u);
  EXPECT_GT(a.front(), 0);
  EXPECT_EQ((std::vector<int>{7, 8, 9}), std::vector<int>(a.end() - 3, a.end()));
}

TEST_F(FullDisks, ReadOnlyDiskIsNeverWrittenAndWriteOnceDiskNeverRecycled) {
  make_board(3, 64LL << 20);
  open_board();
  ASSERT_EQ(0, app->db_set(0, "WR"));
  ASSERT_EQ(0, app->db_set(2, "RDONLY"));
  std::string ro_before = kit::read_at(board->image("sdc"), 0, 12 << 20);
  kit::StderrCapture err;
  record_hours(0, 10);
  err.take();
  // sda (write-once) was filled first and keeps its hours; sdb is recycled.
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), hours_on("/dev/sda"));
  std::vector<int> b = hours_on("/dev/sdb");
  ASSERT_FALSE(b.empty());
  EXPECT_EQ(9, b.back());
  EXPECT_GT(b.front(), 4);
  EXPECT_TRUE(hours_on("/dev/sdc").empty());
  EXPECT_EQ(ro_before, kit::read_at(board->image("sdc"), 0, 12 << 20));
}

TEST_F(FullDisks, NoRoomAnywhereFailsTheMinuteAndKeepsTheRecordings) {
  make_board(1, 64LL << 20);
  open_board();
  ASSERT_EQ(0, app->db_set(0, "WR"));
  // Record whole hours until the write-once disk refuses one.
  std::vector<std::string> blocks;
  int h = 0, r = 0;
  kit::StderrCapture err;
  for (; h < 8 && r == 0; h++) {
    ASSERT_EQ(0, cap.open(rec::small_spec(4), (rec::kHour0 + h * 3600) * 1000LL, nullptr));
    for (int s = 0; s < 60 && r == 0; s++) {
      cap.next(blocks);
      kit::FakeClock::wall = cap.time();
      for (const std::string& b : blocks)
        if (r == 0) r = app->write(cap.time(), static_cast<int>(b.size()), b.data());
    }
  }
  ASSERT_EQ(-1, r);
  EXPECT_EQ(-1, app->iswriting());
  std::vector<int> kept = hours_on("/dev/sda");
  ASSERT_GE(kept.size(), 3u);
  EXPECT_EQ(0, kept.front());
  // The same minute is refused at once, without touching the disk again.
  err.take();
  kit::StderrCapture err2;
  EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
  EXPECT_EQ("", err2.take());
  // A later minute tries again, fails again, and still drops nothing.
  kit::StderrCapture err3;
  EXPECT_EQ(-1, app->write(cap.time() + 60, static_cast<int>(blocks[0].size()), blocks[0].data()));
  err3.take();
  EXPECT_EQ(kept, hours_on("/dev/sda"));
}

}  // namespace
