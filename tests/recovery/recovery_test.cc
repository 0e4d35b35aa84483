// The scan of a data area for stored blocks, against what the capture simulator handed
// to write. A second finder, independent of the scanner, says which written blocks an
// image still holds: every place where a written block's exact bytes lie. The scan must
// return exactly those (nothing that was not written, nothing that survives left out),
// whatever happened to the tables: the damage a power loss leaves, recycling, a new
// format, a seeded sweep of random damage.
#include <gtest/gtest.h>
#include <ringrec/recovery.h>
#include <string.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <unordered_map>

#include "kit/recorder.h"
#include "storage/volume_layout.h"

namespace {

const char* const kDev = "/dev/sda";

struct found_t {
  std::string bytes;
  long long pos;
  int reach;
};

int collect(void* ctx, const rc_block_t& b) {
  if (b.frame_block)
    static_cast<std::vector<found_t>*>(ctx)->push_back(
        {std::string(reinterpret_cast<const char*>(b.bytes), static_cast<size_t>(b.len)), b.pos,
         b.reach});
  return 0;
}

// Scans the device and returns the frame blocks found.
std::vector<found_t> scan(fs_recover& r, const std::string& path) {
  std::vector<found_t> v;
  EXPECT_EQ(0, r.open(path.c_str()));
  EXPECT_GE(r.scan(-0x7FFFFFFF - 1, 0x7FFFFFFF, collect, &v), 0);
  return v;
}

// The independent finder: at every place where a written block's first 64 bytes (its
// time and tick number make them unique) lie in the image, compare the whole block.
std::map<long long, size_t> present(const std::string& img, long long base,
                                    const std::vector<rec::written>& w) {
  std::unordered_map<std::string, size_t> by_head;
  for (size_t i = 0; i < w.size(); i++) by_head[w[i].bytes.substr(0, 64)] = i;
  std::map<long long, size_t> out;
  for (size_t at = 0; at + 64 <= img.size(); at++) {
    const void* p = memchr(img.data() + at, 0x34, img.size() - 63 - at);
    if (p == nullptr) break;
    at = static_cast<size_t>(static_cast<const char*>(p) - img.data());
    if (img[at + 1] != 0x12 || img[at + 2] != 0 || img[at + 3] != 0) continue;
    auto it = by_head.find(img.substr(at, 64));
    if (it == by_head.end()) continue;
    const std::string& b = w[it->second].bytes;
    if (img.compare(at, b.size(), b) == 0) out[base + static_cast<long long>(at)] = it->second;
  }
  return out;
}

std::string whole(const std::string& path) {
  std::string s;
  FILE* f = fopen(path.c_str(), "rb");
  char b[1 << 16];
  size_t n;
  while (f != nullptr && (n = fread(b, 1, sizeof b, f)) > 0) s.append(b, n);
  if (f != nullptr) fclose(f);
  return s;
}

// The scan found exactly the written blocks the image still holds, each at its place.
void expect_exact(const std::vector<found_t>& got, const std::map<long long, size_t>& want,
                  const std::vector<rec::written>& w, const std::string& ctx) {
  std::map<long long, size_t> seen;
  for (const found_t& f : got) {
    auto it = want.find(f.pos);
    ASSERT_TRUE(it != want.end()) << ctx << ": a block at " << f.pos << " that was not written";
    EXPECT_TRUE(w[it->second].bytes == f.bytes) << ctx << " at " << f.pos;
    seen[f.pos] = it->second;
  }
  EXPECT_EQ(want.size(), seen.size()) << ctx << ": surviving blocks left out";
}

struct Recording {
  kit::FakeClock clock{rec::kHour0, 1000000};
  kit::Board board;
  fs_app app;
  std::vector<rec::written> w;
  explicit Recording(long long bytes, bool minute_hours = false) : board(1, bytes) {
    if (minute_hours) board.touch("/tmp/hdd");
    kit::StderrCapture quiet;
    rec::open_formatted(app, 2);
  }
  void record(int start, int secs) {
    sim::capture cap;
    // The placeholder units keep to the bit rate: small images, quick under emulation.
    sim::capture_spec shape = rec::small_spec(2);
    shape.codec = 265;
    ASSERT_EQ(0, cap.open(shape, (rec::kHour0 + 0LL + start) * 1000, nullptr));
    kit::StderrCapture quiet;
    std::vector<rec::written> more = rec::record(app, cap, secs);
    w.insert(w.end(), more.begin(), more.end());
    app.flush();
  }
  void close() {
    kit::StderrCapture quiet;
    app.db_close();
  }
  std::string img() const { return board.image("sda"); }
  // Where minute entry j of hour i lies in its table.
  long long minute_entry(int i, int j) {
    std::vector<rec::hour_view> v = rec::read_volume(kDev);
    return vol::entry_pos(v[i].e.offset, j);
  }
};

int count_reach(const std::vector<found_t>& v, int reach, int t0, int t1,
                const std::vector<rec::written>& w) {
  int n = 0;
  for (const found_t& f : v) {
    int t = rec::head_of(f.bytes).time;
    if (f.reach == reach && t >= t0 && t <= t1) n++;
  }
  (void)w;
  return n;
}

int blocks_between(const std::vector<rec::written>& w, int t0, int t1) {
  int n = 0;
  for (const rec::written& b : w) n += b.time >= t0 && b.time <= t1;
  return n;
}

}  // namespace

