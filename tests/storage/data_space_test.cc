// Data regions and their growth, space accounting, recycling and the check.
#include <gtest/gtest.h>

#include <vector>

#include "storage/volume_fixture.h"

using namespace storage_test;

namespace {

// A root table entry with one data child, opened and ready for d_write.
entry_t make_minute(Volume& v, const char* hour, const char* minute) {
  EXPECT_EQ(v.db.f_create(0, 1, hour), 0);
  EXPECT_EQ(v.db.f_create(5, 2, hour, minute), 0);
  entry_t e;
  EXPECT_EQ(v.db.f_open(e, 2, hour, minute), 0);
  return e;
}

std::vector<char> pattern(int n, int seed) {
  std::vector<char> b(static_cast<size_t>(n));
  for (int i = 0; i < n; i++) b[static_cast<size_t>(i)] = static_cast<char>(i * 7 + seed);
  return b;
}

}  // namespace

TEST(Data, ReadBackWithinSizeAndRefreshBeyondItWithoutSucceeding) {
  Volume v;
  entry_t w = make_minute(v, "H", "M");
  std::vector<char> b = pattern(10000, 3);
  ASSERT_EQ(v.db.d_write(w, 0, 10000, b.data()), 0);
  EXPECT_EQ(w.size, 10000);
  // Bytes land at the region's start; size stays in memory until a flush.
  EXPECT_EQ(kit::read_at(v.img, v64(w.offset), 10000), std::string(b.begin(), b.end()));
  entry_t r;
  ASSERT_EQ(v.db.f_open(r, 2, "H", "M"), 0);
  EXPECT_EQ(r.size, 0);

  std::vector<char> got(10000);
  {
    kit::StderrCapture cap;
    EXPECT_EQ(v.db.d_read(r, 0, 100, got.data()), -1);
    EXPECT_EQ(cap.take(), "d_read[851]: HDD0: ERR, READ, 100, 0, 0\n");
  }
  ASSERT_EQ(v.db.e_flush(w), 0);
  {
    // The refresh sees the flushed size, yet this call still fails.
    kit::StderrCapture quiet;
    EXPECT_EQ(v.db.d_read(r, 0, 100, got.data()), -1);
    EXPECT_EQ(v.db.d_read(r, 0, -1, got.data()), -1);
  }
  EXPECT_EQ(r.size, 10000);
  ASSERT_EQ(v.db.d_read(r, 5000, 5000, got.data()), 0);
  EXPECT_EQ(memcmp(got.data(), b.data() + 5000, 5000), 0);
  // A write inside the region never lowers size.
  ASSERT_EQ(v.db.d_write(w, 0, 10, b.data()), 0);
  EXPECT_EQ(w.size, 10000);
}

TEST(Data, GrowthStepDoublesBeforeUseForQuickGrowths) {
  Volume v(2048 * MiB);
  entry_t e = make_minute(v, "H", "M");
  long long tail0 = v.db.sb.tail;
  char b[16] = {0};
  // 3000 ms after creation still counts as quick: the first step is 8 MiB.
  kit::FakeClock::mono_ms += 3000;
  ASSERT_EQ(v.db.d_write(e, 0x400000 - 8, 16, b), 0);
  EXPECT_EQ(e.max, 12 * MiB);
  EXPECT_EQ(v64(v.db.sb.tail), tail0 + 8 * MiB);
  // The growth persisted max and the size written before it, and the tail.
  entry_t disk = kit::get<entry_t>(v.img, entry_at(e.xoffset, e.idx));
  EXPECT_EQ(disk.max, 12 * MiB);
  EXPECT_EQ(disk.size, 0);
  EXPECT_EQ(v64(v.disk_sb().tail), tail0 + 8 * MiB);

  std::vector<int> steps;
  for (int k = 0; k < 6; k++) {
    int before = e.max;
    ASSERT_EQ(v.db.d_write(e, e.max, 16, b), 0);
    steps.push_back(static_cast<int>((e.max - before) / MiB));
  }
  EXPECT_EQ(steps, (std::vector<int>{16, 32, 64, 128, 256, 256}));

  // A slow growth does not double, but the multiplier stays until the next create.
  kit::FakeClock::mono_ms += 3001;
  int before = e.max;
  ASSERT_EQ(v.db.d_write(e, e.max, 16, b), 0);
  EXPECT_EQ(e.max - before, 256 * MiB);
}

