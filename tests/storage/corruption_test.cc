// Seeded random damage to superblocks, table headers and entries: every read path of
// a volume must fail or skip, never crash, hang or touch memory it does not own (run
// under AddressSanitizer and UndefinedBehaviorSanitizer to see the last).
#include <gtest/gtest.h>
#include <limits.h>

#include <random>

#include "storage/volume_fixture.h"

using namespace storage_test;

namespace {

const long long kImage = 64 * MiB;

// Places of metadata in the template volume.
struct Layout {
  std::vector<long long> headers;  // root and child table headers
  std::vector<long long> entries;  // root and child entries
  long long secondary;
  unsigned key;
};

// A volume with three hours of two minutes each, built from recorded writes so that
// every damaged copy is rebuilt cheaply from nothing.
Layout build_template(kit::WriteRecorder& rec, const std::string& img) {
  Layout l;
  kit::make_image(img, kImage);
  kit::StderrCapture quiet;
  fs_db d;
  d.open(0, img.c_str(), "w");
  EXPECT_EQ(d.format(), 0);
  l.key = d.sb.key;
  l.secondary = kRing + d.sb.size;
  l.headers.push_back(kRoot);
  for (int h = 0; h < 3; h++) {
    char hn[16];
    snprintf(hn, sizeof hn, "HOUR_%d:00", h);
    EXPECT_EQ(d.f_create(0, 1, hn), 0);
    entry_t he;
    EXPECT_EQ(d.f_open(he, 1, hn), 0);
    l.entries.push_back(entry_at(kRoot, h));
    l.headers.push_back(he.offset);
    for (int m = 0; m < 2; m++) {
      char mn[16];
      snprintf(mn, sizeof mn, "MIN_%.2d:00", m);
      EXPECT_EQ(d.f_create(5, 2, hn, mn), 0);
      entry_t e;
      EXPECT_EQ(d.f_open(e, 2, hn, mn), 0);
      char b[4096];
      memset(b, 'a' + m, sizeof b);
      EXPECT_EQ(d.d_write(e, 0, sizeof b, b), 0);
      e.time = 1000 + h;
      EXPECT_EQ(d.e_flush(e), 0);
      l.entries.push_back(entry_at(he.offset, m));
    }
  }
  d.close();
  rec.stop();
  return l;
}

void seal_header(std::string& b, unsigned key) {
  uint16_t k = static_cast<uint16_t>(key);
  memcpy(&b[0], &k, 2);
  memcpy(&b[2], &k, 2);
  uint16_t c = static_cast<uint16_t>(fs_db::checksum(b.data(), 8));
  memcpy(&b[2], &c, 2);
}

void seal_entry(std::string& b, unsigned key) {
  uint16_t k = static_cast<uint16_t>(key);
  memcpy(&b[0], &k, 2);
  uint16_t c = static_cast<uint16_t>(fs_db::checksum(b.data(), 162));
  memcpy(&b[0], &c, 2);
}

void seal_sb(std::string& b) {
  uint32_t ctime;
  memcpy(&ctime, &b[4], 4);
  uint16_t key = static_cast<uint16_t>(fs_db::checksum(&ctime, 2));
  memcpy(&b[0], &key, 2);
  memset(&b[2], 0, 2);
  uint16_t c = static_cast<uint16_t>(fs_db::checksum(b.data(), 18));
  memcpy(&b[2], &c, 2);
}

// One damage: random bytes in a record, then sometimes sealed again so that it
// passes its checksum and the damaged values themselves reach the code.
void damage(std::mt19937& rng, const std::string& img, const Layout& l) {
  int kind = static_cast<int>(rng() % 5);
  long long off;
  int len;
  switch (kind) {
    case 0:
      off = 0;
      len = 36;
      break;
    case 1:
      off = l.secondary;
      len = 36;
      break;
    case 2:
      off = l.headers[rng() % l.headers.size()];
      len = 16;
      break;
    default:
      off = l.entries[rng() % l.entries.size()];
      len = 324;
      break;
  }
  std::string b = kit::read_at(img, off, len);
  int flips = 1 + static_cast<int>(rng() % 4);
  static const long long interesting[] = {0,       -1,        1,          12945,    INT_MIN,
                                          INT_MAX, 0x3FFFFF,  0x400000,   0x800000, kImage - 1,
                                          kImage,  1LL << 40, -0x800000LL};
  for (int i = 0; i < flips; i++) {
    if (rng() % 2 == 0) {
      b[rng() % b.size()] = static_cast<char>(rng());
    } else {
      // A whole field-sized value at a 4-byte boundary.
      long long v = interesting[rng() % (sizeof interesting / sizeof interesting[0])];
      size_t at = (rng() % (b.size() / 4)) * 4;
      size_t n = std::min<size_t>(rng() % 2 ? 8 : 4, b.size() - at);
      memcpy(&b[at], &v, n);
    }
  }
  if (rng() % 2 == 0) {
    if (len == 36) seal_sb(b);
    if (len == 16) {
      // Counts far beyond the table's room are covered separately; here they stay
      // within what a 64 MiB device can hold a few hundred of.
      int32_t num;
      memcpy(&num, &b[12], 4);
      if (num > 400) num = num % 400;
      memcpy(&b[12], &num, 4);
      seal_header(b, l.key);
    }
    if (len == 324) {
      // Names without a terminating NUL, too.
      if (rng() % 4 == 0) memset(&b[16], 'N', 32);
      seal_entry(b, l.key);
    }
  }
  kit::write_at(img, off, b.data(), len);
}

// Counts of how far the damaged images got, to show the sweep reaches past open.
struct Reach {
  int opened = 0, repaired = 0, refused = 0;
};

void exercise(const std::string& img, const char* mode, Reach& reach) {
  fs_db d;
  if (d.open(0, img.c_str(), mode) != 0) {
    reach.refused++;
  } else {
    reach.opened++;
    if (d.error() == 1) reach.repaired++;
    d.print();
    d.q_first();
    d.q_last();
    d.q_free();
    int flag;
    long long total, free;
    d.q_info(flag, total, free, 1);
    entry_t e;
    if (d.f_open(e, 2, "HOUR_1:00", "MIN_01:00") == 0) {
      char b[4096];
      d.d_read(e, 0, sizeof b, b);
    }
    d.chkdsk();
  }
  d.close();
}

}  // namespace