// A torn root entry: the check drops the whole hour. Every block of it is still found,
// byte for byte, and marked as reached by no entry; the other hours stay listed.
TEST(FormatGaps, TornHourEntryIsRecoveredWhole) {
  Recording r(64LL << 20, true);  // every minute its own hour entry
  r.record(0, 150);
  r.close();
  long long e1 = vol::entry_pos(vol::kRootHeader, 1);
  kit::write_at(r.img(), e1 + 68, "torn", 4);  // the time field: the checksum fails
  {
    kit::StderrCapture quiet;
    fs_db d;
    ASSERT_EQ(0, d.open(0, kDev, "w"));  // the check drops the hour
    d.close();
  }
  ASSERT_EQ(2u, rec::read_volume(kDev).size());
  fs_recover s;
  std::vector<found_t> got = scan(s, kDev);
  expect_exact(got, present(whole(r.img()), 0, r.w), r.w, "torn hour");
  EXPECT_EQ(r.w.size(), got.size());
  int m1 = rec::kHour0 + 60;
  EXPECT_EQ(blocks_between(r.w, m1, m1 + 59), count_reach(got, RC_NONE, m1, m1 + 59, r.w));
  EXPECT_EQ(blocks_between(r.w, 0, m1 - 1), count_reach(got, RC_LISTED, 0, m1 - 1, r.w));
}

// A torn minute entry: lookups stop there, so it and the minutes after it are hidden.
// The scan finds them all; the minutes before stay listed.
TEST(FormatGaps, TornMinuteEntryAndTheMinutesItHidesAreRecovered) {
  Recording r(64LL << 20);
  r.record(0, 240);
  long long e1 = r.minute_entry(0, 1);
  r.close();
  kit::write_at(r.img(), e1 + 68, "torn", 4);
  fs_recover s;
  std::vector<found_t> got = scan(s, kDev);
  expect_exact(got, present(whole(r.img()), 0, r.w), r.w, "torn minute");
  EXPECT_EQ(r.w.size(), got.size());
  int m1 = rec::kHour0 + 60;
  EXPECT_EQ(blocks_between(r.w, 0, m1 - 1), count_reach(got, RC_LISTED, 0, m1 - 1, r.w));
  EXPECT_EQ(0, count_reach(got, RC_LISTED, m1, 0x7FFFFFFF, r.w));
  EXPECT_EQ(blocks_between(r.w, m1, m1 + 59), count_reach(got, RC_NONE, m1, m1 + 59, r.w));
  EXPECT_EQ(blocks_between(r.w, m1 + 60, 0x7FFFFFFF),
            count_reach(got, RC_REGION, m1 + 60, 0x7FFFFFFF, r.w));
}

