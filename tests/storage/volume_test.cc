// Life cycle, superblock, table headers and entries of a volume, checked against the
// bytes of the image.
#include <gtest/gtest.h>

#include "storage/volume_fixture.h"

using namespace storage_test;

TEST(Format, WritesBothSuperblockCopiesAndAnEmptyRootBoundToTheKey) {
  Volume v(64 * MiB + 1 * MiB, 0x12345678);
  sb_t s = v.disk_sb();
  EXPECT_EQ(s.ctime, 0x12345678u);
  EXPECT_EQ(s.key, 0x5678 ^ 0x1234);
  EXPECT_EQ(s.flag, 0u);
  // (65 MiB - 12 MiB) truncated to whole 4 MiB units.
  EXPECT_EQ(v64(s.size), 52 * MiB);
  EXPECT_EQ(v64(s.head), kRing);
  EXPECT_EQ(v64(s.tail), kRing);
  EXPECT_EQ(xor_words(kit::read_at(v.img, 0, 36)), 0);
  EXPECT_EQ(kit::read_at(v.img, kRing + 52 * MiB, 36), kit::read_at(v.img, 0, 36));

  entryX_t x = kit::get<entryX_t>(v.img, kRoot);
  EXPECT_EQ(x.key, s.key);
  EXPECT_EQ(v64(x.offset), kRoot);
  EXPECT_EQ(x.num, 0);
  EXPECT_EQ(xor_words(kit::read_at(v.img, kRoot, 16)), s.key);
  EXPECT_EQ(v.db.q_key(), 0x12345678u);
  EXPECT_EQ(v.db.error(), 0);
}

TEST(Format, SecondaryCopyIsFoundOnlyWhereItWasWrittenOnWholeUnitDevices) {
  // 64 MiB: written at 0x800000 + 52 MiB = D - 4 MiB, where it is looked for.
  Volume whole(64 * MiB);
  // 65 MiB: written at 60 MiB but looked for at 61 MiB.
  Volume odd(65 * MiB);
  const char zero[36] = {0};
  for (Volume* v : {&whole, &odd}) {
    v->db.close();
    kit::write_at(v->img, 0, zero, 36);
  }
  kit::StderrCapture cap;
  fs_db a, b;
  EXPECT_EQ(a.open(0, whole.img.c_str(), "r"), 0);
  EXPECT_EQ(v64(a.sb.size), 52 * MiB);
  EXPECT_EQ(b.open(1, odd.img.c_str(), "r"), -1);
  EXPECT_EQ(b.error(), 2);
  EXPECT_EQ(b.q_key(), 0u);
  a.close();
  b.close();
  std::string out = cap.take();
  // The zeroed primary fails on its size first; the odd device's sought copy too.
  EXPECT_EQ(kit::count(out, "sb_read[464]: HDD0: ERR\n"), 1) << out;
  EXPECT_EQ(kit::count(out, "sb_read[464]: HDD1: ERR\n"), 2) << out;
}

TEST(Format, TestModeMarkerFixesTheRingAtThreeGiB) {
  kit::Board board(1, 64 * MiB);
  board.touch("/zconf/rd/fs/test");
  kit::FakeClock clock(1700000000, 0);
  kit::StderrCapture quiet;
  fs_db d;
  d.open(0, "/dev/sda", "w");
  // The secondary copy lands at 3 GiB + 8 MiB, far past this device: the sparse
  // image simply grows there.
  EXPECT_EQ(d.format(), 0);
  EXPECT_EQ(v64(d.sb.size), 0xC0000000LL);
  sb_t second = kit::get<sb_t>(board.image("sda"), 0xC0000000LL + kRing);
  EXPECT_EQ(v64(second.size), 0xC0000000LL);
  d.close();
}

