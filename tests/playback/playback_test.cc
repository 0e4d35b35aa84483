// Search and playback end to end: what the capture simulator handed to write comes
// back from the searches and the cursor, forwards, backwards and around the ring.
#include <ringrec/block.h>
#include <string.h>

#include "scenario.h"

namespace {

using pbt::kStart;
using pbt::Scenario;

// The whole stored block under the cursor, or "" when r_head refuses it.
std::string block_at(fs_app& app) {
  head_t* h = app.r_head();
  if (h == nullptr) return "";
  std::string b(296 + static_cast<size_t>(h->size), '\0');
  memcpy(&b[0], h, 288);
  if (app.r_data(&b[288], h->size) != 0 || app.r_offset_data(&b[288 + h->size], h->size, 8) != 0)
    return "";
  return b;
}

// Type word of a stored block: 4, 8, 9 and 10 are the minute's own records.
uint32_t type_of(const std::string& b) { return rec::head_of(b).type; }
bool is_record(const std::string& b) { return rec::is_record(type_of(b)); }

TEST_F(Scenario, TimeSearchesListTheRecordedHoursAndMinutes) {
  kit::StderrCapture err;
  int n = -1;
  hour_rec_t* h = app->q_hour(0, 0, n);
  ASSERT_EQ(3, n);
  // Hour H on sda from 57:30, on sdb from 58:30, hour H+1 on sdb.
  EXPECT_EQ(kStart, h[0].time);
  EXPECT_EQ(kStart + 60, h[1].time);
  EXPECT_EQ(kStart + 150, h[2].time);
  // Copied out: the masks are unaligned 64-bit fields of packed records.
  uint64_t m0 = h[0].mask, m1 = h[1].mask, m2 = h[2].mask;
  EXPECT_EQ((1ULL << 57) | (1ULL << 58), m0);
  EXPECT_EQ((1ULL << 58) | (1ULL << 59), m1);
  EXPECT_EQ(3ULL, m2);
  // Only the hour of the span; end 0 is open.
  h = app->q_hour(kStart + 160, kStart + 170, n);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart + 150, h[0].time);
  app->q_hour(kStart + 7200, 0, n);
  EXPECT_EQ(0, n);

  min_rec_t* m = app->q_min(0, 0, n);
  const int starts[6] = {kStart, kStart + 30, kStart + 60, kStart + 90, kStart + 150, kStart + 210};
  ASSERT_EQ(6, n);
  for (int i = 0; i < 6; i++) EXPECT_EQ(starts[i], m[i].time) << i;
  // Per channel and second: five main-stream, five substream and five audio frames.
  EXPECT_EQ(15 * 30, m[0].count[3]);
  EXPECT_EQ(15 * 60, m[4].count[0]);
  // Bounds at minute granularity, both included.
  m = app->q_min(kStart + 59, kStart + 150, n);
  ASSERT_EQ(4, n);
  EXPECT_EQ(kStart + 30, m[0].time);
  EXPECT_EQ(kStart + 150, m[3].time);

  // q_time: recorded minutes stay, an unrecorded minute of a recorded hour and an
  // unrecorded hour become 0.
  int t[6] = {kStart + 200, kStart - 1800, kStart + 5, kStart + 7200, kStart + 31, kStart + 269};
  app->q_time(6, t);
  const int want[6] = {kStart + 200, 0, kStart + 5, 0, kStart + 31, kStart + 269};
  for (int i = 0; i < 6; i++) EXPECT_EQ(want[i], t[i]) << i;
  int none[1] = {0};
  app->q_time(0, none);
  std::string log = err.take();
  char line[128];
  snprintf(line, sizeof line, "q_time[1671]: num=6, beg=%d, end=%d\n", kStart - 1800,
           kStart + 7200);
  EXPECT_EQ(1, kit::count(log, line)) << log;
  EXPECT_EQ(1, kit::count(log, "q_time[1671]: num=0, beg=0, end=0\n"));
  // Hour H on both disks, then hour H+1: one "ti" line per hour entry that holds
  // instants not yet found.
  EXPECT_EQ(3, kit::count(log, "q_time[1712]: ti="));
}

