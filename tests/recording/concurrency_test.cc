// Capture, detector and user-interface threads on one service object at once. Run
// under ThreadSanitizer: no race may be reported and the run must end (no deadlock).
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "kit/recorder.h"

namespace {

TEST(Concurrency, CaptureDetectorsAndUserInterfaceAtOnce) {
  kit::Board board(2, 128LL << 20);
  fs_app* app = new fs_app();
  ASSERT_EQ(2, rec::open_formatted(*app, 4));
  const int start = rec::kHour0 + 3600 - 40;
  sim::clock_follow();
  sim::clock_set(start);

  std::atomic<bool> done(false);
  // What each capture thread handed to write and what write answered; checked in the
  // test body once the threads are joined.
  struct sent {
    std::string block;
    int result;
  };
  std::vector<sent> log[2];
  int opened[2] = {-1, -1};
  // Capture threads of a recorder stamp their blocks with the same clock: neither runs
  // more than one step (200 ms) ahead of the other. Left free, one thread could run
  // seconds of simulated time ahead and flip the write path between two minutes (or
  // hours) at every block, each flip a new 4 MiB entry, until the disks recycle.
  std::atomic<int> steps[2];
  steps[0] = steps[1] = 0;
  std::atomic<bool> gave_up(false);
  auto capture = [&](int id) {
    sim::capture cap;
    sim::capture_spec shape = rec::small_spec(2);
    shape.block_ms = 200;
    shape.seed = static_cast<uint32_t>(id + 1);
    opened[id] = cap.open(shape, start * 1000LL, nullptr);
    if (opened[id] != 0) {
      gave_up = true;
      return;
    }
    std::vector<std::string> blocks;
    for (int i = 0; i < 5 * 90; i++) {  // 90 s of capture time
      while (steps[1 - id].load() < i && !gave_up.load()) std::this_thread::yield();
      cap.next(blocks);
      if (id == 0) sim::clock_set(cap.time());
      for (const std::string& b : blocks)
        log[id].push_back({b, app->write(cap.time(), static_cast<int>(b.size()), b.data())});
      steps[id] = i + 1;
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
  app->db_close();
  ASSERT_EQ(0, opened[0]);
  ASSERT_EQ(0, opened[1]);

  // Every stored frame block on both disks, with the minute entry holding it.
  std::map<std::string, std::vector<std::string>> where;
  for (const char* dev : {"/dev/sda", "/dev/sdb"}) {
    for (const rec::hour_view& h : rec::read_volume(dev)) {
      for (const rec::minute_view& m : h.minutes) {
        for (const std::string& b : m.blocks) {
          if (rec::is_record(rec::head_of(b).type)) continue;
          where[b].push_back(std::string(dev) + " " + h.e.name + "/" + m.e.name);
        }
      }
    }
  }
  // Accepted blocks are stored once, byte for byte; refused ones nowhere. Refusals
  // come only from write's hold-off after a failed minute, so here there are none.
  size_t accepted = 0, refused = 0;
  for (int id = 0; id < 2; id++) {
    EXPECT_EQ(2u * 5 * 90, log[id].size());  // a main and a substream block per step
    for (size_t i = 0; i < log[id].size(); i++) {
      const sent& s = log[id][i];
      auto it = where.find(s.block);
      size_t copies = it == where.end() ? 0 : it->second.size();
      if (s.result == 0) {
        accepted++;
        EXPECT_EQ(1u, copies) << "capture " << id << " block " << i;
      } else {
        refused++;
        EXPECT_EQ(-1, s.result);
        EXPECT_EQ(0u, copies) << "refused block " << i << " of capture " << id << " stored";
      }
    }
  }
  EXPECT_EQ(2u * 2 * 5 * 90, accepted);
  EXPECT_EQ(0u, refused);
  size_t stored = 0;
  for (const auto& kv : where) stored += kv.second.size();
  EXPECT_EQ(accepted, stored);
  delete app;
  sim::clock_release();
}

}  // namespace
