// Key-frame seeking: the choice of Seek_V2 and QuickSync on tables built here, and
// r_Iseek on the key-frame indexes of a recorded minute.
#include <ringrec/block.h>

#include "scenario.h"

namespace {

using pbt::kStart;
using pbt::Scenario;

// Records at offsets 1000, 2000, ...; channel bits and times as given.
std::vector<frame_info_t> table(const std::vector<uint32_t>& ev, const std::vector<int>& t) {
  std::vector<frame_info_t> v;
  for (size_t i = 0; i < ev.size(); i++) v.push_back({1000LL * (static_cast<long long>(i) + 1), ev[i], t[i]});
  return v;
}

TEST(Seek, SeekV2TakesWantedChannelsAtTheGivenPace) {
  fs_app app;
  std::vector<frame_info_t> v = table({1, 2, 1, 1, 3, 1}, {100, 101, 102, 104, 105, 110});
  frame_info_t* p = v.data();
  EXPECT_EQ(0, app.Seek_V2(0, p, 6, 1, +1, 0, 0));
  EXPECT_EQ(1, app.Seek_V2(0, p, 6, 2, +1, 0, 0));
  EXPECT_EQ(-1, app.Seek_V2(0, p, 6, 8, +1, 0, 0));
  EXPECT_EQ(-1, app.Seek_V2(6, p, 6, 1, +1, 0, 0));
  // Step 4 from 100: beyond 104 only, unless a record has the last time itself.
  EXPECT_EQ(4, app.Seek_V2(1, p, 6, 1, +1, 4, 100));
  EXPECT_EQ(2, app.Seek_V2(1, p, 6, 1, +1, 4, 102));
  // Backwards with a negative step: before 110 - 4.
  EXPECT_EQ(4, app.Seek_V2(4, p, 6, 1, -1, -4, 110));
  EXPECT_EQ(2, app.Seek_V2(4, p, 6, 1, -1, -4, 108));
  EXPECT_EQ(5, app.Seek_V2(5, p, 6, 1, -1, -4, 110));
  EXPECT_EQ(-1, app.Seek_V2(-1, p, 6, 1, -1, 0, 0));
  EXPECT_EQ(1, app.Seek_V2(3, p, 6, 2, -1, 0, 0));
}

TEST(Seek, QuickSyncAlignsWithTheMainStreamOffsets) {
  fs_app app;
  std::vector<frame_info_t> hq = table({1, 1, 2, 1}, {0, 1, 2, 3});
  app.r_iframe[1].infos = hq.data();
  app.r_iframe[1].infos_cap = 4;
  app.r_iframe[1].count = 4;
  app.r_cur.off = 1500;
  EXPECT_EQ(2, app.QuickSync(hq.data(), 4, 1, +1));
  EXPECT_EQ(2000, app.r_cur.off);
  EXPECT_EQ(4, app.QuickSync(hq.data(), 4, 1, +1));
  EXPECT_EQ(4000, app.r_cur.off);
  EXPECT_EQ(0, app.QuickSync(hq.data(), 4, 1, +1));
  EXPECT_EQ(4000, app.r_cur.off);
  // Channel 2 only at index 2: backwards from 4000 lands at 3000.
  EXPECT_EQ(1, app.QuickSync(hq.data(), 4, 2, -1));
  EXPECT_EQ(3000, app.r_cur.off);
  // Nothing before: count - 1, offset kept.
  EXPECT_EQ(3, app.QuickSync(hq.data(), 4, 2, -1));
  EXPECT_EQ(3000, app.r_cur.off);
  EXPECT_EQ(-1, app.QuickSync(hq.data(), 0, 2, -1));
  app.r_iframe[1].infos = nullptr;  // owned by the vector
}

TEST(Seek, BareOffsetTableRealignsAfterPlainSteps) {
  fs_app app;
  long long offs[4] = {100, 500, 900, 1300};
  r_iframe_t& s = app.r_iframe[0];
  s.kind = 9;
  s.offs = offs;
  s.offs_cap = 4;
  s.count = 4;
  app.r_cur.min.size = 2000;
  app.r_cur.off = 0;
  EXPECT_EQ(0, app.r_Iseek(+1, false, 0, 0));
  EXPECT_EQ(100, app.r_cur.off);
  EXPECT_EQ(1, s.pos);
  // Two plain steps of 150 bytes: the next jump goes to the first key frame beyond.
  app.r_cur.head.size = 150 - 296;
  app.r_cur.min.size = 100000;
  app.r_seek(+1);
  app.r_seek(+1);
  EXPECT_EQ(400, app.r_cur.off);
  EXPECT_EQ(0, app.r_Iseek(+1, false, 0, 0));
  EXPECT_EQ(500, app.r_cur.off);
  EXPECT_EQ(2, s.pos);
  EXPECT_EQ(0, app.r_cur.stepped[0]);
  EXPECT_EQ(1, app.r_cur.stepped[1]);
  EXPECT_EQ(0, app.r_Iseek(+1, false, 0, 0));
  EXPECT_EQ(900, app.r_cur.off);
  // Position count - 1: the edge.
  EXPECT_EQ(-1, app.r_Iseek(+1, false, 0, 0));
  EXPECT_EQ(900, app.r_cur.off);
  // Backwards from position 3 (flag clear): the entry at the position, then down.
  EXPECT_EQ(0, app.r_Iseek(-1, false, 0, 0));
  EXPECT_EQ(1300, app.r_cur.off);
  EXPECT_EQ(2, s.pos);
  // A stale position outside the table is an edge, not a read.
  s.pos = 40;
  EXPECT_EQ(-1, app.r_Iseek(-1, false, 0, 0));
  s.offs = nullptr;
}

TEST_F(Scenario, KeyFrameJumpsFollowTheRecordedIndex) {
  kit::StderrCapture err;
  ASSERT_EQ(0, app->r_set(kStart + 155, 0));  // minute 00 on sdb, a closed minute
  ASSERT_EQ(14, app->r_iframe[1].kind);
  ASSERT_EQ(60, app->r_iframe[1].count);
  // One key block a second in each stream; positioning by time puts the index on its
  // first entry, so the first jump goes to the minute's first main-stream key block.
  app->r_cur.stepped[1] = 0;
  std::vector<int> times;
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(0, app->r_Iseek(+1, true, 0xF, 0));
    head_t* h = app->r_head();
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(2u, h->stream);
    times.push_back(h->time);
  }
  EXPECT_EQ(std::vector<int>({kStart + 150, kStart + 151, kStart + 152}), times);
  // A pace of 4 s: more than 4 s after the last key frame reached.
  ASSERT_EQ(0, app->r_Iseek(+1, true, 0xF, 4));
  EXPECT_EQ(kStart + 157, app->r_head()->time);
  // A plain step re-aligns the next jump on the key frame beyond the cursor.
  ASSERT_EQ(0, app->r_seek(+1));
  ASSERT_EQ(0, app->r_Iseek(+1, true, 0xF, 0));
  EXPECT_EQ(kStart + 158, app->r_head()->time);
  // Channels that no block carries: the edge.
  EXPECT_EQ(-1, app->r_Iseek(+1, true, 0x100, 0));

  // The newest minute is still open: no index, jumps degrade to block steps.
  ASSERT_EQ(0, app->r_set(kStart + 250, 0));
  EXPECT_EQ(0, app->r_iframe[1].count);
  int off = app->r_cur.off;
  int size = app->r_head()->size;
  ASSERT_EQ(0, app->r_Iseek(+1, true, 0xF, 0));
  EXPECT_EQ(off + 296 + size, app->r_cur.off);
  // Backwards into minute 00: its last block, then the substream's last key block.
  ASSERT_EQ(0, app->r_next(-1));
  EXPECT_EQ(kStart + 150, app->r_cur.min.time);
  ASSERT_EQ(13, app->r_iframe[0].kind);
  ASSERT_EQ(59, app->r_iframe[0].pos);
  app->r_cur.stepped[0] = 0;
  ASSERT_EQ(0, app->r_Iseek(-1, false, 0xF, 0));
  head_t* h = app->r_head();
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(3u, h->stream);
  EXPECT_EQ(kStart + 209, h->time);
  EXPECT_EQ(58, app->r_iframe[0].pos);
}

}  // namespace