TEST(Corruption, RandomDamageIsRefusedRepairedOrSkipped) {
  kit::TempDir dir;
  kit::FakeClock clock(1700000000, 0);
  std::string tmpl = dir / "template";
  kit::WriteRecorder rec;
  Layout l = build_template(rec, tmpl);
  std::string img = dir / "damaged";
  const int kImages = 1200;
  Reach reach;
  int idempotent = 0, odd_size = 0;
  for (int seed = 0; seed < kImages; seed++) {
    rec.replay(tmpl, "", img, kImage, rec.writes_to(tmpl).size());
    std::mt19937 rng(static_cast<unsigned>(seed));
    int n = 1 + static_cast<int>(rng() % 3);
    for (int i = 0; i < n; i++) damage(rng, img, l);
    kit::StderrCapture quiet;
    {  // A read-only open never writes, whatever it finds.
      kit::WriteRecorder ro;
      exercise(img, "r", reach);
      ro.stop();
      EXPECT_EQ(0u, ro.writes_to(img).size()) << "seed " << seed;
    }
    // The first writable open repairs what it can; a second one must find the volume
    // consistent and write nothing (the repair is complete and idempotent).
    bool opened, odd;
    {
      fs_db d;
      opened = d.open(0, img.c_str(), "w") == 0;
      if (opened && d.error() == 1) reach.repaired++;
      // A sealed superblock whose size is no multiple of 4 MiB, or runs past the device,
      // is accepted all the same, and its second copy is then written wherever that
      // size puts it, possibly over a table (see the test below): not repeatable.
      long long size = d.sb.size;
      odd = size % 0x400000 != 0 || size + 0xC00000 > kImage;
      d.close();
    }
    if (opened && odd) odd_size++;
    if (opened && !odd) {
      kit::WriteRecorder again;
      fs_db d;
      EXPECT_EQ(0, d.open(0, img.c_str(), "w")) << "seed " << seed;
      EXPECT_EQ(0, d.error()) << "seed " << seed;
      d.close();
      again.stop();
      EXPECT_EQ(0u, again.writes_to(img).size()) << "seed " << seed;
      idempotent++;
    }
    exercise(img, "w", reach);
    exercise(img, "w", reach);
    if (HasFailure()) FAIL() << "seed " << seed;
  }
  // Both outcomes must be common, or the damage is too mild or too blunt to test much.
  EXPECT_GT(reach.opened, kImages / 4);
  EXPECT_GT(reach.repaired, kImages / 20);
  EXPECT_GT(reach.refused, kImages / 20);
  EXPECT_GT(idempotent, kImages / 4);
  printf("opened %d, repaired %d, refused %d, repairs proved idempotent %d, odd sizes %d\n",
         reach.opened, reach.repaired, reach.refused, idempotent, odd_size);
}