TEST(Data, FirstGrowthAfterAPauseIsOneUnitAndCreateResetsTheMultiplier) {
  Volume v(2048 * MiB);
  entry_t e = make_minute(v, "H", "M");
  char b[16] = {0};
  ASSERT_EQ(v.db.d_write(e, e.max, 16, b), 0);
  ASSERT_EQ(v.db.d_write(e, e.max, 16, b), 0);
  EXPECT_EQ(v.db.grow_mul, 4);
  entry_t f = make_minute(v, "G", "N");
  EXPECT_EQ(v.db.grow_mul, 1);
  kit::FakeClock::mono_ms += 3001;
  ASSERT_EQ(v.db.d_write(f, 0x400000, 16, b), 0);
  EXPECT_EQ(f.max, 8 * MiB);
}

TEST(Data, GrowthShrinksToOneUnitWhenTheRingIsShort) {
  Volume v(64 * MiB);  // 52 MiB ring
  entry_t e = make_minute(v, "H", "M");
  char b[16] = {0};
  int steps[6];
  for (int k = 0; k < 6; k++) {
    int before = e.max;
    ASSERT_EQ(v.db.d_write(e, e.max, 16, b), 0);
    steps[k] = static_cast<int>((e.max - before) / MiB);
  }
  // 8, 16 fit in 44 MiB free; 32 would not fit the 20 MiB left, and so on.
  EXPECT_EQ(steps[0], 8);
  EXPECT_EQ(steps[1], 16);
  EXPECT_EQ(steps[2], 4);
}

TEST(Data, QueriesTellEndOfRingFromFullRing) {
  Volume v(64 * MiB);
  entry_t e = make_minute(v, "H", "M");
  EXPECT_EQ(v.db.d_query(e, 0, 1000), 0);
  kit::StderrCapture cap;
  // The ring ends at 0x800000 + 52 MiB; the region starts 4 MiB in.
  EXPECT_EQ(v.db.d_query(e, 48 * MiB, 1), -2);
  EXPECT_EQ(v.db.f_query(), 0);
  // Use up the ring so that at most one unit is free.
  v.db.sb.tail = v.db.sb.head - 4 * MiB + 52 * MiB;  // q_free = 4 MiB
  EXPECT_EQ(v.db.d_query(e, 0x400000, 1), -1);
  EXPECT_EQ(v.db.d_query(e, 0, 1), 0);
  EXPECT_EQ(v.db.f_query(), -1);
  EXPECT_EQ(cap.take(),
            "d_query[787]: HDD0: QUERY, D_QUERY_FU\n"
            "d_query[792]: HDD0: QUERY, D_QUERY_NO\n"
            "f_query[560]: HDD0: QUERY, F_QUERY_NO\n");
}

TEST(Space, FreshVolumeIsAllFreeAndInfoCountsTheOutsideTwelveMiB) {
  Volume v(64 * MiB);
  EXPECT_EQ(v.db.q_free(), 52 * MiB);
  int flag = -1;
  long long total = 0, free = 0;
  kit::StderrCapture cap;
  v.db.q_info(flag, total, free, 1);
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(total, 64 * MiB);
  EXPECT_EQ(free, 64 * MiB);
  EXPECT_EQ(cap.take(), "q_info[163]: HDD0: 64/64MB, (8M~8M)\n");
}

