// End-to-end recording on a simulated board, read back through the volume layer.
#include <gtest/gtest.h>
#include <string.h>

#include <map>

#include "kit/recorder.h"

namespace {

using rec::hour_view;
using rec::minute_view;

using rec::Recorder;

// The minutes of an hour entry by name.
std::map<std::string, const minute_view*> by_name(const hour_view& h) {
  std::map<std::string, const minute_view*> m;
  for (const minute_view& v : h.minutes) m[v.e.name] = &v;
  return m;
}

TEST_F(Recorder, HoursMinutesSummariesAndIndexesAcrossAnHourBoundary) {
  start(4);
  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(4), (rec::kHour0 + 3600 - 90) * 1000LL, nullptr));
  kit::StderrCapture err;
  std::vector<rec::written> w = rec::record(*app, cap, 1);
  // Motion on channel 2 and a sensor report during the first minute (wall 58:30).
  unsigned mask[3] = {0x1, 0x80, 0xF000};
  app->set_motion_info(2, mask, 3);
  app->set_log_info(0x4, 0x4, 0x8, 0, 0, 0, 0x10);
  std::vector<rec::written> more = rec::record(*app, cap, 179);
  w.insert(w.end(), more.begin(), more.end());
  app->flush();
  std::string log = err.take();
  // The first block opens both entries and the write reports where it records.
  EXPECT_NE(std::string::npos, log.find("write[744]: HDD0: "));
  EXPECT_NE(std::string::npos, log.find("/ MIN_58:30"));

  std::vector<hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(2u, v.size());
  int day = (rec::kHour0 + 3600) / 86400;
  char n0[32], n1[32];
  snprintf(n0, sizeof n0, "HOUR_%d:%.2d", day, ((rec::kHour0 + 3600 - 90) / 3600) % 24);
  snprintf(n1, sizeof n1, "HOUR_%d:%.2d", day, ((rec::kHour0 + 3600) / 3600) % 24);
  EXPECT_STREQ(n0, v[0].e.name);
  EXPECT_STREQ(n1, v[1].e.name);
  EXPECT_EQ(rec::kHour0 + 3600 - 90, v[0].e.time);
  EXPECT_EQ(rec::kHour0 + 3600, v[1].e.time);
  EXPECT_EQ((1ULL << 58) | (1ULL << 59), rec::mask_of(v[0].e));
  EXPECT_EQ(0x3ULL, rec::mask_of(v[1].e));  // minute 1 is still open, flushed once
  EXPECT_EQ(0xFu, rec::events_of(v[0].e));  // one Record bit per channel

  auto m0 = by_name(v[0]);
  auto m1 = by_name(v[1]);
  ASSERT_EQ(2u, m0.size());
  ASSERT_EQ(2u, m1.size());
  ASSERT_TRUE(m0.count("MIN_58:30"));
  ASSERT_TRUE(m0.count("MIN_59:00"));
  ASSERT_TRUE(m1.count("MIN_00:00"));
  ASSERT_TRUE(m1.count("MIN_01:00"));

  // Blocks written, in order, minute by minute; expected summaries from the blocks.
  std::map<int, std::vector<const rec::written*>> per_minute;
  for (const rec::written& b : w) per_minute[b.time / 60].push_back(&b);
  std::vector<const minute_view*> order = {m0["MIN_58:30"], m0["MIN_59:00"], m1["MIN_00:00"],
                                           m1["MIN_01:00"]};
  int k = 0;
  for (auto& pm : per_minute) {
    const minute_view& mv = *order[k++];
    SCOPED_TRACE(mv.e.name);
    EXPECT_EQ(pm.first * 60 + (k == 1 ? 30 : 0), mv.e.time);
    uint64_t secs = 0;
    int32_t counts[4] = {0, 0, 0, 0};
    for (const rec::written* b : pm.second) {
      secs |= 1ULL << (b->time % 60);
      head_t h = rec::head_of(b->bytes);
      for (int ch = 0; ch < 4; ch++) counts[ch] += h.count[ch];
    }
    EXPECT_EQ(secs, rec::mask_of(mv.e));
    for (int ch = 0; ch < 4; ch++) EXPECT_EQ(counts[ch], rec::count_of(mv.e, ch)) << ch;
    EXPECT_EQ(0xFu, rec::events_of(mv.e));

    // Motion record, event log record, the blocks, then (finished minutes) HQ and LQ.
    bool finished = k < 4;
    size_t n = pm.second.size();
    ASSERT_EQ(2 + n + (finished ? 2 : 0), mv.blocks.size());
    EXPECT_EQ(0, mv.offsets[0]);
    EXPECT_EQ(15656, mv.offsets[1]);
    head_t mh = rec::head_of(mv.blocks[0]);
    EXPECT_EQ(4u, mh.type);
    EXPECT_EQ(15360, mh.size);
    EXPECT_EQ(20u, mh.frames);
    EXPECT_EQ(0x10u, mh.types);
    head_t lh = rec::head_of(mv.blocks[1]);
    EXPECT_EQ(8u, lh.type);
    EXPECT_EQ(1152, lh.size);
    EXPECT_EQ(6u, lh.frames);
    EXPECT_EQ(0x100u, lh.types);
    for (size_t i = 0; i < n; i++) ASSERT_EQ(pm.second[i]->bytes, mv.blocks[2 + i]) << i;
    if (!finished) continue;

    // The index lists the key-frame blocks: main stream in HQ, substream in LQ.
    std::vector<frame_info_t> hq, lq;
    for (size_t i = 0; i < n; i++) {
      head_t h = rec::head_of(mv.blocks[2 + i]);
      if ((h.types & 0x801) == 0) continue;
      frame_info_t fi{mv.offsets[2 + i], h.events, h.time};
      (h.stream == 3 ? lq : hq).push_back(fi);
    }
    head_t ih = rec::head_of(mv.blocks[2 + n]);
    head_t il = rec::head_of(mv.blocks[3 + n]);
    EXPECT_EQ(10u, ih.type);
    EXPECT_EQ(0x4000u, ih.types);
    EXPECT_EQ(9u, il.type);
    EXPECT_EQ(0x2000u, il.types);
    EXPECT_EQ(static_cast<uint32_t>(ih.time) ^ static_cast<uint32_t>(ih.size), ih.magic);
    ASSERT_EQ(static_cast<int>(hq.size() * 16), ih.size);
    ASSERT_EQ(static_cast<int>(lq.size() * 16), il.size);
    EXPECT_EQ(0, memcmp(hq.data(), mv.blocks[2 + n].data() + 288, hq.size() * 16));
    EXPECT_EQ(0, memcmp(lq.data(), mv.blocks[3 + n].data() + 288, lq.size() * 16));
    EXPECT_EQ(mv.e.size, mv.offsets[3 + n] + static_cast<long long>(mv.blocks[3 + n].size()));
  }

  // The motion and event reports landed in the first minute's records.
  const minute_view& first = *m0["MIN_58:30"];
  head_t mh = rec::head_of(first.blocks[0]);
  EXPECT_EQ(0x4u, mh.events);
  int slot = 30 / 10;
  uint32_t row[20];
  memcpy(row, first.blocks[0].data() + 288 + slot * 2560 + 2 * 80, sizeof row);
  EXPECT_EQ(0x1u, row[0]);
  EXPECT_EQ(0x80u, row[1]);
  EXPECT_EQ(0xF000u, row[2]);
  EXPECT_EQ(0u, row[3]);
  event_t rows[12];
  memcpy(rows, first.blocks[1].data() + 288, sizeof rows);
  EXPECT_EQ(0x4u, rows[30 / 5].Vloss);
  EXPECT_EQ(0x4u, rows[30 / 5].Motion);
  EXPECT_EQ(0x8u, rows[30 / 5].Sensor);
  EXPECT_EQ(0x10u, rows[30 / 5].mask[3]);
  for (int s = 30 / 5; s < 12; s++) EXPECT_EQ(0xFu, rows[s].Record) << s;
  for (int s = 0; s < 30 / 5; s++) EXPECT_EQ(0u, rows[s].Record) << s;
  // The next minute starts clean.
  head_t mh2 = rec::head_of(m0["MIN_59:00"]->blocks[0]);
  EXPECT_EQ(0u, mh2.events);
}