TEST_F(Scenario, EventAndMotionSearchesListTheMinutesThatHoldThem) {
  kit::StderrCapture err;
  int n = -1;
  // Video loss on channel 2 in minute 57 only.
  min_rec_t* m = app->q_log(0, 0, 0x4, 1, n);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart, m[0].time);
  app->q_log(0, 0, 0x8, 3, n);
  EXPECT_EQ(1, n);
  app->q_log(0, 0, 0x3, 1, n);
  EXPECT_EQ(0, n);
  // Record bits: every minute whose log was stored, that is every minute but the last
  // one of each disk (the open minute's log is written when the next one begins).
  m = app->q_log(0, 0, 0x1, 0, n);
  ASSERT_EQ(4, n);
  EXPECT_EQ(kStart, m[0].time);
  EXPECT_EQ(kStart + 60, m[1].time);
  EXPECT_EQ(kStart + 150, m[3].time);
  app->q_log(0, 0, 0x1, 8, n);
  EXPECT_EQ(0, n);
  app->q_log(0, 0, 0x1, -1, n);
  EXPECT_EQ(0, n);
  app->q_log(0, 0, 0, 0, n);
  EXPECT_EQ(0, n);
  std::string log = err.take();
  EXPECT_EQ(1, kit::count(log, "q_log[1768]: beg: 0, end: 0, ch: 0x4, eventType: 0x1\n"));
  EXPECT_EQ(1, kit::count(log, "q_log[1768]: beg: 0, end: 0, ch: 0x1, eventType: 0xFFFFFFFF\n"));
  EXPECT_EQ(1, kit::count(log, "q_log[1821]: c_min.num: 4\n"));

  m = app->q_motion(0, 0, 2, n);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart, m[0].time);
  m = app->q_motion(0, 0, 1, n);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart + 150, m[0].time);
  app->q_motion(0, 0, 3, n);
  EXPECT_EQ(0, n);
  app->q_motion(0, 0, 40, n);
  EXPECT_EQ(0, n);

  // Grids: six snapshots a minute, so matches are stamped at 0, 10, ... 50 s. The
  // reports came at 57:39 and 00:19 (the wall clock of the last block written).
  unsigned want57[2] = {0xFFFFFFFF, 0x100};
  m = app->q_motionMask(0, 0, 2, n, want57, 2);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart, m[0].time);
  m = app->q_motionMask(0, 0, 2, n, want57, 1);  // word 0 of the grid is clear
  EXPECT_EQ(0, n);
  unsigned want00[1] = {0x2};
  m = app->q_motionMask(0, 0, 1, n, want00, 1);
  ASSERT_EQ(1, n);
  EXPECT_EQ(kStart + 150 + 10, m[0].time);
  app->q_motionMask(0, 0, 1, n, want00, 0);
  EXPECT_EQ(0, n);
  // More words than the grid holds: only the grid's 20 are compared.
  std::vector<unsigned> wide(300, 0);
  wide[0] = 1;
  app->q_motionMask(0, 0, 1, n, wide.data(), 300);
  EXPECT_EQ(1, n);
}

// Plays from the first instant to the end of the recording, then one step more.
TEST_F(Scenario, ForwardPlaybackReturnsEveryBlockAsWrittenAndWraps) {
  kit::StderrCapture err;
  ASSERT_EQ(0, app->r_set(kStart, 0));
  std::vector<std::string> got;
  int minutes = 1;
  while (got.size() < w.size()) {
    std::string b = block_at(*app);
    ASSERT_FALSE(b.empty()) << got.size();
    if (!is_record(b)) got.push_back(b);
    if (got.size() == w.size()) break;
    if (app->r_seek(+1) != 0) {
      ASSERT_EQ(0, app->r_next(+1));
      minutes++;
    }
  }
  // The rest of the newest minute is its end: no more blocks were written.
  EXPECT_EQ(-1, app->r_seek(+1));
  ASSERT_EQ(w.size(), got.size());
  for (size_t i = 0; i < w.size(); i++) ASSERT_EQ(w[i].bytes, got[i]) << i;
  EXPECT_EQ(6, minutes);
  // From the newest minute the next one is the oldest.
  ASSERT_EQ(0, app->r_next(+1));
  EXPECT_EQ(0, app->r_cur.off);
  EXPECT_EQ(kStart, app->r_cur.min.time);
  std::string log = err.take();
  // Hour changes: sda to sdb inside hour H, hour H to H+1, and the wrap.
  EXPECT_EQ(3, kit::count(log, "r_next_min[2431]: BEGIN\n")) << log;
  EXPECT_EQ(1, kit::count(log, "r_next_min[2452]: 0 -> 1\n")) << log;
  EXPECT_EQ(1, kit::count(log, "r_next_min[2452]: 2 -> 0\n")) << log;
  EXPECT_EQ(4, kit::count(log, "r_next_min[2418]: HDD1: /dev/sdb, ")) << log;
}

