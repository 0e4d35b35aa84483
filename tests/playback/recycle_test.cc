// Playback across recycling: the cursor's hour moves down the root table when older
// hours are dropped, and stepping on finds it again by name.
#include "kit/recorder.h"

#include <gtest/gtest.h>

namespace {

// Records `secs` seconds at the start of hour h after kHour0.
void record_hour(fs_app& app, int h, int secs) {
  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(2), (rec::kHour0 + 3600LL * h) * 1000, nullptr));
  rec::record(app, cap, secs);
}

int root_index(const std::vector<rec::hour_view>& v, const char* name) {
  for (size_t i = 0; i < v.size(); i++)
    if (strcmp(v[i].e.name, name) == 0) return static_cast<int>(i);
  return -1;
}

TEST(Recycling, CursorFindsItsHourAgainAfterOlderHoursAreDropped) {
  kit::FakeClock clock(rec::kHour0, 1000000);
  kit::Board board(1, 64LL << 20);
  fs_app app;
  app.set(2);
  ASSERT_EQ(1, app.db_open("w"));
  rec::format_all(app);
  kit::StderrCapture err;
  for (int h = 0; h < 4; h++) record_hour(app, h, 20);
  app.flush();
  ASSERT_EQ(0, app.r_set(rec::kHour0 + 2 * 3600, 0));
  entry_t cur = app.r_cur.hour;
  EXPECT_EQ(2, cur.idx);
  for (int h = 4; h < 7; h++) record_hour(app, h, 20);
  app.flush();
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("remove")) << log;

  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  int now = root_index(v, cur.name);
  ASSERT_GE(now, 0) << "the cursor's hour was recycled too";
  ASSERT_LT(now, 2);
  ASSERT_LT(static_cast<size_t>(now + 1), v.size());
  kit::StderrCapture err2;
  ASSERT_EQ(0, app.r_next(+1));
  EXPECT_STREQ(v[now + 1].e.name, app.r_cur.hour.name);
  EXPECT_EQ(rec::kHour0 + 3 * 3600, app.r_cur.min.time);
  EXPECT_EQ(now + 1, app.r_cur.hour.idx);
  log = err2.take();
  char line[64];
  snprintf(line, sizeof line, "r_next_min[2398]: hour_idx: 2 -> %d\n", now);
  EXPECT_EQ(1, kit::count(log, line)) << log;
  snprintf(line, sizeof line, "r_next_min[2452]: %d -> %d\n", now, now + 1);
  EXPECT_EQ(1, kit::count(log, line)) << log;
  app.db_close();
}

}  // namespace
