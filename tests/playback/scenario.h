// The recording the playback suites read: two disks, an hour boundary, a minute split
// across the disks, events and motion injected at known seconds.
#ifndef RINGREC_TESTS_PLAYBACK_SCENARIO_H
#define RINGREC_TESTS_PLAYBACK_SCENARIO_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kit/recorder.h"

namespace pbt {

// Capture starts at 57:30 of hour H (= kHour0 / 3600) and runs 270 s to 01:59 of
// hour H+1. Disk sda takes 57:30 to 58:29, then the disk is made read-only and sdb
// takes 58:30 to 01:59.
const int kStart = rec::kHour0 + 3600 - 150;
const int kSwitch = kStart + 60;
const int kEnd = kStart + 270;

struct Scenario : rec::Recorder {
  std::vector<rec::written>& w = blocks;  // every block handed to write, in order

  void SetUp() override {
    kit::FakeClock::wall = kStart;
    make_board(2, 128LL << 20);
    ASSERT_EQ(2, rec::open_formatted(*app, 4));
    sim::capture cap;
    ASSERT_EQ(0, cap.open(rec::small_spec(4), kStart * 1000LL, nullptr));
    kit::StderrCapture quiet;
    add(rec::record(*app, cap, 10));  // 57:40
    // Minute 57: video loss on channel 2, a sensor on 3, motion on channel 2 in the
    // 40-49 s snapshot.
    app->set_log_info(0x4, 0, 0x8, 0, 0, 0, 0);
    unsigned m57[2] = {0x0, 0x100};
    app->set_motion_info(2, m57, 2);
    add(rec::record(*app, cap, 50));  // 58:30
    ASSERT_EQ(0, app->db_set(0, "RDONLY"));
    add(rec::record(*app, cap, 110));  // 00:20 of hour H+1
    // Minute 00: motion on channel 1 in the 20-29 s snapshot.
    unsigned m00[1] = {0x3};
    app->set_motion_info(1, m00, 1);
    add(rec::record(*app, cap, 100));
    app->flush();
  }
  void add(const std::vector<rec::written>& v) { w.insert(w.end(), v.begin(), v.end()); }
};

}  // namespace pbt

#endif