TEST(Format, ADeviceOfTwelveMiBCannotHoldAVolume) {
  kit::TempDir dir;
  kit::FakeClock clock(1700000000, 0);
  std::string img = dir / "small";
  kit::make_image(img, 12 * MiB);
  kit::StderrCapture cap;
  fs_db d;
  d.open(3, img.c_str(), "w");
  EXPECT_EQ(d.format(), -1);
  EXPECT_EQ(d.error(), 2);
  EXPECT_EQ(d.q_key(), 0u);
  d.close();
  std::string out = cap.take();
  EXPECT_NE(out.find("sb_read[464]: HDD3: ERR\nsb_read[464]: HDD3: ERR\nformat[68]: HDD3: ERR\n"),
            std::string::npos)
      << out;
}

TEST(Superblock, EachValidityTestHasItsOwnMessageInOrder) {
  Volume v;
  v.db.close();
  sb_t good = v.disk_sb();
  // Zero the secondary so that it fails on its size, apart from the primary's verdict.
  char junk[36];
  memset(junk, 0, sizeof junk);
  kit::write_at(v.img, v.bytes - 4 * MiB, junk, 36);

  struct Case {
    const char* what;
    void (*damage)(sb_t&);
    const char* line;
  } cases[] = {
      {"flag 3", [](sb_t& s) { s.flag = 3; }, "sb_read[468]: HDD0: ERR\n"},
      {"key", [](sb_t& s) { s.key ^= 1; }, nullptr},
      {"checksum", [](sb_t& s) { s.checksum ^= 1; }, "sb_read[476]: HDD0: ERR\n"},
  };
  for (const Case& c : cases) {
    sb_t s = good;
    c.damage(s);
    kit::write_at(v.img, 0, &s, sizeof s);
    kit::StderrCapture cap;
    fs_db d;
    EXPECT_EQ(d.open(0, v.img.c_str(), "r"), -1) << c.what;
    d.close();
    std::string out = cap.take();
    if (c.line != nullptr) {
      EXPECT_EQ(kit::count(out, c.line), 1) << c.what << out;
    } else {
      char want[128];
      snprintf(want, sizeof want, "sb_read[472]: HDD0: ERR: 0x%X, 0x%X != 0x%X\n", good.ctime,
               static_cast<unsigned>(good.key ^ 1), static_cast<unsigned>(good.key));
      EXPECT_EQ(kit::count(out, want), 1) << out;
    }
  }
}

TEST(Superblock, WriteSetsTheChecksumAndPutsThePrimaryFirst) {
  Volume v;
  kit::WriteRecorder rec;
  EXPECT_EQ(v.db.s_flag(1), 0);
  rec.stop();
  ASSERT_EQ(rec.ops().size(), 2u);
  EXPECT_EQ(rec.ops()[0].off, 0);
  EXPECT_EQ(rec.ops()[1].off, kRing + v64(v.db.sb.size));
  EXPECT_EQ(xor_words(rec.ops()[0].bytes), 0);
  EXPECT_EQ(v.disk_sb().flag, 1u);
}

TEST(Superblock, OpenWithoutADeviceFailsAtTheSuperblockRead) {
  kit::StderrCapture cap;
  fs_db d;
  EXPECT_EQ(d.open(2, "/nonexistent/ringrec/disk", "w"), -1);
  EXPECT_EQ(d.error(), 2);
  EXPECT_EQ(d.q_key(), 0u);
  EXPECT_EQ(d.q_writable(), 0);
  EXPECT_EQ(d.q_overwritable(), 0);
  d.close();
}

