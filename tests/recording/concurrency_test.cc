// Capture, detector and user-interface threads on one service object at once. Run
// under ThreadSanitizer: no race may be reported and the run must end (no deadlock).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kit/recorder.h"

namespace {

TEST(Concurrency, CaptureDetectorsAndUserInterfaceAtOnce) {
  kit::Board board(2, 128LL << 20);
  fs_app* app = new fs_app();
  app->set(4);
  ASSERT_EQ(2, app->db_open("w"));
  ASSERT_EQ(0, app->db_format(0));
  ASSERT_EQ(0, app->db_format(1));
  const int start = rec::kHour0 + 3600 - 40;
  sim::clock_follow();
  sim::clock_set(start);

  std::atomic<bool> done(false);
  std::atomic<int> written(0), failed(0);
  auto capture = [&](int id) {
    sim::capture cap;
    sim::capture_spec shape = rec::small_spec(2);
    shape.block_ms = 200;
    shape.seed = static_cast<uint32_t>(id + 1);
    ASSERT_EQ(0, cap.open(shape, start * 1000LL, nullptr));
    std::vector<std::string> blocks;
    for (int i = 0; i < 5 * 90; i++) {  // 90 s of capture time
      cap.next(blocks);
      if (id == 0) sim::clock_set(cap.time());
      for (const std::string& b : blocks) {
        if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) == 0)
          written++;
        else
          failed++;
      }
    }
  };
  auto detector = [&](int id) {
    unsigned mask[20];
    for (int i = 0; i < 20; i++) mask[i] = 1u << i;
    int n = 0;
    while (!done.load()) {
      if (id == 0)
        app->set_motion_info(n % 4, mask, 1 + n % 20);
      else
        app->set_log_info(1 << (n % 4), 1 << (n % 3), 0, 0, 0, 0, n);
      n++;
      std::this_thread::yield();
    }
  };
  auto ui = [&]() {
    char dev[32], model[80], state[16], mode[16];
    long long total, avail;
    int err, n = 0;
    while (!done.load()) {
      for (int i = 0; i < app->g_db_num(); i++)
        app->g_db_info(i, dev, model, state, mode, total, avail, err);
      app->iswriting();
      app->g_db_update();
      if (n % 200 == 50) app->db_set(n % 400 == 50 ? 1 : 0, "OVWR");
      if (n % 300 == 100) app->check_valid(start, 100);
      if (n % 100 == 0) app->flush();
      n++;
      std::this_thread::yield();
    }
  };

  std::thread c0(capture, 0), c1(capture, 1);
  std::thread d0(detector, 0), d1(detector, 1);
  std::thread u(ui);
  c0.join();
  c1.join();
  done = true;
  d0.join();
  d1.join();
  u.join();
  app->flush();
  EXPECT_GT(written.load(), 0);
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
  std::vector<rec::hour_view> w = rec::read_volume("/dev/sdb");
  EXPECT_FALSE(v.empty() && w.empty());
  app->db_close();
  delete app;
  sim::clock_release();
}

}  // namespace
