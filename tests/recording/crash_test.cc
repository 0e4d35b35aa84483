// Power cuts in the write path: a recording across an hour boundary is cut after each
// chosen positioned write; the volume must reopen (its check runs) with every minute
// whose closing flush had completed listed in its hour, with its blocks intact, and
// recording must go on on the reopened volume.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "kit/recorder.h"

namespace {

struct minute_rec {
  int minute;                       // time / 60
  std::vector<std::string> blocks;  // blocks written to it, in order
  size_t closed_at = SIZE_MAX;      // writes to the disk once its close had completed
};

std::vector<std::string> frames_of(const rec::minute_view& m) {
  std::vector<std::string> v;
  for (const std::string& b : m.blocks) {
    uint32_t t = rec::head_of(b).type;
    if (t != 4 && t != 8 && t != 9 && t != 10) v.push_back(b);
  }
  return v;
}

TEST(Crash, MinutesClosedBeforeACutSurviveItAndRecordingGoesOn) {
  kit::FakeClock clock(rec::kHour0, 1000000);
  const long long bytes = 64LL << 20;
  kit::Board board(1, bytes);
  const std::string image = board.image("sda");
  const std::string base = board.root() + "/base.img";
  const int start = rec::kHour0 + 3600 - 75;  // 22:58:45, three boundaries ahead

  std::vector<minute_rec> minutes;
  std::vector<size_t> boundary_ops;  // writes before each minute-closing call
  size_t total = 0;
  {
    fs_app app;
    app.set(1);
    ASSERT_EQ(1, app.db_open("w"));
    ASSERT_EQ(0, app.db_format(0));
    std::string cmd = "cp --sparse=always '" + image + "' '" + base + "'";
    ASSERT_EQ(0, system(cmd.c_str()));
    sim::capture cap;
    ASSERT_EQ(0, cap.open(rec::small_spec(1), start * 1000LL, nullptr));
    kit::WriteRecorder rec;
    std::vector<std::string> blocks;
    while (cap.now_ms() < (start + 170) * 1000LL) {
      cap.next(blocks);
      kit::FakeClock::wall = cap.time();
      kit::FakeClock::mono_ms += 1000;
      int m = cap.time() / 60;
      bool opens = minutes.empty() || minutes.back().minute != m;
      size_t before = rec.writes_to(image).size();
      for (const std::string& b : blocks)
        ASSERT_EQ(0, app.write(cap.time(), static_cast<int>(b.size()), b.data()));
      size_t after = rec.writes_to(image).size();
      if (opens) {
        if (!minutes.empty()) {
          minutes.back().closed_at = after;
          boundary_ops.push_back(before);
        }
        minutes.push_back(minute_rec{m, {}, SIZE_MAX});
      }
      for (const std::string& b : blocks) minutes.back().blocks.push_back(b);
    }
    total = rec.writes_to(image).size();
    rec.stop();
    app.db_close();
    // Cut points: every write around each minute boundary, every seventh elsewhere.
    std::set<size_t> cuts;
    for (size_t b : boundary_ops)
      for (size_t k = b > 4 ? b - 4 : 0; k <= b + 40 && k <= total; k++) cuts.insert(k);
    for (size_t k = 0; k <= total; k += 7) cuts.insert(k);
    cuts.insert(total);
    ASSERT_EQ(4u, minutes.size());
    ASSERT_EQ(3u, boundary_ops.size());

    int resumed = 0;
    for (size_t k : cuts) {
      SCOPED_TRACE("cut after write " + std::to_string(k) + " of " + std::to_string(total));
      rec.replay(image, base, image, bytes, k);
      kit::StderrCapture quiet;
      fs_app again;
      again.set(1);
      ASSERT_EQ(1, again.db_open("w"));
      char dev[32], model[80], state[16], mode[16];
      long long tot, avail;
      int err;
      ASSERT_EQ(0, again.g_db_info(0, dev, model, state, mode, tot, avail, err));
      ASSERT_STREQ("Idle", state);
      std::vector<rec::hour_view> v = rec::read_volume("/dev/sda");
      std::map<std::string, const rec::minute_view*> found;
      std::map<std::string, uint64_t> hour_mask;
      for (const rec::hour_view& h : v) {
        for (const rec::minute_view& m : h.minutes) {
          found[std::string(h.e.name) + "/" + m.e.name] = &m;
          hour_mask[std::string(h.e.name) + "/" + m.e.name] = rec::mask_of(h.e);
        }
      }
      for (const minute_rec& m : minutes) {
        if (m.closed_at > k) continue;
        int t0 = m.minute * 60 < start ? start : m.minute * 60;
        char name[64];
        snprintf(name, sizeof name, "HOUR_%d:%.2d/MIN_%.2d:%.2d", t0 / 86400, (t0 / 3600) % 24,
                 (t0 / 60) % 60, t0 % 60);
        auto it = found.find(name);
        ASSERT_NE(found.end(), it) << name;
        EXPECT_NE(0u, hour_mask[name] & (1ULL << ((t0 / 60) % 60))) << name;
        std::vector<std::string> f = frames_of(*it->second);
        ASSERT_EQ(m.blocks.size(), f.size()) << name;
        for (size_t i = 0; i < f.size(); i++) ASSERT_EQ(m.blocks[i], f[i]) << name << " " << i;
      }
      // Recording goes on after some of the cuts.
      if (k % 5 == 0 || k == total) {
        resumed++;
        sim::capture more;
        ASSERT_EQ(0, more.open(rec::small_spec(1), (start + 400) * 1000LL, nullptr));
        std::vector<rec::written> w = rec::record(again, more, 61);
        again.flush();
        std::vector<rec::hour_view> after = rec::read_volume("/dev/sda");
        ASSERT_FALSE(after.empty());
        const rec::minute_view& last = after.back().minutes.back();
        std::vector<std::string> f = frames_of(last);
        ASSERT_FALSE(f.empty());
        EXPECT_EQ(w.back().bytes, f.back());
      }
      again.db_close();
      quiet.take();
    }
    EXPECT_GT(resumed, 5);
    std::cout << "cuts: " << cuts.size() << " of " << total << " writes, resumed " << resumed
              << "\n";
  }
}

}  // namespace
