// Playback of the block the writer is appending: the reader steps through the minute
// being recorded without the service's lock, so its window reads race the writer's
// appends at the very end of the minute (the fs_io mutex orders each transfer). Under
// ThreadSanitizer: no race, and every block served is byte for byte one that was
// written, in order, none twice; blocks past the written size are never served.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kit/recorder.h"

namespace {

TEST(PlaybackWindowConcurrency, BlocksServedWhileTheWriterAppendsAreWholeAndInOrder) {
  kit::Board board(1, 256LL << 20);
  fs_app* app = new fs_app();
  app->set(2);
  ASSERT_EQ(1, app->db_open("w"));
  ASSERT_EQ(0, app->db_format(0));
  const int start = rec::kHour0 + 600;
  sim::clock_follow();
  sim::clock_set(start);
  // The first second is written before the reader starts, so that it can be placed.
  sim::capture cap;
  sim::capture_spec shape = rec::small_spec(2);
  shape.block_ms = 200;
  ASSERT_EQ(0, cap.open(shape, start * 1000LL, nullptr));
  std::vector<std::string> written, blocks;
  for (int i = 0; i < 5; i++) {
    cap.next(blocks);
    sim::clock_set(cap.time());
    for (const std::string& b : blocks)
      if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) == 0) written.push_back(b);
  }
  app->flush();
  std::atomic<bool> done(false);
  std::atomic<int> refused(0);
  std::thread capture([&] {
    // Within minute 10 only: the reader stays in the minute being appended.
    for (int i = 5; i < 250; i++) {
      cap.next(blocks);
      sim::clock_set(cap.time());
      for (const std::string& b : blocks) {
        if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) == 0)
          written.push_back(b);
        else
          refused++;
      }
      if (i % 10 == 0) app->flush();  // the entry's size on disk follows
      usleep(200);
    }
    app->flush();
    done = true;
  });

  std::vector<std::string> got;
  {
    pthread_mutex_lock(&app->db_mutex);
    int placed = app->r_set(start, 0);
    pthread_mutex_unlock(&app->db_mutex);
    ASSERT_EQ(0, placed);
  }
  int misses = 0, after_done = 0;
  for (long long iter = 0; iter < 5000000; iter++) {
    head_t* h = app->r_head();
    std::string b;
    if (h != nullptr) {
      b.assign(296 + static_cast<size_t>(h->size), '\0');
      memcpy(&b[0], h, 288);
      if (app->r_data(&b[288], h->size) != 0 ||
          app->r_offset_data(&b[288 + h->size], h->size, 8) != 0)
        b.clear();
    }
    if (b.empty()) {
      // The end of what is written for now (r_head refreshed the minute's size).
      misses++;
      if (done.load() && ++after_done > 3) break;
      std::this_thread::yield();
      continue;
    }
    uint32_t t = rec::head_of(b).type;
    if (!(t == 4 || t == 8 || t == 9 || t == 10)) got.push_back(b);
    app->r_seek(+1);  // at the end for now it still moves past the block just read
  }
  capture.join();
  sim::clock_release();
  EXPECT_EQ(0, refused.load());
  EXPECT_GT(misses, 0);
  ASSERT_EQ(written.size(), got.size());
  for (size_t i = 0; i < written.size(); i++) ASSERT_TRUE(written[i] == got[i]) << i;
  app->db_close();
  delete app;
}

}  // namespace