TEST_F(Recorder, IndexAndEventLogLoadForPlayback) {
  start(2);
  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(2), (rec::kHour0 + 600) * 1000LL, nullptr));
  rec::record(*app, cap, 20);
  app->set_log_info(0x2, 0, 0, 0, 0, 0, 0);
  rec::record(*app, cap, 45);  // closes minute 10
  std::vector<hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(1u, v.size());
  ASSERT_GE(v[0].minutes.size(), 1u);

  fs_db* db = app->db_info[0].db;
  app->r_cur.min = v[0].minutes[0].e;
  app->read_Iframe_info(db, 1);
  EXPECT_EQ(14, app->r_iframe[1].kind);
  EXPECT_EQ(13, app->r_iframe[0].kind);
  EXPECT_EQ(60, app->r_iframe[1].count);  // one key frame a second
  EXPECT_EQ(60, app->r_iframe[0].count);
  EXPECT_EQ(0, app->r_iframe[1].pos);
  EXPECT_EQ(rec::kHour0 + 600, app->r_iframe[1].time);
  app->read_Iframe_info(db, -1);
  EXPECT_EQ(59, app->r_iframe[0].pos);
  EXPECT_EQ(rec::kHour0 + 659, app->r_iframe[0].time);

  struct seen_t {
    int calls = 0;
    uint32_t vloss = 0;
  } seen;
  app->AddEvenctChagedHandler(&seen, [](void* ctx, int, event_t* ev) {
    static_cast<seen_t*>(ctx)->calls++;
    static_cast<seen_t*>(ctx)->vloss |= ev->Vloss;
  });
  app->read_Log_info(db, 0);
  EXPECT_EQ(12, app->q_EventCount());
  EXPECT_EQ(12, seen.calls);
  EXPECT_EQ(0x2u, seen.vloss);
  EXPECT_EQ(0x3u, app->q_Event(11)->Record);
  EXPECT_EQ(app->q_EventInfo() + 4, app->q_Event(4));

  // An entry without an event log (an hour's table entry) clears the table and still
  // tells the handler about the previous count.
  app->r_cur.min = v[0].e;
  seen.calls = 0;
  app->read_Log_info(db, 0);
  EXPECT_EQ(12, seen.calls);
  EXPECT_EQ(0u, app->q_Event(11)->Record);
  app->read_Iframe_info(db, 1);
  EXPECT_EQ(0, app->r_iframe[0].count);
  EXPECT_EQ(0, app->r_iframe[1].count);
}

