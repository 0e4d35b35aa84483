// Backup selection and block reading: which hours a range selects and what it counts as
// work, the blocks read back in order and filtered, frame classification, and progress
// posted to a real semaphore set.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>

#include "backup/backup.h"
#include "backup/bk_kit.h"

namespace {

using bk::block;

const int T0 = rec::kHour0 + 3600 - 90;  // 58:30 of one hour; the next begins 90 s later

struct Select : bk::Fixture {
  std::vector<block> blocks;
  void SetUp() override {
    start(4);
    blocks = bk::scene(T0, 180, 4);
    // Channel 3 only in even seconds.
    for (block& b : blocks) {
      if (b.time % 2 == 0) continue;
      std::vector<bk::frame> keep;
      for (const bk::frame& f : b.frames)
        if (f.w[1] != 3) keep.push_back(f);
      b.frames = keep;
      bk::seal(b);
    }
    record(blocks);
  }
  // Reads every block of entry e from offset 0 as a writer does; returns the times of
  // the blocks delivered and checks their bytes against what was recorded.
  std::vector<int> walk(int ch, entry_t e, int* skipped, int* last) {
    std::map<int, const block*> by_time;
    for (const block& b : blocks) by_time[b.time] = &b;
    q_t q = {0x80000, static_cast<unsigned char*>(malloc(0x80000))};
    std::vector<int> times;
    int off = 0, r = 0;
    *skipped = 0;
    head_t h;
    while (off < e.size) {
      r = app->bk_read(ch, app->bk_state.items[0].db, e, off, h, &q);
      if (r == -1) break;
      if (r == 0) {
        ++*skipped;
        continue;
      }
      if (h.type == 1) {
        times.push_back(h.time);
        const block* b = by_time.at(h.time);
        EXPECT_EQ(b->bytes.size() - 296, static_cast<size_t>(h.size));
        EXPECT_EQ(0, memcmp(b->bytes.data(), &h, 288)) << h.time;
        EXPECT_EQ(0, memcmp(b->bytes.data() + 288, q.buf, b->bytes.size() - 296)) << h.time;
      }
      off += 296 + h.size;
    }
    *last = r;
    free(q.buf);
    return times;
  }
};

TEST_F(Select, HoursHoldingTheRangeAreSelectedWithWorkInChannelsTimesMinutes) {
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(2u, v.size());
  int n0 = static_cast<int>(v[0].minutes.size()), n1 = static_cast<int>(v[1].minutes.size());
  ASSERT_EQ(2, n0);
  ASSERT_EQ(2, n1);

  kit::StderrCapture err;
  EXPECT_EQ(2, app->bk_set(T0, T0 + 179, 0x5));
  std::string log = err.take();
  EXPECT_STREQ("MIN_58:30", app->bk_state.items[0].e.name);
  EXPECT_STREQ("MIN_00:00", app->bk_state.items[1].e.name);
  EXPECT_EQ(2 * (n0 + n1), app->bk_state.total);  // every entry of a selected hour counts
  EXPECT_EQ(0, app->bk_state.done);
  EXPECT_EQ(0u, app->bk_state.items[0].off);
  long long hour_off = v[0].e.offset, table_off = app->bk_state.items[0].x.offset;
  EXPECT_EQ(hour_off, table_off);
  std::string line = std::string("bk_set[2566]: 01: ") + v[0].e.name + " / MIN_58:30\n";
  EXPECT_NE(std::string::npos, log.find(line)) << log;
  EXPECT_EQ(2, kit::count(log, "bk_set[2566]: "));
  app->bk_clr();
  EXPECT_EQ(0, app->bk_state.cap);
  EXPECT_EQ(nullptr, app->bk_state.items);

  // Minute bounds: from 59:30 the first qualifying minute of the first hour is 59:00.
  EXPECT_EQ(2, app->bk_set(T0 + 60, T0 + 100, 0x1));
  EXPECT_STREQ("MIN_59:00", app->bk_state.items[0].e.name);
  EXPECT_EQ(n0 + n1, app->bk_state.total);
  app->bk_clr();
  // End 0: no upper bound, from the start hour on.
  EXPECT_EQ(1, app->bk_set(T0 + 100, 0, 0x3));
  EXPECT_STREQ("MIN_00:00", app->bk_state.items[0].e.name);
  EXPECT_EQ(0, app->bk_state.end);
  app->bk_clr();
  EXPECT_EQ(2, app->bk_set(T0 - 7200, 0, 0x8));
  app->bk_clr();
  // A channel never recorded, and a mask with no channel, select nothing.
  EXPECT_EQ(0, app->bk_set(T0, T0 + 179, 0x80));
  EXPECT_EQ(0, app->bk_set(T0, T0 + 179, 0));
  EXPECT_EQ(0, app->bk_state.total);
  // Before the recording, or a range ending before it starts.
  EXPECT_EQ(0, app->bk_set(T0 - 7200, T0 - 3601, 0xF));
  EXPECT_EQ(0, app->bk_set(T0 + 179, T0, 0xF));
  app->bk_clr();
}

TEST_F(Select, BlocksOfTheRangeComeBackInStoredOrderBoundsIncluded) {
  ASSERT_EQ(1, app->bk_set(T0 + 10, T0 + 50, 0xF));
  bk_item_t it = app->bk_state.items[0];
  int skipped = 0, last = 0;
  std::vector<int> t = walk(-1, it.e, &skipped, &last);
  std::vector<int> want;
  for (int s = 10; s < 30; s++) want.push_back(T0 + s);
  EXPECT_EQ(want, t);
  EXPECT_EQ(12, skipped);  // the motion and event records, seconds 0 to 9
  // The next minute of the hour ends the range at its first block past the end.
  entry_t e2;
  ASSERT_EQ(0, it.db->e_read(it.x, it.e.idx + 1, e2));
  t = walk(-1, e2, &skipped, &last);
  want.clear();
  for (int s = 30; s <= 50; s++) want.push_back(T0 + s);
  EXPECT_EQ(want, t);
  EXPECT_EQ(-1, last);

  // A channel filter skips blocks without that channel one by one.
  t = walk(3, e2, &skipped, &last);
  want.clear();
  for (int s = 30; s <= 50; s++)
    if ((T0 + s) % 2 == 0) want.push_back(T0 + s);
  EXPECT_EQ(want, t);
  EXPECT_EQ(2 + 21 - static_cast<int>(want.size()), skipped);
  app->bk_clr();
}

TEST_F(Select, ReadBufferGrowsToTheNextMultipleOf4096StrictlyAbove) {
  // Blocks of exactly 5000 and 8192 data bytes, each one 44-byte frame head and data.
  int t = T0 + 600;
  std::vector<block> big(2);
  big[0].time = t;
  big[0].frames.push_back(bk::make_frame(0, 0, 2, 5000 - 44, 1));
  big[1].time = t + 1;
  big[1].frames.push_back(bk::make_frame(0, 0, 2, 8192 - 44, 2));
  for (block& b : big) bk::seal(b);
  record(big);
  ASSERT_EQ(1, app->bk_set(t, t + 1, 0x1));
  bk_item_t it = app->bk_state.items[0];
  // Frame blocks begin after the motion record (15656 bytes) and the event log (1448).
  int off = 17104, sizes[2] = {5000, 8192}, grown[2] = {8192, 12288};
  for (int k = 0; k < 2; k++) {
    q_t q = {4096, static_cast<unsigned char*>(malloc(4096))};
    head_t h;
    int r;
    kit::StderrCapture err;
    while ((r = app->bk_read(-1, it.db, it.e, off, h, &q)) == 0) {
    }
    std::string log = err.take();
    ASSERT_EQ(1, r);
    EXPECT_EQ(sizes[k], h.size);
    EXPECT_EQ(grown[k], q.max);
    EXPECT_NE(std::string::npos,
              log.find("bk_read[2688]: q->max = " + std::to_string(grown[k]) + "\n"));
    EXPECT_EQ(0, memcmp(big[k].bytes.data() + 288, q.buf, static_cast<size_t>(sizes[k])));
    off += 296 + h.size;
    free(q.buf);
  }
  app->bk_clr();
}

TEST_F(Select, DamagedHeadsEndTheEntryWithoutReadingPastIt) {
  ASSERT_EQ(1, app->bk_set(T0, T0 + 29, 0xF));
  bk_item_t it = app->bk_state.items[0];
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  const rec::minute_view& m = v[0].minutes[0];
  ASSERT_GT(m.offsets.size(), 5u);
  std::string img = board->image("sda");
  long long base = m.e.offset;
  long long off3 = m.offsets[3];
  // Wrong sync word.
  kit::write_at(img, base + off3, "\x35\x12\x00\x00", 4);
  q_t q = {0x80000, static_cast<unsigned char*>(malloc(0x80000))};
  head_t h;
  int off = static_cast<int>(off3);
  kit::StderrCapture err;
  EXPECT_EQ(-1, app->bk_read(-1, it.db, it.e, off, h, &q));
  std::string log = err.take();
  char want[128];
  snprintf(want, sizeof want, "bk_read[2664]: ERR: HEAD: %d, SYNC=0x1235, MAGIC=0x%.4X\n",
           static_cast<int>(off3), kit::get<uint32_t>(img, base + off3 + 4));
  EXPECT_NE(std::string::npos, log.find(want)) << log;
  EXPECT_EQ(static_cast<int>(off3), off);
  kit::write_at(img, base + off3, "\x34\x12\x00\x00", 4);
  EXPECT_EQ(1, app->bk_read(-1, it.db, it.e, off, h, &q));

  // Sizes that agree with the magic but cannot be a stored block: past the region,
  // and negative. Neither is followed, nor does it ask for a huge buffer.
  for (int32_t size : {0x7FFFFF00, -300}) {
    int32_t time = kit::get<int32_t>(img, base + off3 + 12);
    uint32_t magic = static_cast<uint32_t>(time) ^ static_cast<uint32_t>(size);
    kit::write_at(img, base + off3 + 4, &magic, 4);
    kit::write_at(img, base + off3 + 24, &size, 4);
    off = static_cast<int>(off3);
    EXPECT_EQ(-1, app->bk_read(-1, it.db, it.e, off, h, &q));
    EXPECT_EQ(static_cast<int>(off3), off);
    EXPECT_EQ(0x80000, q.max);
  }
  free(q.buf);
  app->bk_clr();
}

// Frames back to back in a block's data; the count and lengths come from the disk.
TEST(Frames, TheWalkStopsAtAFrameRunningPastTheBlock) {
  for (uint32_t second : {5u, 6u}) {  // fits exactly; one byte past the data
    std::string data(2 * 44 + 10 + 5, '\0');
    uint32_t len0 = 10;
    memcpy(&data[40], &len0, 4);  // word 10: data length
    memcpy(&data[44 + 10 + 40], &second, 4);
    head_t h;
    memset(&h, 0, sizeof h);
    h.size = static_cast<int32_t>(data.size());
    h.frames = 3;  // one more than the data holds
    std::vector<uint32_t> lens;
    block_frames(h, reinterpret_cast<const unsigned char*>(data.data()),
                 [&](const frame_head_t& f, const char*) {
                   lens.push_back(f.len);
                   return true;
                 });
    std::vector<uint32_t> want = {10, 5};
    if (second == 6) want.pop_back();
    EXPECT_EQ(want, lens);
  }
}

TEST(Check, FramesAreClassifiedByTypeAndStream) {
  fs_app app;
  struct row {
    uint32_t type, stream;
    int main_ch, lq_ch, ret;  // expected ch (-1 untouched) and result
  } rows[] = {
      {0, 0, 6, 6, 0},
      {1, 1, 6, 6, 0},
      {11, 2, 6, -1, 0},
      {12, 3, -1, 6, 0},
      {0, 4, -1, -1, 0},
      {2, 3, 6, 6, 0},
      {2, 9, 6, 6, 0},
      {5, 0, -1, -1, 0},
      {22, 0, -1, -1, 0},
      {23, 0, -1, -1, -1},
      {0xFFFFFFFF, 0, -1, -1, -1},
  };
  kit::StderrCapture err;
  for (const row& r : rows) {
    frame_head_t f;
    memset(&f, 0, sizeof f);
    f.type = r.type;
    f.ch = 6;
    f.stream = r.stream;
    int ch = -1;
    EXPECT_EQ(r.ret, app.bk_check(&f, ch)) << r.type;
    EXPECT_EQ(r.main_ch, ch) << r.type << "/" << r.stream;
    ch = -1;
    EXPECT_EQ(r.ret, app.bk_check_LQ(&f, ch)) << r.type;
    EXPECT_EQ(r.lq_ch, ch) << r.type << "/" << r.stream;
  }
  std::string log = err.take();
  EXPECT_EQ(2, kit::count(log, "bk_check[2731]: ERR\n"));
  EXPECT_EQ(2, kit::count(log, "bk_check_LQ[2731]: ERR\n"));
}

struct Progress : ::testing::Test {
  kit::FakeClock clock{1700000000, 1000};
  kit::Board board{1, 64LL << 20};
  fs_app app;
};

TEST(Percent, WorkDoneIsRoundedDown) {
  EXPECT_EQ(66, bk_percent(2, 3));
  EXPECT_EQ(99, bk_percent(199, 200));
  EXPECT_EQ(100, bk_percent(0, 0));  // no work: complete
}

TEST_F(Progress, ReportsAreThrottledAndPostedToTheApplicationsSet) {
  kit::SemSet sem(board.root());
  ASSERT_GE(sem.id, 0);
  struct step {
    int v, ret;
    long long wall;
    bool posted;
  } steps[] = {
      {37, 0, 1700000000, true},  {37, 0, 1700000000, false},  // same value and result
      {38, 0, 1700000000, false},                              // same second, not a tenth
      {40, 0, 1700000000, true},                               // a multiple of ten
      {30, 0, 1700000001, false},                              // not greater
      {41, 0, 1700000001, true},                               // a new second
      {41, 2, 1700000001, true},                               // another result
      {100, 1, 1700000001, true},
  };
  int posted = 0;
  for (const step& s : steps) {
    kit::FakeClock::wall = s.wall;
    kit::StderrCapture err;
    app.bk_sem(s.v, s.ret);
    std::string log = err.take();
    char line[64];
    snprintf(line, sizeof line, "bk_sem[2790]: PROGRESS: v=%.3d, ret=%d\n", s.v, s.ret);
    EXPECT_EQ(s.posted ? line : "", log) << s.v;
    if (s.posted) {
      posted++;
      EXPECT_EQ(s.v, sem.get(0));
      EXPECT_EQ(s.ret, sem.get(1));
    }
  }
  EXPECT_EQ(5, posted);
  // The multi selection throttles on its own fields.
  kit::StderrCapture err;
  app.bk_multi_sem(37, 0);
  EXPECT_EQ("bk_multi_sem[2790]: PROGRESS: v=037, ret=0\n", err.take());
  EXPECT_EQ(37, sem.get(0));
  // bk_over posts completion; with reports off nothing is posted.
  app.bk_clr();
  EXPECT_EQ(0, app.bk_over());
  EXPECT_EQ(100, sem.get(0));
  EXPECT_EQ(1, sem.get(1));
  app.bk_clr();
  app.r_cur.sem_mode = 0;
  kit::StderrCapture quiet;
  app.bk_sem(50, 0);
  EXPECT_EQ("", quiet.take());
  EXPECT_EQ(100, sem.get(0));
}

TEST_F(Progress, WithoutTheSetTheReportIsOnlyPrinted) {
  kit::StderrCapture err;
  app.bk_sem(10, 0);
  EXPECT_EQ("bk_sem[2790]: PROGRESS: v=010, ret=0\n", err.take());
  EXPECT_EQ(10, app.bk_state.last_progress);
}

TEST_F(Select, MultiSlotsSelectPerSlotAndMoreThanFiveAreRefused) {
  int beg[6] = {T0, T0 + 90, T0, T0, T0, T0};
  int end[6] = {T0 + 29, T0 + 150, T0 + 29, T0 + 29, T0 + 29, T0 + 29};
  int bits[6] = {0x1, 0x2, 0x4, 0x8, 0x1, 0x1};
  kit::StderrCapture err;
  EXPECT_EQ(-1, app->bk_multi_set(beg, end, bits, 6));
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("bk_multi_set[2621]: ERR: n = 6, max 5\n")) << log;
  EXPECT_EQ(0, app->bk_multi_state.num);
  EXPECT_EQ(0, app->bk_multi_set(beg, end, bits, 0));

