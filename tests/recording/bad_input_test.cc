// Bad input to the write path and a missing or failing board: the documented return
// values and messages, no crash, and nothing already recorded lost.
#include <gtest/gtest.h>

#include "kit/recorder.h"

namespace {

struct BadInput : rec::Recorder {
  sim::capture cap;
  void open_board() {
    start(2);
    ASSERT_EQ(0, cap.open(rec::small_spec(2), (rec::kHour0 + 300) * 1000LL, nullptr));
  }
};

TEST_F(BadInput, ShortOversizedAndMislabelledBlocks) {
  make_board(1, 128LL << 20);
  open_board();
  std::vector<rec::written> a = rec::record(*app, cap, 60);
  std::vector<std::string> blocks;
  cap.next(blocks);
  // Not even a header, and larger than one region growth can take: refused, and the
  // writer is not put into its failed state.
  EXPECT_EQ(-1, app->write(cap.time(), 100, blocks[0].data()));
  std::string big(5 << 20, 'x');
  memcpy(&big[0], blocks[0].data(), 288);
  EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(big.size()), big.data()));
  EXPECT_EQ(-1, app->write(cap.time(), 1000, nullptr));
  EXPECT_EQ(0, app->iswriting() < 0 ? -1 : 0);
  // A length that disagrees with the header is stored as given: the service never
  // looks inside a block.
  std::string odd = blocks[0] + std::string(100, 'z');
  EXPECT_EQ(0, app->write(cap.time(), static_cast<int>(odd.size()), odd.data()));
  rec::record(*app, cap, 59);
  std::vector<rec::written> c = rec::record(*app, cap, 60);
  app->flush();
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(1u, v.size());
  ASSERT_EQ(3u, v[0].minutes.size());
  std::vector<std::string> fa = rec::frames_of(v[0].minutes[0]),
                           fc = rec::frames_of(v[0].minutes[2]);
  ASSERT_EQ(a.size(), fa.size());
  for (size_t i = 0; i < a.size(); i++) EXPECT_EQ(a[i].bytes, fa[i]);
  ASSERT_EQ(c.size(), fc.size());
  for (size_t i = 0; i < c.size(); i++) EXPECT_EQ(c[i].bytes, fc[i]);
  // The odd block sits whole at the start of its minute.
  EXPECT_EQ(odd, kit::read_at(board->image("sda"), v[0].minutes[1].e.offset + 17104,
                              static_cast<int>(odd.size())));
}

TEST_F(BadInput, FailingDiskStopsTheMinuteAndRecordingResumesAfterwards) {
  make_board(1, 128LL << 20);
  open_board();
  std::vector<rec::written> a = rec::record(*app, cap, 60);
  app->flush();  // what is durable before the disk fails
  std::vector<std::string> blocks;
  cap.next(blocks);
  kit::FakeClock::wall = cap.time();
  {
    kit::FailWrites fail(0, "/dev/sda");
    kit::StderrCapture err;
    EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
    EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[1].size()), blocks[1].data()));
    EXPECT_EQ(-1, app->iswriting());
    std::string log = err.take();
    EXPECT_NE(std::string::npos, log.find("ERROR: WRITE")) << log;
    char dev[32], model[80], state[16], mode[16];
    long long total, avail;
    int e;
    ASSERT_EQ(0, app->g_db_info(0, dev, model, state, mode, total, avail, e));
    EXPECT_STREQ("Idle", state);
  }
  cap.next(blocks);  // same minute, disk healthy again: still refused until it changes
  EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
  rec::record(*app, cap, 58, false);
  std::vector<rec::written> c = rec::record(*app, cap, 60);
  app->flush();
  EXPECT_EQ(1, app->iswriting());
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(1u, v.size());
  ASSERT_GE(v[0].minutes.size(), 2u);
  std::vector<std::string> fa = rec::frames_of(v[0].minutes[0]);
  ASSERT_EQ(a.size(), fa.size());
  for (size_t i = 0; i < a.size(); i++) EXPECT_EQ(a[i].bytes, fa[i]);
  std::vector<std::string> fc = rec::frames_of(v[0].minutes.back());
  ASSERT_EQ(c.size(), fc.size());
  for (size_t i = 0; i < c.size(); i++) EXPECT_EQ(c[i].bytes, fc[i]);
  EXPECT_NE(0u, rec::mask_of(v[0].e) & (1ULL << 5));
}

TEST_F(BadInput, FailingDiskHandsOverToTheNextDisk) {
  make_board(2, 128LL << 20);
  open_board();
  rec::record(*app, cap, 30);
  kit::FailWrites fail(0, "/dev/sda");
  kit::StderrCapture err;
  std::vector<rec::written> b = rec::record(*app, cap, 30);
  app->flush();
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("write[778]: HDD1: ")) << log;
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  ASSERT_EQ(1u, v.size());
  ASSERT_EQ(1u, v[0].minutes.size());
  std::vector<std::string> f = rec::frames_of(v[0].minutes[0]);
  ASSERT_EQ(b.size(), f.size());
  EXPECT_EQ(b.back().bytes, f.back());
}

TEST_F(BadInput, MissingPartitionListMeansNoStorage) {
  make_board(1, 64LL << 20);
  board->unlink("/proc/partitions");
  kit::StderrCapture err;
  EXPECT_EQ(0, app->db_open("w"));
  EXPECT_EQ(0, app->db_check());
  std::vector<std::string> blocks;
  ASSERT_EQ(0, cap.open(rec::small_spec(1), (rec::kHour0 + 300) * 1000LL, nullptr));
  cap.next(blocks);
  EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
  EXPECT_EQ(-1, app->write(cap.time(), static_cast<int>(blocks[1].size()), blocks[1].data()));
  // The lock was not left held: the disk set can be closed and reopened.
  EXPECT_EQ(0, app->db_close());
  std::string log = err.take();
  EXPECT_EQ(1, kit::count(log, "write[718]: ERR: NO STORAGE\n")) << log;
}

}  // namespace