TEST_F(Recorder, RestartInTheSameSecondTakesASuffixedMinute) {
  start(1);
  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(1), (rec::kHour0 + 120) * 1000LL, nullptr));
  std::vector<std::string> blocks;
  cap.next(blocks);
  kit::FakeClock::wall = cap.time();
  ASSERT_EQ(0, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
  // A mode change drops the open entries; the same second again needs a new name.
  kit::StderrCapture err;
  ASSERT_EQ(0, app->db_set(0, "bogus"));
  ASSERT_EQ(0, app->write(cap.time(), static_cast<int>(blocks[0].size()), blocks[0].data()));
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("db_write[897]: ERR: MIN_02:00-1\n")) << log;
  std::vector<hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(1u, v.size());
  ASSERT_EQ(2u, v[0].minutes.size());
  EXPECT_STREQ("MIN_02:00-1", v[0].minutes[1].e.name);
}

TEST_F(Recorder, MarkerFilesChangeNamesAndTimes) {
  start(1);
  board->touch("/tmp/hdd");
  board->touch("/zconf/rd/fs/test");
  sim::capture cap;
  int day0 = (rec::kHour0 / 86400) * 86400;
  ASSERT_EQ(0, cap.open(rec::small_spec(1), (day0 + 600) * 1000LL, nullptr));  // 00:10:00
  rec::record(*app, cap, 2);
  std::vector<hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(1u, v.size());
  char want[32];
  snprintf(want, sizeof want, "HOUR_%d:01:40", day0 / 86400);  // ten times faster
  EXPECT_STREQ(want, v[0].e.name);
  EXPECT_EQ(day0 + 6000, v[0].e.time);
}

TEST_F(Recorder, DiskReportModesAndIdleIndicator) {
  start(1);
  char dev[32], model[80], state[16], mode[16];
  long long total = 0, avail = 0;
  int err = -1;
  ASSERT_EQ(0, app->g_db_info(0, dev, model, state, mode, total, avail, err));
  EXPECT_STREQ("/dev/sda", dev);
  EXPECT_STREQ("Idle", state);
  EXPECT_STREQ("OVWR", mode);
  EXPECT_EQ(256LL << 20, total);
  EXPECT_EQ(0, err);
  EXPECT_EQ(-1, app->g_db_info(1, dev, model, state, mode, total, avail, err));
  EXPECT_EQ(0, app->iswriting());

  sim::capture cap;
  ASSERT_EQ(0, cap.open(rec::small_spec(1), (rec::kHour0 + 5) * 1000LL, nullptr));
  rec::record(*app, cap, 1);
  app->g_db_update();
  ASSERT_EQ(0, app->g_db_info(0, dev, model, state, mode, total, avail, err));
  EXPECT_STREQ("Record", state);
  EXPECT_EQ(1, app->iswriting());
  kit::FakeClock::mono_ms += 2999;
  EXPECT_EQ(1, app->iswriting());
  EXPECT_EQ(0, app->g_db_update());
  kit::FakeClock::mono_ms += 1;
  EXPECT_EQ(0, app->iswriting());
  EXPECT_EQ(1, app->g_db_update());
  EXPECT_EQ(0, app->g_db_update());
  // The marked editions wait 30 s.
  board->touch("/z/oem/JX");
  rec::record(*app, cap, 1);
  kit::FakeClock::mono_ms += 29000;
  EXPECT_EQ(1, app->iswriting());
  kit::FakeClock::mono_ms += 1000;
  EXPECT_EQ(0, app->iswriting());

  ASSERT_EQ(0, app->db_set(0, "RDONLY"));
  ASSERT_EQ(0, app->g_db_info(0, dev, model, state, mode, total, avail, err));
  EXPECT_STREQ("RDONLY", mode);
  ASSERT_EQ(0, app->db_set(0, "WR"));
  ASSERT_EQ(0, app->g_db_info(0, dev, model, state, mode, total, avail, err));
  EXPECT_STREQ("WR", mode);
  kit::StderrCapture cap_err;
  EXPECT_EQ(-1, app->db_set(3, "OVWR"));
  EXPECT_EQ(-1, app->db_format(7));
  std::string log = cap_err.take();
  EXPECT_NE(std::string::npos, log.find("db_set[393]: ERR: idx = 3, cnt = 1\n"));
  EXPECT_NE(std::string::npos, log.find("db_format[363]: ERR: idx = 7, cnt = 1\n"));
}

