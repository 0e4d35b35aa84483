// Exporting while the recorder goes on writing into the same hour: the export reads a
// minute that is still growing and must end cleanly at its range's end, with files
// that hold a whole prefix of the range and exactly their planned bytes.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <atomic>
#include <thread>

#include "export_kit.h"

namespace {

struct Live : xk::Recorder {};

TEST_F(Live, ExportEndsAtTheRangeEndWhileRecordingGoesOn) {
  start(2);
  const int t0 = rec::kHour0;
  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(2), t0 * 1000LL, nullptr));
  record(cap, 90);

  // The recorder thread writes on from t0 + 90 to t0 + 150 without touching the fake
  // clock (the exporter reads it); what it wrote is checked after the join.
  std::atomic<int> refused{0};
  std::vector<rec::written> later;
  std::thread writer([&] {
    std::vector<std::string> b;
    while (cap.now_ms() < (t0 + 150) * 1000LL) {
      cap.next(b);
      for (const std::string& s : b) {
        if (app->write(cap.time(), static_cast<int>(s.size()), s.data()) != 0)
          refused++;
        else
          later.push_back({cap.time(), s});
      }
    }
  });
  int beg = t0 + 30, end = t0 + 100;
  std::string plan;
  std::vector<xk::out_file> two = xk::two_phase(*app, out.path(), beg, end, 0x1, false, &plan);
  std::vector<xk::out_file> one = xk::single_pass(*app, out.path(), beg, end, 0);
  writer.join();
  EXPECT_EQ(0, refused.load());
  EXPECT_EQ(120u, later.size());  // 60 s of a main and a substream block a second
  blocks.insert(blocks.end(), later.begin(), later.end());

  // What was durable when the export began (up to t0 + 89) is the least a file holds;
  // the whole range is the most.
  unsigned least = static_cast<unsigned>(xk::video_count(xk::expected(blocks, beg, t0 + 89, 0, 2)));
  unsigned most = static_cast<unsigned>(xk::video_count(xk::expected(blocks, beg, end, 0, 2)));
  ASSERT_EQ(1u, two.size()) << plan;
  xk::mp4_facts m = xk::facts(two[0].path);
  ASSERT_TRUE(m.ok) << m.err;
  EXPECT_EQ(two[0].plan, m.mdat_payload);
  EXPECT_GE(m.video_samples, least);
  EXPECT_LE(m.video_samples, most);
  ASSERT_EQ(1u, one.size());
  xk::mp4_facts s = xk::facts(one[0].path);
  ASSERT_TRUE(s.ok) << s.err;
  EXPECT_GE(s.video_samples, least);
  EXPECT_LE(s.video_samples, most);
}

}  // namespace