TEST(TableHeader, OffsetZeroIsTheRootAndALowOffsetIsRetriedThreeTimes) {
  Volume v;
  entryX_t x;
  EXPECT_EQ(v.db.x_read(0, x), 0);
  EXPECT_EQ(v64(x.offset), kRoot);

  kit::StderrCapture cap;
  int before = kit::FakeClock::sleeps;
  EXPECT_EQ(v.db.x_read(0x3FFFFF, x), -1);
  EXPECT_EQ(kit::FakeClock::sleeps - before, 2);
  // Retry count first, then the disk number.
  EXPECT_EQ(cap.take(),
            "x_read[572]: HDD0: ERR 0, OFFSET\n"
            "x_read[572]: HDD1: ERR 0, OFFSET\n"
            "x_read[572]: HDD2: ERR 0, OFFSET\n");

  // The memory persists: the same offset again is given up on after one attempt.
  kit::StderrCapture again;
  EXPECT_EQ(v.db.x_read(0x3FFFFF, x), -1);
  EXPECT_EQ(kit::FakeClock::sleeps - before, 2);
  EXPECT_EQ(again.take(), "x_read[572]: HDD3: ERR 0, OFFSET\n");
}

TEST(TableHeader, AHeaderIsValidOnlyAtItsOwnPlaceUnderItsOwnKey) {
  Volume v;
  long long elsewhere = kRing + 40 * MiB;
  kit::write_at(v.img, elsewhere, kit::read_at(v.img, kRoot, 16).data(), 16);
  entryX_t x;
  {
    kit::StderrCapture cap;
    EXPECT_EQ(v.db.x_read(elsewhere, x), -1);
    std::string out = cap.take();
    char want[128];
    snprintf(want, sizeof want, "x_read[584]: HDD0: ERR 1, offset=%lld/%lld\n", kRoot, elsewhere);
    EXPECT_EQ(kit::count(out, want), 1) << out;
  }
  v.db.sb.key ^= 0x0101;
  {
    kit::StderrCapture cap;
    EXPECT_EQ(v.db.x_read(0, x), -1);
    std::string out = cap.take();
    char want[128];
    snprintf(want, sizeof want, "x_read[580]: HDD0: ERR 2, magic=0x%X/0x%X\n",
             static_cast<unsigned>(v.db.sb.key ^ 0x0101), static_cast<unsigned>(v.db.sb.key));
    EXPECT_EQ(kit::count(out, want), 1) << out;
  }
  v.db.sb.key ^= 0x0101;
  uint16_t bad = 0xBEEF;
  kit::write_at(v.img, kRoot + 2, &bad, 2);
  {
    kit::StderrCapture cap;
    // The root failed just before: the remembered offset allows one attempt only.
    EXPECT_EQ(v.db.x_read(0, x), -1);
    EXPECT_EQ(cap.take(), "x_read[588]: HDD0: ERR 3, CHECKSUM\n");
  }
}

TEST(TableHeader, WriteBelowTheRootIsRefused) {
  Volume v;
  entryX_t x = v.root();
  kit::StderrCapture cap;
  kit::WriteRecorder rec;
  EXPECT_EQ(v.db.x_write(0x3FFFF0, x), -1);
  EXPECT_TRUE(rec.ops().empty());
  EXPECT_EQ(cap.take(), "x_write[609]: HDD0: ERR, OFFSET\n");
}

TEST(Entries, CreatePlacesTheEntryAllocatesAUnitAndBindsItToTheKey) {
  Volume v;
  entryX_t x = v.root();
  ASSERT_EQ(v.db.e_create(x, 0, "HOUR_1:00"), 0);
  ASSERT_EQ(v.db.e_create(x, 0, "HOUR_1:01"), 0);
  EXPECT_EQ(x.num, 2);
  EXPECT_EQ(kit::get<entryX_t>(v.img, kRoot).num, 2);
  EXPECT_EQ(v64(v.disk_sb().tail), kRing + 8 * MiB);

  entry_t e = kit::get<entry_t>(v.img, entry_at(kRoot, 1));
  EXPECT_STREQ(e.name, "HOUR_1:01");
  EXPECT_EQ(e.idx, 1);
  EXPECT_EQ(v64(e.xoffset), kRoot);
  EXPECT_EQ(v64(e.offset), kRing + 4 * MiB);
  EXPECT_EQ(e.max, 0x400000);
  EXPECT_EQ(e.size, 0);
  EXPECT_EQ(xor_words(kit::read_at(v.img, entry_at(kRoot, 1), 324)), v.key());
  // A type-0 entry's region starts with an empty table of its own.
  entryX_t child = kit::get<entryX_t>(v.img, kRing + 4 * MiB);
  EXPECT_EQ(v64(child.offset), kRing + 4 * MiB);
  EXPECT_EQ(child.num, 0);

  // Another kind of entry gets no header in its region.
  ASSERT_EQ(v.db.f_create(7, 2, "HOUR_1:01", "MIN_01:00"), 0);
  EXPECT_EQ(kit::get<entryX_t>(v.img, kRing + 8 * MiB).key, 0);
}