TEST_F(Scenario, ReversePlaybackReturnsThemBackwards) {
  ASSERT_EQ(0, app->r_set(kStart, 0));
  kit::StderrCapture err;
  // Back from the oldest minute is the newest minute's last block.
  ASSERT_EQ(0, app->r_next(-1));
  EXPECT_EQ(kStart + 210, app->r_cur.min.time);
  std::vector<std::string> got;
  while (got.size() < w.size()) {
    std::string b = block_at(*app);
    ASSERT_FALSE(b.empty()) << got.size();
    if (!is_record(b)) got.push_back(b);
    if (got.size() == w.size()) break;
    if (app->r_seek(-1) != 0) {
      ASSERT_EQ(0, app->r_next(-1));
    }
  }
  ASSERT_EQ(w.size(), got.size());
  for (size_t i = 0; i < w.size(); i++) ASSERT_EQ(w[w.size() - 1 - i].bytes, got[i]) << i;
  std::string log = err.take();
  EXPECT_EQ(0, kit::count(log, "ERR")) << log;
}

TEST_F(Scenario, SetPlacesTheCursorAndTakesTheQuickPaths) {
  kit::StderrCapture err;
  EXPECT_EQ(0, app->r_set(kStart + 95, 0));
  head_t* h = app->r_head();
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(kStart + 95, h->time);
  EXPECT_EQ(1u, h->type);
  // The same minute: scanned again from its first block, index untouched.
  EXPECT_EQ(0, app->r_set(kStart + 91, 0));
  EXPECT_EQ(kStart + 91, app->r_head()->time);
  // The same hour, another minute.
  EXPECT_EQ(0, app->r_set(kStart + 65, 0));
  EXPECT_EQ(kStart + 65, app->r_head()->time);
  // A later hour; then a bounded search that the recording does not reach.
  EXPECT_EQ(0, app->r_set(kStart + 240, 0));
  EXPECT_EQ(kStart + 240, app->r_head()->time);
  EXPECT_EQ(-1, app->r_set(kStart + 400, 0));
  EXPECT_EQ(-1, app->r_set(kStart - 3600, kStart - 3000));
  // Before the recording: its first minute, first block at or after the time is the
  // motion record stamped when the minute was opened.
  EXPECT_EQ(0, app->r_set(kStart - 100000, 0));
  EXPECT_EQ(0, app->r_cur.off);
  EXPECT_EQ(4u, app->r_head()->type);
  std::string log = err.take();
  EXPECT_EQ(1, kit::count(log, "r_set[2061]: QUICK SEARCH: MIN\n")) << log;
  // Hour quick paths: to 58:35 from 59:00, and to 03:10 from 01:00 (nothing there).
  EXPECT_EQ(2, kit::count(log, "r_set[2065]: QUICK SEARCH: HOUR\n")) << log;
  // Positioning by the index: "HDD<slot>: <dev>, <hour> / <minute>, <size>".
  char line[160];
  snprintf(line, sizeof line, "r_set[2158]: HDD1: /dev/sdb, HOUR_%d:23 / MIN_01:00, ",
           (kStart + 150) / 86400);
  EXPECT_EQ(1, kit::count(log, line)) << log;
  EXPECT_EQ(3, kit::count(log, "r_set[2158]: HDD")) << log;
}

TEST(Cursor, EmptyCursorReadsNothing) {
  kit::Board board(1, 64LL << 20);
  fs_app app;
  app.set(1);
  ASSERT_EQ(1, app.db_open("w"));
  kit::StderrCapture err;
  EXPECT_EQ(nullptr, app.r_head());
  EXPECT_EQ(-1, app.r_data(nullptr, 0));
  EXPECT_EQ(-1, app.r_seek(-1));
  EXPECT_EQ(1, app.r_cur.stepped[0]);
  EXPECT_EQ(1, app.r_cur.stepped[1]);
  EXPECT_EQ(0, app.r_cur.off);
  EXPECT_EQ(-1, app.r_next(+1));
  EXPECT_EQ(-1, app.r_set(0, 0));
  EXPECT_EQ(0, app.sem_mode(7));
  EXPECT_EQ(7, app.r_cur.sem_mode);
  int n = 5;
  app.q_hour(0, 0, n);
  EXPECT_EQ(0, n);
  app.db_close();
}

}  // namespace