TEST(Space, RingArithmeticWrapsAndEqualBoundsWithEntriesMeanFull) {
  Volume v(64 * MiB);
  entryX_t x = v.root();
  for (int i = 0; i < 13; i++) {
    char n[8];
    snprintf(n, sizeof n, "E%d", i);
    ASSERT_EQ(v.db.e_create(x, 5, n), 0);
  }
  // 13 units fill the 52 MiB ring; the tail wrapped to the start, onto the head.
  EXPECT_EQ(v64(v.db.sb.tail), kRing);
  kit::StderrCapture cap;
  EXPECT_EQ(v.db.q_free(), 0);
  EXPECT_EQ(cap.take(), "q_free[234]: HDD0: ERR\n");
  v.db.sb.head = kRing + 12 * MiB;  // tail below head
  EXPECT_EQ(v.db.q_free(), 12 * MiB);
}

TEST(Space, FlagDecidesWritableAndOverwritable) {
  Volume v;
  int writable[3], over[3];
  for (int f = 0; f < 3; f++) {
    ASSERT_EQ(v.db.s_flag(f), 0);
    EXPECT_EQ(v.disk_sb().flag, static_cast<unsigned>(f));
    writable[f] = v.db.q_writable();
    over[f] = v.db.q_overwritable();
  }
  EXPECT_EQ(writable[0] + 2 * writable[1] + 4 * writable[2], 3);
  EXPECT_EQ(over[0] + 2 * over[1] + 4 * over[2], 1);
  kit::FailWrites fail(0);
  kit::StderrCapture quiet;
  EXPECT_EQ(v.db.s_flag(0), -1);
  EXPECT_EQ(v.db.error(), 2);
}

TEST(Space, FirstAndLastSkipUnreadableEntries) {
  Volume v;
  EXPECT_EQ(v.db.q_first(), 0);
  EXPECT_EQ(v.db.q_last(), 0);
  entryX_t x = v.root();
  for (int i = 0; i < 4; i++) {
    char n[8];
    snprintf(n, sizeof n, "H%d", i);
    ASSERT_EQ(v.db.e_create(x, 0, n), 0);
    entry_t e;
    ASSERT_EQ(v.db.e_read(x, i, e), 0);
    e.time = 1000 + i;
    ASSERT_EQ(v.db.e_write(x, i, e), 0);
  }
  EXPECT_EQ(v.db.q_first(), 1000);
  EXPECT_EQ(v.db.q_last(), 1003);
  char z = 1;
  kit::write_at(v.img, entry_at(kRoot, 0) + 200, &z, 1);
  kit::write_at(v.img, entry_at(kRoot, 3) + 200, &z, 1);
  kit::StderrCapture cap;
  EXPECT_EQ(v.db.q_first(), 1001);
  EXPECT_EQ(v.db.q_last(), 1002);
  std::string out = cap.take();
  EXPECT_EQ(kit::count(out, "q_first[203]: HDD0: ERR, i = 0\n"), 1);
  EXPECT_EQ(kit::count(out, "q_last[223]: HDD0: ERR, i = 3\n"), 1);
  EXPECT_EQ(v.db.error(), 0);
  kit::write_at(v.img, entry_at(kRoot, 1) + 200, &z, 1);
  kit::write_at(v.img, entry_at(kRoot, 2) + 200, &z, 1);
  kit::StderrCapture quiet;
  EXPECT_EQ(v.db.q_first(), -1);
  EXPECT_EQ(v.db.error(), 2);
}

namespace {

// n hours, each with one minute, stamped 1000, 1001, ...
void make_hours(Volume& v, int n) {
  for (int i = 0; i < n; i++) {
    char h[32];
    snprintf(h, sizeof h, "HOUR_%d:00", i);
    entry_t m = make_minute(v, h, "MIN_00:00");
    (void)m;
    entry_t e;
    ASSERT_EQ(v.db.f_open(e, 1, h), 0);
    e.time = 1000 + i;
    ASSERT_EQ(v.db.e_flush(e), 0);
  }
}

}  // namespace