TEST(Entries, CreateWithATakenNameWritesNothing) {
  Volume v;
  entryX_t x = v.root();
  ASSERT_EQ(v.db.e_create(x, 0, "A"), 0);
  kit::WriteRecorder rec;
  EXPECT_EQ(v.db.e_create(x, 3, "A"), -1);
  EXPECT_TRUE(rec.ops().empty());
  EXPECT_EQ(x.num, 1);
}

TEST(Entries, AFailingEntryIsTriedThreeTimesAndRememberedAcrossCalls) {
  Volume v;
  entryX_t x = v.root();
  ASSERT_EQ(v.db.e_create(x, 0, "A"), 0);
  char z = 0x55;
  kit::write_at(v.img, entry_at(kRoot, 0) + 100, &z, 1);
  entry_t e;
  int before = kit::FakeClock::sleeps;
  kit::StderrCapture cap;
  EXPECT_EQ(v.db.e_read(x, 0, e), -1);
  EXPECT_EQ(kit::FakeClock::sleeps - before, 2);
  char want[256];
  long long off = entry_at(kRoot, 0);
  snprintf(want, sizeof want,
           "e_read[700]: HDD0: ERR, CHECKSUM\ne_read[711]: HDD0: ERR_TRY 0, offset=%lld\n"
           "e_read[700]: HDD0: ERR, CHECKSUM\ne_read[711]: HDD0: ERR_TRY 1, offset=%lld\n"
           "e_read[700]: HDD0: ERR, CHECKSUM\ne_read[711]: HDD0: ERR_TRY 2, offset=%lld\n",
           off, off, off);
  EXPECT_EQ(cap.take(), want);

  kit::StderrCapture again;
  EXPECT_EQ(v.db.e_read(x, 0, e), -1);
  EXPECT_EQ(kit::FakeClock::sleeps - before, 2);
  EXPECT_EQ(kit::count(again.take(), "ERR_TRY 3,"), 1);
}

TEST(Entries, AnEntryIsValidOnlyAtItsIndexAndUnderItsFormat) {
  Volume v;
  entryX_t x = v.root();
  ASSERT_EQ(v.db.e_create(x, 0, "A"), 0);
  std::string bytes = kit::read_at(v.img, entry_at(kRoot, 0), 324);
  kit::write_at(v.img, entry_at(kRoot, 1), bytes.data(), 324);
  x.num = 2;
  entry_t e;
  {
    kit::StderrCapture cap;
    EXPECT_EQ(v.db.e_read(x, 1, e), -1);
    EXPECT_EQ(kit::count(cap.take(), "e_read[696]: HDD0: ERR, IDX\n"), 3);
  }
  // The same bytes fail once the volume is formatted again under another key.
  v.db.close();
  kit::FakeClock::wall += 0x10001;
  {
    kit::StderrCapture quiet;
    fs_db d;
    d.open(0, v.img.c_str(), "w");
    ASSERT_EQ(d.format(), 0);
    kit::write_at(v.img, entry_at(kRoot, 0), bytes.data(), 324);
    entryX_t r;
    ASSERT_EQ(d.x_read(0, r), 0);
    r.num = 1;
    EXPECT_EQ(d.e_read(r, 0, e), -1);
    d.close();
  }
}