TEST_F(Recorder, RetentionDropsOldHoursOnly) {
  start(1);
  sim::capture cap;
  for (int h = 0; h < 4; h++) {
    ASSERT_EQ(0, cap.open(rec::small_spec(1), (rec::kHour0 + h * 3600) * 1000LL, nullptr));
    rec::record(*app, cap, 3);
  }
  ASSERT_EQ(4u, rec::read_volume("/dev/sda").size());
  kit::StderrCapture err;
  EXPECT_EQ(0, app->check_valid(rec::kHour0 + 4 * 3600, 2));
  EXPECT_NE(std::string::npos, err.take().find("check_valid[697]: CLEAN: Valid = 2\n"));
  std::vector<hour_view> v = rec::read_volume("/dev/sda");
  ASSERT_EQ(2u, v.size());
  EXPECT_EQ(rec::kHour0 + 2 * 3600, v[0].e.time);
}

TEST(DiskSet, DiscoveryFiltersNamesUsbAndModels) {
  kit::FakeClock clock(rec::kHour0, 1000);
  kit::Board board({{"sda", 64LL << 20, "  ST1000  DM003 \n", false},
                    {"sdb", 64LL << 20, "", false},
                    {"sdc", 64LL << 20, "USBSTICK", true}});
  // Partitions, md devices and four-letter names are not whole internal disks.
  {
    FILE* f = fopen((board.root() + "/proc/partitions").c_str(), "a");
    fputs(
        "   8        1      65536 sda1\n   9        0      65536 md0\n"
        "   8      400      65536 sdab\ngarbage line\n\n",
        f);
    fclose(f);
  }
  // The simulated model file ends in the board's newline; write the odd one by hand.
  fs_app app;
  kit::StderrCapture err;
  ASSERT_EQ(2, app.db_open("w"));
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("db_open[278]: /dev/sda: ST1000 DM003, 0GB\n")) << log;
  EXPECT_NE(std::string::npos, log.find("db_open[278]: /dev/sdb: RAID, 0GB\n")) << log;
  EXPECT_EQ(std::string::npos, log.find("sdc"));

  char dev[32], model[80], state[16], mode[16];
  long long total = 0, avail = 0;
  int e = 0;
  ASSERT_EQ(0, app.g_db_info(1, dev, model, state, mode, total, avail, e));
  EXPECT_STREQ("Error", state);  // not formatted
  EXPECT_STREQ("NONE", mode);
  EXPECT_EQ(64LL << 20, total);
  EXPECT_EQ(0, avail);
  EXPECT_EQ(2, e);

  kit::StderrCapture err2;
  EXPECT_EQ(1, app.db_check());
  EXPECT_NE(std::string::npos, err2.take().find("db_check[242]: check2: \"\" -> \"sda,sdb\"\n"));
  EXPECT_EQ(0, app.db_check());
  // A new partition line that leaves the disks as they were is no change.
  {
    FILE* f = fopen((board.root() + "/proc/partitions").c_str(), "a");
    fputs("   8        2      65536 sda2\n", f);
    fclose(f);
  }
  EXPECT_EQ(0, app.db_check());
  app.db_close();
  EXPECT_EQ(0, app.g_db_num());
}

TEST(DiskSet, SeventeenthDiskIsIgnored) {
  kit::FakeClock clock(rec::kHour0, 1000);
  std::vector<sim::disk_spec> disks;
  for (int i = 0; i < 17; i++) disks.push_back({sim::disk_name(i), 16LL << 20, "M", false});
  kit::Board board(disks);
  fs_app app;
  kit::StderrCapture err;
  EXPECT_EQ(16, app.db_open("r"));
  EXPECT_EQ(std::string::npos, err.take().find("/dev/sdq"));
  char dev[32], model[80], state[16], mode[16];
  long long total = 0, avail = 0;
  int e = 0;
  EXPECT_EQ(-1, app.g_db_info(16, dev, model, state, mode, total, avail, e));
  app.db_close();
}

}  // namespace