TEST(Recycling, RemoveCompactsTheRootAndMovesTheHead) {
  Volume v;
  make_hours(v, 4);
  long long tail = v.db.sb.tail;
  kit::StderrCapture cap;
  ASSERT_EQ(v.db.remove(2), 0);
  std::string out = cap.take();
  entryX_t x = kit::get<entryX_t>(v.img, kRoot);
  EXPECT_EQ(x.num, 2);
  entry_t e0 = kit::get<entry_t>(v.img, entry_at(kRoot, 0));
  entry_t e1 = kit::get<entry_t>(v.img, entry_at(kRoot, 1));
  EXPECT_STREQ(e0.name, "HOUR_2:00");
  EXPECT_EQ(e0.idx, 0);
  EXPECT_EQ(e1.time, 1003);
  // Hours take two units each (table + minute); the third hour's region is the head.
  EXPECT_EQ(v64(v.disk_sb().head), kRing + 16 * MiB);
  EXPECT_EQ(v64(v.disk_sb().tail), tail);
  EXPECT_EQ(kit::count(out, "remove[348]: HDD0: REM, HOUR_0:00\n"), 1) << out;
  EXPECT_EQ(kit::count(out, "remove[409]: HDD0: num=2, 1st: HOUR_2:00, last: HOUR_3:00\n"), 1);
  EXPECT_EQ(kit::count(out, "remove[425]: HDD0: REMOVE DONE, 0.000000s, q_free = 36MB\n"), 1)
      << out;
  entry_t m;
  EXPECT_EQ(v.db.f_open(m, 2, "HOUR_3:00", "MIN_00:00"), 0);
  EXPECT_EQ(v.db.remove(0), 0);
}

TEST(Recycling, RemovingEverythingRestartsTheRing) {
  Volume v;
  make_hours(v, 3);
  kit::StderrCapture cap;
  ASSERT_EQ(v.db.remove(3), 0);
  EXPECT_EQ(kit::count(cap.take(), "remove[413]: HDD0: num=0\n"), 1);
  EXPECT_EQ(v64(v.disk_sb().head), kRing);
  EXPECT_EQ(v64(v.disk_sb().tail), kRing);
  EXPECT_EQ(v.db.q_free(), 52 * MiB);
}

TEST(Recycling, RemoveByTimeDropsTheOlderFront) {
  Volume v;
  make_hours(v, 4);
  kit::StderrCapture cap;
  EXPECT_EQ(v.db.remove_bytime(1000), 0);
  EXPECT_EQ(v.root().num, 4);
  EXPECT_EQ(v.db.remove_bytime(1002), 0);
  EXPECT_EQ(v.root().num, 2);
  std::string out = cap.take();
  // Listed once while counting and once more by remove.
  EXPECT_EQ(kit::count(out, "REM, HOUR_1:00\n"), 2);
  EXPECT_EQ(kit::count(out, "remove_bytime[449]: HDD0: REM, HOUR_0:00\n"), 1);
  EXPECT_EQ(v.db.q_first(), 1002);
}

TEST(Check, AConsistentVolumeIsReportedAndLeftUntouched) {
  Volume v;
  make_hours(v, 3);
  v.db.close();
  kit::StderrCapture cap;
  kit::WriteRecorder rec;
  fs_db d;
  ASSERT_EQ(d.open(0, v.img.c_str(), "w"), 0);
  rec.stop();
  d.close();
  EXPECT_TRUE(rec.ops().empty());
  EXPECT_EQ(cap.take(),
            "chkdsk[247]: HDD0: CHKDSK\n"
            "chkdsk[308]: HDD0: num=3, 1st: HOUR_0:00, last: HOUR_2:00\n"
            "chkdsk[327]: HDD0: CHKDSK DONE, 0.000000s\n");
}