// A saved size covering data that never arrived (zeros where a stretch of frames should
// be), a cut inside recycling (the newest hour listed twice) and a damaged superblock:
// the scan returns exactly the blocks that are whole, and nothing else.
TEST(FormatGaps, LostDataDuplicateHourAndDamagedSuperblocks) {
  Recording r(64LL << 20, true);
  r.record(0, 120);
  r.close();
  std::vector<rec::hour_view> v = rec::read_volume(kDev);
  ASSERT_EQ(2u, v.size());
  // Frames of the last minute that never arrived: 20 sectors in the middle of it.
  long long lost = v[1].minutes[0].e.offset + v[1].minutes[0].e.size / 2 / 512 * 512;
  kit::write_at(r.img(), lost, std::string(20 * 512, '\0').data(), 20 * 512);
  {  // the newest hour at its old and its new slot
    kit::StderrCapture quiet;
    fs_db d;
    ASSERT_EQ(0, d.open(0, kDev, "w"));
    entryX_t x;
    ASSERT_EQ(0, d.x_read(0, x));
    entry_t e = v[1].e;
    e.idx = 2;
    ASSERT_EQ(0, d.e_write(x, 2, e));
    x.num = 3;
    ASSERT_EQ(0, d.x_write(x.offset, x));
    d.close();
  }
  std::string img = whole(r.img());
  std::map<long long, size_t> want = present(img, 0, r.w);
  EXPECT_LT(want.size(), r.w.size());
  fs_recover s;
  std::vector<found_t> got = scan(s, kDev);
  expect_exact(got, want, r.w, "lost data");
  EXPECT_EQ(RC_SB_PRIMARY, s.sb_from);
  EXPECT_EQ(static_cast<int>(want.size()), count_reach(got, RC_LISTED, 0, 0x7FFFFFFF, r.w));

  kit::write_at(r.img(), 0, std::string(36, 'x').data(), 36);
  fs_recover s2;
  expect_exact(scan(s2, kDev), want, r.w, "primary superblock gone");
  EXPECT_EQ(RC_SB_SECONDARY, s2.sb_from);
  kit::write_at(r.img(), (64LL << 20) - 0x400000, std::string(36, 'x').data(), 36);
  fs_recover s3;
  std::vector<found_t> g3 = scan(s3, kDev);
  expect_exact(g3, want, r.w, "both superblocks gone");
  EXPECT_EQ(RC_SB_LAYOUT, s3.sb_from);
  EXPECT_EQ(static_cast<int>(want.size()), count_reach(g3, RC_NONE, 0, 0x7FFFFFFF, r.w));
}

// A recorded volume formatted again lists nothing; every block is still found.
TEST(Reformatted, EveryBlockIsFoundAndNoneIsListed) {
  Recording r(64LL << 20);
  r.record(0, 150);
  r.close();
  {
    kit::StderrCapture quiet;
    fs_db d;
    d.open(0, kDev, "w");
    ASSERT_EQ(0, d.format());
    d.close();
  }
  EXPECT_TRUE(rec::read_volume(kDev).empty() || rec::read_volume(kDev)[0].minutes.empty());
  fs_recover s;
  std::vector<found_t> got = scan(s, kDev);
  expect_exact(got, present(whole(r.img()), 0, r.w), r.w, "reformatted");
  EXPECT_EQ(r.w.size(), got.size());
  EXPECT_EQ(static_cast<int>(got.size()), count_reach(got, RC_NONE, 0, 0x7FFFFFFF, r.w));
  // Spans: both channels' streams, one run each, every frame block counted.
  EXPECT_EQ(4, s.span_cnt);
  for (int i = 0; i < s.span_cnt; i++) {
    EXPECT_EQ(rec::kHour0, s.spans[i].t0);
    EXPECT_EQ(rec::kHour0 + 149, s.spans[i].t1);
    EXPECT_EQ(150, s.spans[i].blocks);
  }
}

