// What the cursor says and does when a block under it is torn or not yet written:
// retries 100 ms apart, the fixed lines, and the index loader giving up cleanly.
#include <ringrec/fs_io.h>

#include "scenario.h"

namespace {

using pbt::kStart;
using pbt::Scenario;

// Disk offset of the cursor's current block head.
long long head_at(fs_app& app) {
  long long region = app.r_cur.min.offset;
  return region + app.r_cur.off;
}

TEST_F(Scenario, TornBlocksAreRetriedThenGivenUp) {
  ASSERT_EQ(0, app->r_set(kStart + 95, 0));
  ASSERT_NE(nullptr, app->r_head());
  const std::string img = board->image("sdb");
  long long at = head_at(*app);
  int prev_size = app->r_cur.tail[1];
  std::string tail = kit::read_at(img, at - 8, 8);
  std::string head = kit::read_at(img, at, 4);
  char line[160];

  // The previous block's tail not written yet: three attempts, two pauses.
  kit::write_at(img, at - 8, "\0\0\0\0", 4);
  kit::StderrCapture err;
  kit::FakeClock::sleeps = 0;
  EXPECT_EQ(nullptr, app->r_head());
  EXPECT_EQ(2, kit::FakeClock::sleeps);
  std::string log = err.take();
  for (int a = 0; a < 3; a++) {
    snprintf(line, sizeof line, "r_head[2236]: ERR %d: TAIL %dMB, sync=0x0000, size=%d\n", a,
             app->r_cur.off >> 20, prev_size);
    EXPECT_EQ(1, kit::count(log, line)) << log;
  }
  snprintf(line, sizeof line, "r_head[2238]: E_%.3d: %s, offset=%lldMB, max=%dMB, size=%dMB\n",
           app->r_cur.min.idx, app->r_cur.min.name,
           static_cast<long long>(app->r_cur.min.offset) >> 20, app->r_cur.min.max >> 20,
           app->r_cur.min.size >> 20);
  EXPECT_EQ(3, kit::count(log, line)) << log;
  kit::write_at(img, at - 8, tail.data(), 8);

  // A head whose sync is wrong.
  kit::write_at(img, at, "\x35\x12\0\0", 4);
  kit::StderrCapture err2;
  EXPECT_EQ(nullptr, app->r_head());
  log = err2.take();
  EXPECT_EQ(1, kit::count(log, "r_head[2244]: ERR 2: HEAD 0MB, sync=0x1235, magic=0x")) << log;
  kit::write_at(img, at, head.data(), 4);
  head_t* h = app->r_head();
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(kStart + 95, h->time);
}

TEST_F(Scenario, StepBackIntoAMinuteWithATornLastTail) {
  // Minute 00 on sdb ends with its substream index record; tear that record's tail.
  ASSERT_EQ(0, app->r_set(kStart + 215, 0));
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  const rec::minute_view& m00 = v.back().minutes[0];
  ASSERT_EQ(kStart + 150, m00.e.time);
  long long region = m00.e.offset;
  long long end = region + m00.e.size;
  std::string tail = kit::read_at(board->image("sdb"), end - 8, 8);
  kit::write_at(board->image("sdb"), end - 8, "\0\0\0\0\x10\0\0\0", 8);
  kit::StderrCapture err;
  kit::FakeClock::sleeps = 0;
  ASSERT_EQ(0, app->r_next(-1));
  std::string log = err.take();
  char line[128];
  snprintf(line, sizeof line, "r_next[2331]: ERR: TAIL, sync=0x0000, size=16, offset=%d\n", m00.e.size);
  EXPECT_EQ(3, kit::count(log, line)) << log;
  EXPECT_EQ(2, kit::FakeClock::sleeps);
  // Valid or not, the tail's size places the cursor.
  EXPECT_EQ(m00.e.size - 296 - 16, app->r_cur.off);
  kit::write_at(board->image("sdb"), end - 8, tail.data(), 8);
}

TEST_F(Scenario, StepOntoTheEndRereadsTheMinuteEntry) {
  ASSERT_EQ(0, app->r_set(kStart + 230, 0));
  head_t* h = app->r_head();
  ASSERT_NE(nullptr, h);
  int size = app->r_cur.min.size;
  // The cursor's copy of the entry as it was when only this block had been written.
  app->r_cur.min.size = app->r_cur.off + 296 + h->size;
  EXPECT_EQ(0, app->r_seek(+1));
  EXPECT_EQ(size, app->r_cur.min.size);
  EXPECT_EQ(kStart + 230, app->r_head()->time);  // the substream block of the same tick
  // Onto the end of what was written: -1 with the offset at the end, where nothing
  // can be read yet (at once, no pause: the read itself fails).
  while (app->r_seek(+1) == 0) ASSERT_NE(nullptr, app->r_head());
  EXPECT_EQ(size, app->r_cur.off);
  kit::FakeClock::sleeps = 0;
  kit::StderrCapture quiet;
  EXPECT_EQ(nullptr, app->r_head());
  EXPECT_EQ(0, kit::FakeClock::sleeps);
}

// Fails positioned reads of `len` bytes at one offset.
long long g_fail_off = -1;
long long (*g_pread)(int, void*, int, long long);
long long failing_pread(int fd, void* b, int n, long long off) {
  if (off == g_fail_off) return -1;
  return g_pread(fd, b, n, off);
}

TEST_F(Scenario, UnreadableMainStreamIndexClearsBothStreams) {
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  const rec::minute_view& m = v.back().minutes[0];  // minute 00, closed
  size_t n = m.blocks.size();
  ASSERT_EQ(10u, rec::head_of(m.blocks[n - 2]).type);
  ASSERT_EQ(9u, rec::head_of(m.blocks[n - 1]).type);
  fs_db* db = app->db_info[1].db;
  app->r_cur.min = m.e;
  app->read_Iframe_info(db, 0);
  EXPECT_EQ(60, app->r_iframe[0].count);
  EXPECT_EQ(60, app->r_iframe[1].count);

  long long region = m.e.offset;
  g_fail_off = region + m.offsets[n - 2] + 288;
  g_pread = fs_sys.pread;
  fs_sys.pread = failing_pread;
  kit::StderrCapture err;
  app->read_Iframe_info(db, 0);
  fs_sys.pread = g_pread;
  EXPECT_EQ(1, kit::count(err.take(), "read_Iframe_info[1876]: Read HQ data fail.\n"));
  EXPECT_EQ(0, app->r_iframe[0].count);
  EXPECT_EQ(0, app->r_iframe[1].count);
}

}  // namespace
