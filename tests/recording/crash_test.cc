// Power cuts in the write path: a recording across an hour boundary is rebuilt in every
// state a disk that lost power may be found in (kit/crash.h), including power lost again
// during the check's repair; the volume must reopen (its check runs) with every minute
// whose closing flush had completed listed in its hour, with its blocks intact, and
// recording must go on on the reopened volume.
#include "kit/crash.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "kit/recorder.h"

namespace {

kit::CrashPlan plan() {
  kit::CrashPlan p;
#if defined(__arm__)
  // Under qemu the full plan (about 2500 states) takes over half a minute: half of
  // the single drops and tears, and fewer random subsets, keep it near fifteen seconds.
  p.random_subsets = 10;
  p.single_drop_every = 2;
  p.tears_per_write = 4;
  p.tear_every = 2;
#endif
  return p;
}

struct minute_rec {
  int minute;                       // time / 60
  std::vector<std::string> blocks;  // blocks written to it, in order
  size_t closed_at = SIZE_MAX;      // writes to the disk once its close had completed
};

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
    ASSERT_EQ(1, rec::open_formatted(app, 1));
    kit::copy_image(image, base, bytes);
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
    ASSERT_EQ(4u, minutes.size());
    ASSERT_EQ(3u, boundary_ops.size());

    // Opens the rebuilt image as the service does after a restart and checks that every
    // minute closed before the last completed fsync is listed, marked in its hour and
    // holds its blocks, unless a torn entry named in `excused` took it.
    auto check = [&](size_t durable, const std::set<std::string>& excused) {
      kit::StderrCapture quiet;
      fs_app again;
      again.set(1);
      ASSERT_EQ(1, again.db_open("w"));
      char dev[32], model[80], state[16], mode[16];
      long long tot, avail;
      int err;
      ASSERT_EQ(0, again.g_db_info(0, dev, model, state, mode, tot, avail, err));
      ASSERT_STREQ("Idle", state);
      again.db_close();
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
        if (m.closed_at > durable) continue;
        int t0 = m.minute * 60 < start ? start : m.minute * 60;
        char hour[32], minute[32];
        snprintf(hour, sizeof hour, "HOUR_%d:%.2d", t0 / 86400, (t0 / 3600) % 24);
        snprintf(minute, sizeof minute, "MIN_%.2d:%.2d", (t0 / 60) % 60, t0 % 60);
        if (excused.count(hour) || excused.count(minute)) continue;
        std::string name = std::string(hour) + "/" + minute;
        auto it = found.find(name);
        ASSERT_NE(found.end(), it) << name;
        EXPECT_NE(0u, hour_mask[name] & (1ULL << ((t0 / 60) % 60))) << name;
        std::vector<std::string> f = rec::frames_of(*it->second);
        ASSERT_EQ(m.blocks.size(), f.size()) << name;
        for (size_t i = 0; i < f.size(); i++) ASSERT_EQ(m.blocks[i], f[i]) << name << " " << i;
      }
    };
    int resumed = 0, replays = 0, repaired = 0, repair_replays = 0, torn_entries = 0;
    auto resume = [&]() {
      resumed++;
      kit::StderrCapture quiet;
      fs_app again;
      again.set(1);
      ASSERT_EQ(1, again.db_open("w"));
      sim::capture more;
      ASSERT_EQ(0, more.open(rec::small_spec(1), (start + 400) * 1000LL, nullptr));
      std::vector<rec::written> w = rec::record(again, more, 61);
      again.flush();
      again.db_close();
      std::vector<rec::hour_view> after = rec::read_volume("/dev/sda");
      ASSERT_FALSE(after.empty());
      ASSERT_FALSE(after.back().minutes.empty());
      std::vector<std::string> f = rec::frames_of(after.back().minutes.back());
      ASSERT_FALSE(f.empty());
      EXPECT_EQ(w.back().bytes, f.back());
    };

    std::vector<kit::CrashCut> cuts = kit::crash_cuts(rec, image, plan());
    for (const kit::CrashCut& c : cuts) {
      SCOPED_TRACE(c.what + " of " + std::to_string(total) + " writes");
      std::vector<kit::TornEntry> torn = kit::apply_cut(rec, image, base, image, bytes, c);
      std::set<std::string> excused;  // hours and minutes a torn entry may have taken
      for (const kit::TornEntry& t : torn) {
        excused.insert(t.new_name);
        excused.insert(t.old_name);
      }
      torn_entries += static_cast<int>(torn.size());
      kit::WriteRecorder fix;
      check(c.durable, excused);
      fix.stop();
      replays++;
      if (HasFailure()) return;
      // Recording goes on after some of the states.
      if (replays % 16 == 0) resume();
      if (HasFailure()) return;
      if (fix.writes_to(image).empty()) continue;
      repaired++;
      for (const kit::CrashCut& r : kit::crash_cuts(fix, image, plan())) {
        kit::apply_cut(rec, image, base, image, bytes, c);
        std::vector<kit::TornEntry> t2 = kit::apply_cut_in_place(fix, image, image, r);
        std::set<std::string> ex2 = excused;
        for (const kit::TornEntry& t : t2) {
          ex2.insert(t.new_name);
          ex2.insert(t.old_name);
        }
        SCOPED_TRACE("repair cut at " + r.what);
        check(c.durable, ex2);
        repair_replays++;
        if (HasFailure()) return;
      }
    }
    EXPECT_GT(resumed, 5);
    EXPECT_GT(torn_entries, 0);
    EXPECT_EQ(static_cast<int>(cuts.size()), replays);
    RecordProperty("replays", replays);
    RecordProperty("repair_replays", repair_replays);
    std::cout << "replays: " << replays << " states of " << total << " writes, " << repaired
              << " repaired, " << repair_replays << " with power lost during the repair, "
              << torn_entries << " torn entries, recording resumed " << resumed << " times\n";
  }
}

}  // namespace