// Recycled hours not yet overwritten are found and marked as not listed; where a newer
// hour went over them, only what survives is found, never a block that was not written.
TEST(Recycling, RecycledHoursAreFoundUnlistedAndOverwrittenOnesOnlyAsFarAsTheySurvive) {
  Recording r(40LL << 20);  // a 28 MiB ring: three hours of two units each
  for (int h = 0; h < 6; h++) r.record(h * 3600, 40 + h * 10);
  r.close();
  std::vector<rec::hour_view> v = rec::read_volume(kDev);
  ASSERT_LT(v.size(), 6u);
  std::map<long long, size_t> want = present(whole(r.img()), 0, r.w);
  fs_recover s;
  std::vector<found_t> got = scan(s, kDev);
  expect_exact(got, want, r.w, "recycled");
  int first_listed = v[0].e.time;
  int old = count_reach(got, RC_NONE, 0, first_listed - 1, r.w) +
            count_reach(got, RC_REGION, 0, first_listed - 1, r.w);
  EXPECT_GT(old, 0);
  EXPECT_EQ(0, count_reach(got, RC_LISTED, 0, first_listed - 1, r.w));
  EXPECT_EQ(blocks_between(r.w, first_listed, 0x7FFFFFFF),
            count_reach(got, RC_LISTED, first_listed, 0x7FFFFFFF, r.w));
  // What was overwritten is gone for good: fewer blocks than written survive.
  EXPECT_LT(got.size(), r.w.size());
}

namespace {

// Damage served through the system-call table: reads of the swept stretch come from a
// damaged copy in memory, so no image is copied per seed.
std::string g_damaged;
long long g_base;
long long (*g_pread)(int, void*, int, long long);
long long damaged_pread(int fd, void* buf, int n, long long off) {
  long long r = g_pread(fd, buf, n, off);
  long long lo = std::max(off, g_base),
            hi = std::min(off + n, g_base + (long long)g_damaged.size());
  if (r == n && lo < hi)
    memcpy(static_cast<char*>(buf) + (lo - off), g_damaged.data() + (lo - g_base),
           static_cast<size_t>(hi - lo));
  return r;
}

struct rng {
  unsigned s;
  unsigned next() { return s = s * 1103515245u + 12345u, s >> 8; }
  unsigned below(unsigned n) { return next() % n; }
};

void damage(std::string& b, unsigned seed) {
  rng g{seed};
  int n = 1 + static_cast<int>(g.below(6));
  size_t sz = b.size();
  for (int i = 0; i < n; i++) {
    size_t at = g.below(static_cast<unsigned>(sz));
    switch (g.below(5)) {
      case 0:  // flipped bytes
        for (unsigned k = g.below(16) + 1; k > 0; k--)
          b[g.below(static_cast<unsigned>(sz))] ^= 1 + g.below(255);
        break;
      case 1: {  // sectors that never arrived
        size_t s = at / 512 * 512, len = std::min<size_t>(512 * (1 + g.below(64)), sz - s);
        memset(&b[s], 0, len);
        break;
      }
      case 2: {  // sectors holding something else: other data once stored there
        size_t s = at / 512 * 512, len = std::min<size_t>(512 * (1 + g.below(32)), sz - s);
        for (size_t k = 0; k < len; k++) b[s + k] = static_cast<char>(g.next());
        break;
      }
      case 3: {  // a head whose sync, magic and size hold but whose tail does not
        if (sz - at < 400) break;
        head_t h;
        memset(&h, 0, sizeof h);
        h.time = static_cast<int32_t>(g.next());
        block_seal(h, static_cast<int32_t>(g.below(4096)));
        memcpy(&b[at], &h, sizeof h);
        break;
      }
      default: {  // a frame length running past its block
        size_t p = b.find(std::string("\x34\x12\0\0", 4), at);
        if (p == std::string::npos || p + 288 + 44 > sz) break;
        uint32_t big = 0x10000000u + g.below(1000);
        memcpy(&b[p + 288 + 40], &big, 4);
        break;
      }
    }
  }
}

// Whether a returned block differs from the one written at its place only in bytes no
// check can see: frame data, and the head and frame-head words the capture side fills
// for itself (the block type of a frame block among them). Equal are the head's sync,
// magic, time, size, frame count, type
// bits and per-channel counts, every frame's channel and length, and the tail. (A
// frame's type may change into another type the block holds and still pass.)
bool same_frame_layout(const std::string& w, const std::string& g) {
  if (w.size() != g.size()) return false;
  if (w.compare(0, 8, g, 0, 8) != 0 || w.compare(12, 4, g, 12, 4) != 0 ||
      w.compare(24, 12, g, 24, 12) != 0 || w.compare(52, 236, g, 52, 236) != 0)
    return false;
  if (w.compare(w.size() - 8, 8, g, g.size() - 8, 8) != 0) return false;
  for (size_t off = 288; off + 44 <= w.size() - 8;) {
    if (w.compare(off + 4, 4, g, off + 4, 4) != 0 || w.compare(off + 40, 4, g, off + 40, 4) != 0)
      return false;
    uint32_t len;
    memcpy(&len, w.data() + off + 40, 4);
    off += 44 + len;
  }
  return true;
}

}  // namespace