TEST(Entries, RunsTransferManyEntriesAtOnceAndCheckEachOne) {
  Volume v;
  entryX_t x = v.root();
  for (const char* n : {"A", "B", "C"}) ASSERT_EQ(v.db.e_create(x, 5, n), 0);
  entry_t run[3];
  ASSERT_EQ(v.db.e_reads(x, 0, run, 3), 0);
  EXPECT_STREQ(run[2].name, "C");
  EXPECT_EQ(v.db.e_reads(x, 0, run, 0), 0);
  {
    kit::StderrCapture cap;
    EXPECT_EQ(v.db.e_reads(x, 1, run, 3), -1);  // slot 3 was never written
    EXPECT_EQ(cap.take(), "e_reads[728]: HDD0: ERR, IDX\n");
  }
  // Writing a run checks only the first index and seals every entry.
  ASSERT_EQ(v.db.e_reads(x, 0, run, 3), 0);
  run[1].time = 77;
  run[2].time = 88;
  kit::WriteRecorder rec;
  EXPECT_EQ(v.db.e_writes(x, 0, run, 3), 0);
  rec.stop();
  ASSERT_EQ(rec.ops().size(), 1u);
  EXPECT_EQ(rec.ops()[0].bytes.size(), 3u * 324);
  entry_t e;
  ASSERT_EQ(v.db.e_read(x, 2, e), 0);
  EXPECT_EQ(e.time, 88);
  kit::StderrCapture cap;
  EXPECT_EQ(v.db.e_writes(x, 1, run, 3), -1);
  EXPECT_EQ(v.db.e_write(x, 1, run[0]), -1);
  EXPECT_EQ(cap.take(), "e_writes[765]: HDD0: ERR, IDX\ne_write[745]: HDD0: ERR, IDX\n");
}

TEST(Paths, OpenWalksTablesAndCreateNeverMakesIntermediateOnes) {
  Volume v;
  entry_t e;
  memset(&e, 0, sizeof e);
  EXPECT_EQ(v.db.f_open(e, 0), 0);
  EXPECT_EQ(v.db.f_create(0, 0), 0);
  EXPECT_EQ(v.db.f_open(e, 2, "A", "B"), -1);
  EXPECT_EQ(v.db.f_create(1, 2, "A", "B"), -1);
  EXPECT_EQ(v.root().num, 0);

  ASSERT_EQ(v.db.f_create(0, 1, "A"), 0);
  ASSERT_EQ(v.db.f_create(0, 2, "A", "B"), 0);
  ASSERT_EQ(v.db.f_create(9, 3, "A", "B", "C"), 0);
  ASSERT_EQ(v.db.f_open(e, 2, "A", "B"), 0);
  EXPECT_STREQ(e.name, "B");
  EXPECT_EQ(e.type, 0);
  ASSERT_EQ(v.db.f_open(e, 3, "A", "B", "C"), 0);
  EXPECT_EQ(e.type, 9);
  EXPECT_EQ(v64(e.xoffset), kRing + 4 * MiB);
  EXPECT_EQ(v.db.f_open(e, 2, "A", "C"), -1);
  // Names are compared exactly.
  EXPECT_EQ(v.db.f_open(e, 1, "a"), -1);
  EXPECT_EQ(v.db.f_open(e, 1, "A "), -1);
}

TEST(Paths, LongNamesAreCutToThirtyOneCharacters) {
  Volume v;
  const char* longname = "0123456789012345678901234567890123456789";
  ASSERT_EQ(v.db.f_create(3, 1, longname), 0);
  entry_t e;
  ASSERT_EQ(v.db.f_open(e, 1, "0123456789012345678901234567890"), 0);
  EXPECT_EQ(strlen(e.name), 31u);
}