  kit::StderrCapture err2;
  EXPECT_EQ(2, app->bk_multi_set(beg, end, bits, 2));
  log = err2.take();
  char line[96];
  snprintf(line, sizeof line, "bk_multi_set[2618]: beg=%d, end=%d, chbits=0x1\n", T0, T0 + 29);
  EXPECT_NE(std::string::npos, log.find(line)) << log;
  EXPECT_STREQ("MIN_58:30", app->bk_multi_state.items[0].e.name);
  EXPECT_STREQ("MIN_00:00", app->bk_multi_state.items[1].e.name);
  EXPECT_EQ(4, app->bk_multi_state.total);  // one channel each, two minutes each
  EXPECT_EQ(T0 + 90, app->bk_multi_state.beg[1]);
  EXPECT_EQ(0x2, app->bk_multi_state.chbits[1]);

  // Slot 1's bounds: its first block is 00:00 and it ends after T0 + 150.
  bk_item_t it = app->bk_multi_state.items[1];
  q_t q = {0x80000, static_cast<unsigned char*>(malloc(0x80000))};
  head_t h;
  int off = 0, r, first = 0, n = 0;
  entry_t e = it.e;
  while ((r = app->bk_multi_read(-1, 1, it.db, e, off, h, &q)) != -1) {
    if (r == 1) {
      if (h.type == 1 && first == 0) first = h.time;
      n += h.type == 1;
      off += 296 + h.size;
    }
  }
  EXPECT_EQ(T0 + 90, first);
  EXPECT_EQ(60, n);
  off = 0;
  EXPECT_EQ(-1, app->bk_multi_read(-1, 5, it.db, e, off, h, &q));
  EXPECT_EQ(-1, app->bk_multi_read(-1, -1, it.db, e, off, h, &q));
  free(q.buf);
}

}  // namespace