// 500 seeded damaged images: every block returned is byte-identical to one written, and
// every written block that the damage left whole is found (recall 100 % on undamaged
// regions). The share of all written blocks found is printed.
TEST(Precision, DamageSweepReturnsOnlyWrittenBlocksAndEverySurvivor) {
  Recording r(32LL << 20);
  r.record(0, 45);
  r.close();
  std::vector<rec::hour_view> v = rec::read_volume(kDev);
  ASSERT_EQ(1u, v.size());
  const entry_t& m = v[0].minutes[0].e;
  g_base = m.offset;
  std::string clean = kit::read_at(r.img(), g_base, (m.size + 4095) / 4096 * 4096);
  std::map<long long, size_t> at_clean = present(clean, g_base, r.w);
  ASSERT_EQ(r.w.size(), at_clean.size());
  g_pread = fs_sys.pread;
  fs_sys.pread = damaged_pread;
  long long written = 0, whole_blocks = 0, found = 0, payload_only = 0;
  int seeds = 0;
  for (unsigned seed = 1; seed <= 500; seed++) {
    g_damaged = clean;
    damage(g_damaged, seed);
    std::map<long long, size_t> want = present(g_damaged, g_base, r.w);
    fs_recover s;
    std::vector<found_t> got;
    ASSERT_EQ(0, s.open(kDev));
    s.ring_beg = g_base;  // the swept stretch only: the rest of the ring is holes
    s.ring_end = g_base + static_cast<long long>(clean.size());
    s.chunk = 64 << 10;  // small reads, so blocks straddle them
    ASSERT_GE(s.scan(-0x7FFFFFFF - 1, 0x7FFFFFFF, collect, &got), 0);
    // Returned blocks: byte-identical to a written one, or one whose damage lies only
    // in frame data (the format carries no checksum over it): same place, same head
    // fields the scan checks, same frame heads, same tail.
    std::set<long long> seen;
    for (const found_t& f : got) {
      auto it = want.find(f.pos);
      if (it != want.end() && r.w[it->second].bytes == f.bytes) {
        seen.insert(f.pos);
        continue;
      }
      auto c = at_clean.find(f.pos);
      ASSERT_TRUE(c != at_clean.end())
          << "seed " << seed << ": a block at " << f.pos << " where none was written";
      ASSERT_TRUE(same_frame_layout(r.w[c->second].bytes, f.bytes))
          << "seed " << seed << ": a block at " << f.pos
          << " unlike the one written there, from byte "
          << std::mismatch(f.bytes.begin(), f.bytes.end(), r.w[c->second].bytes.begin()).first -
                 f.bytes.begin();
      payload_only++;
    }
    EXPECT_EQ(want.size(), seen.size()) << "seed " << seed << ": surviving blocks left out";
    if (HasFailure()) break;
    written += static_cast<long long>(r.w.size());
    whole_blocks += static_cast<long long>(want.size());
    found += static_cast<long long>(got.size()) - 0;
    seeds++;
  }
  fs_sys.pread = g_pread;
  EXPECT_EQ(500, seeds);
  EXPECT_EQ(whole_blocks + payload_only, found);
  std::cout << "damage sweep: " << seeds << " images, " << written << " blocks written, "
            << whole_blocks << " left whole, all found (recall 100 %); "
            << 100.0 * (found - payload_only) / written << " % of all written blocks recovered "
            << "byte-identical, " << payload_only
            << " returned with damage inside frame data only\n";
}