TEST(Corruption, BothSuperblockCopiesLostMeansNoVolume) {
  kit::TempDir dir;
  kit::FakeClock clock(1700000000, 0);
  std::string img = dir / "sda";
  format_image(img, kImage);
  sb_t s = kit::get<sb_t>(img, 0);
  s.checksum ^= 0x8000;
  kit::write_at(img, 0, &s, sizeof s);
  kit::write_at(img, kImage - 4 * MiB, &s, sizeof s);
  kit::StderrCapture quiet;
  fs_db d;
  EXPECT_EQ(d.open(0, img.c_str(), "w"), -1);
  EXPECT_EQ(d.q_key(), 0u);
  EXPECT_EQ(d.q_writable(), 0);
  d.close();
}

// A sealed root header claiming two billion entries: walks stop at the end of the
// device, and every entry past the three real ones is dropped by the check.
TEST(Corruption, AHugeCountIsWalkedOnlyToTheEndOfTheDevice) {
  kit::TempDir dir;
  kit::FakeClock clock(1700000000, 0);
  std::string img = dir / "sda";
  const long long small = 16 * MiB + 64 * 1024;  // a table area of ~13,000 slots
  format_image(img, small);
  {
    kit::StderrCapture quiet;
    fs_db d;
    ASSERT_EQ(d.open(0, img.c_str(), "w"), 0);
    ASSERT_EQ(d.f_create(0, 1, "A"), 0);
    d.close();
  }
  sb_t s = kit::get<sb_t>(img, 0);
  std::string h = kit::read_at(img, kRoot, 16);
  int32_t num = INT_MAX;
  memcpy(&h[12], &num, 4);
  seal_header(h, s.key);
  kit::write_at(img, kRoot, h.data(), 16);
  kit::StderrCapture quiet;
  fs_db d;
  EXPECT_EQ(d.open(0, img.c_str(), "r"), 0);
  EXPECT_EQ(d.q_first(), 0);  // the one real hour has time 0
  EXPECT_EQ(d.q_last(), 0);
  d.close();
  ASSERT_EQ(d.open(0, img.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 1);
  entryX_t x;
  ASSERT_EQ(d.x_read(0, x), 0);
  EXPECT_EQ(x.num, 1);
  d.close();
}

// A superblock is valid when its size is not 0, its flag at most 2 and its key and
// checksum hold; nothing asks the size to be a multiple of 4 MiB or to fit the device.
// A damaged but consistent copy with size 1 is therefore trusted, and when the check
// corrects its head it writes the second copy at 0x800000 + 1: over the child header
// of the first hour. That open reports nothing; the next one drops the hour. Found by
// the sweep above (seed 180), which leaves such images out of its repeatability check.
TEST(Corruption, ATrustedOddSizeMakesTheCheckWriteIntoTheRing) {
  kit::TempDir dir;
  kit::FakeClock clock(1700000000, 0);
  std::string img = dir / "sda";
  format_image(img, kImage);
  {
    kit::StderrCapture quiet;
    fs_db d;
    ASSERT_EQ(d.open(0, img.c_str(), "w"), 0);
    ASSERT_EQ(d.f_create(0, 1, "HOUR_0:00"), 0);
    ASSERT_EQ(d.f_create(0, 1, "HOUR_1:00"), 0);
    d.close();
  }
  std::string b = kit::read_at(img, 0, 36);
  long long size = 1, head = 0x1000000;
  memcpy(&b[12], &size, 8);
  memcpy(&b[20], &head, 8);
  seal_sb(b);
  kit::write_at(img, 0, b.data(), 36);

  kit::StderrCapture err;
  fs_db d;
  ASSERT_EQ(d.open(0, img.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 0);
  d.close();
  sb_t copy = kit::get<sb_t>(img, kRing + 1);
  EXPECT_EQ(v64(copy.size), 1);
  EXPECT_EQ(v64(copy.head), kRing);
  ASSERT_EQ(d.open(0, img.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 1);
  entry_t e;
  EXPECT_EQ(d.f_open(e, 1, "HOUR_0:00"), -1);
  EXPECT_EQ(d.f_open(e, 1, "HOUR_1:00"), 0);
  d.close();
  std::string text = err.take();
  EXPECT_EQ(kit::count(text, "x_hour.num: 2 -> 1"), 1) << text;
}
