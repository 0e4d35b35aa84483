// Playback while recording: a reader thread follows the minutes a capture thread is
// writing, under the service's lock as a user interface holds it for each call. Run
// under ThreadSanitizer: no race may be reported, and every block the reader returns
// must be one that was written, in order, none missing once recording has stopped.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kit/recorder.h"

namespace {

// The service's lock around one playback call, as the user-interface thread takes it.
struct locked {
  pthread_mutex_t& m;
  explicit locked(pthread_mutex_t& mu) : m(mu) { pthread_mutex_lock(&m); }
  ~locked() { pthread_mutex_unlock(&m); }
};

bool own_record(const std::string& b) { return rec::is_record(rec::head_of(b).type); }

TEST(PlaybackConcurrency, ReaderFollowsTheMinutesBeingWritten) {
  kit::Board board(1, 256LL << 20);
  fs_app* app = new fs_app();
  app->set(2);
  ASSERT_EQ(1, app->db_open("w"));
  ASSERT_EQ(0, app->db_format(0));
  const int start = rec::kHour0 + 600;
  const int seconds = 150;
  sim::clock_follow();
  sim::clock_set(start);

  std::vector<std::string> written;
  std::atomic<int> wrote_min(0);  // minute (time / 60) of the last block written
  std::atomic<bool> done(false);  // recording stopped and the last minute flushed
  std::atomic<int> refused(0);
  std::thread capture([&] {
    sim::capture cap;
    sim::capture_spec shape = rec::small_spec(2);
    shape.main_kbps = 2400;  // 4 MiB region growths within a minute
    shape.block_ms = 200;
    if (cap.open(shape, start * 1000LL, nullptr) != 0) {
      refused++;
      done = true;
      return;
    }
    std::vector<std::string> blocks;
    for (int i = 0; i < seconds * 5; i++) {
      cap.next(blocks);
      sim::clock_set(cap.time());
      for (const std::string& b : blocks) {
        if (app->write(cap.time(), static_cast<int>(b.size()), b.data()) == 0)
          written.push_back(b);
        else
          refused++;
      }
      wrote_min = cap.time() / 60;
      usleep(1000);  // a capture paces itself; the reader catches up
    }
    app->flush();
    done = true;
  });

  std::vector<std::string> got;
  int ends = 0, minutes = 1;
  bool placed = false;
  for (long long iter = 0; iter < 20000000; iter++) {
    if (!placed) {
      // A new minute entry reaches the disk with its first region growth.
      locked l(app->db_mutex);
      placed = app->r_set(start, 0) == 0;
      continue;
    }
    std::string b;
    {
      locked l(app->db_mutex);
      head_t* h = app->r_head();
      if (h != nullptr) {
        b.assign(296 + static_cast<size_t>(h->size), '\0');
        memcpy(&b[0], h, 288);
        if (app->r_data(&b[288], h->size) != 0 ||
            app->r_offset_data(&b[288 + h->size], h->size, 8) != 0)
          b.clear();
      }
    }
    if (!b.empty()) {
      if (!own_record(b)) got.push_back(b);
      locked l(app->db_mutex);
      app->r_seek(+1);
      continue;
    }
    // The end of what is on the disk. A minute is final once the writer is two
    // minutes on (the next one is then listed too), or once recording has stopped.
    ends++;
    int cur = app->r_cur.min.time / 60;
    bool fin = done.load();
    if (!fin && wrote_min.load() < cur + 2) {
      std::this_thread::yield();
      continue;
    }
    locked l(app->db_mutex);
    if (app->r_next(+1) != 0 || app->r_cur.min.time / 60 <= cur) break;  // wrapped: the end
    minutes++;
  }
  capture.join();
  sim::clock_release();

  EXPECT_EQ(0, refused.load());
  EXPECT_GE(ends, 1);
  EXPECT_EQ(3, minutes);  // 10:00 to 12:29
  ASSERT_EQ(written.size(), got.size());
  for (size_t i = 0; i < written.size(); i++) ASSERT_EQ(written[i], got[i]) << i;
  app->db_close();
  delete app;
}

}  // namespace