TEST(Check, ADamagedEntryIsDroppedAndTheRestMoveUp) {
  Volume v;
  make_hours(v, 3);
  v.db.close();
  char z = 9;
  kit::write_at(v.img, entry_at(kRoot, 1) + 300, &z, 1);
  kit::StderrCapture cap;
  fs_db d;
  int sleeps = kit::FakeClock::sleeps;
  ASSERT_EQ(d.open(4, v.img.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 1);
  EXPECT_EQ(kit::FakeClock::sleeps - sleeps, 2);  // the bad entry's three tries
  d.close();
  std::string out = cap.take();
  EXPECT_EQ(kit::count(out, "chkdsk[262]: HDD4: ERR, 1\n"), 1) << out;
  EXPECT_EQ(kit::count(out, "chkdsk[274]: HOUR_2:00, 2 -> 1\n"), 1) << out;
  EXPECT_EQ(kit::count(out, "chkdsk[285]: HDD4: x_hour.num: 3 -> 2\n"), 1) << out;
  EXPECT_EQ(kit::get<entryX_t>(v.img, kRoot).num, 2);
  EXPECT_STREQ(kit::get<entry_t>(v.img, entry_at(kRoot, 1)).name, "HOUR_2:00");
  EXPECT_EQ(kit::get<entry_t>(v.img, entry_at(kRoot, 1)).idx, 1);
}

TEST(Check, AnEntryWithoutAChildTableIsDroppedAfterOneAttempt) {
  Volume v;
  make_hours(v, 2);
  long long child = kit::get<entry_t>(v.img, entry_at(kRoot, 0)).offset;
  v.db.close();
  char z[16] = {0};
  kit::write_at(v.img, child, z, 16);
  kit::StderrCapture cap;
  fs_db d;
  int sleeps = kit::FakeClock::sleeps;
  ASSERT_EQ(d.open(0, v.img.c_str(), "w"), 0);
  EXPECT_EQ(kit::FakeClock::sleeps, sleeps);
  d.close();
  std::string out = cap.take();
  char want[128];
  snprintf(want, sizeof want, "x_read[580]: HDD0: ERR 100, magic=0x0/0x%X\n",
           static_cast<unsigned>(v.disk_sb().key));
  EXPECT_EQ(kit::count(out, want), 1) << out;
  EXPECT_EQ(kit::count(out, "chkdsk[269]: ERR: 0, HOUR_0:00\n"), 1) << out;
  // The head follows the surviving first hour.
  EXPECT_EQ(v64(v.disk_sb().head), kRing + 8 * MiB);
}

TEST(Check, AnEmptyRootPutsBothBoundsBackAtTheRingStart) {
  Volume v;
  v.db.sb.head = v.db.sb.tail = kRing + 20 * MiB;
  ASSERT_EQ(v.db.sb_write(v.db.sb), 0);
  kit::StderrCapture cap;
  ASSERT_EQ(v.db.chkdsk(), 0);
  EXPECT_EQ(kit::count(cap.take(), "chkdsk[312]: HDD0: num=0\n"), 1);
  EXPECT_EQ(v64(v.disk_sb().head), kRing);
  EXPECT_EQ(v64(v.disk_sb().tail), kRing);
}

TEST(Listing, EntryLinesAndTheChildTableSummary) {
  Volume v;
  ASSERT_EQ(v.db.f_create(0, 1, "EMPTY"), 0);
  entry_t hour = make_minute(v, "HOUR_1:00", "MIN_00:00");
  char b[16] = {0};
  ASSERT_EQ(v.db.d_write(hour, 0x400000, 16, b), 0);  // grows the minute to 12 MiB
  entry_t e;
  ASSERT_EQ(v.db.f_open(e, 1, "EMPTY"), 0);
  const std::string rule(40, '=');
  {
    kit::StderrCapture cap;
    v.db.print(e);
    EXPECT_EQ(cap.take(), rule + "\nE_000: EMPTY, 0, 0/4MB\n" + rule + "\n");
  }
  kit::StderrCapture cap;
  v.db.print();
  EXPECT_EQ(cap.take(), rule + "\nE_000: EMPTY, 0, 0/4MB\n" + rule + "\n" + rule +
                            "\nE_001: HOUR_1:00, 0, 0/4MB\nE_000: MIN_00:00, 5, 0/12MB, 12MB\n" +
                            rule + "\n");
}
