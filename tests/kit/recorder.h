// Shared helpers of the recording, playback and backup suites: a recorder on a simulated board,
// driven by the capture simulator on a fake clock, and read-back of what it stored through fs_db.
#ifndef RINGREC_TESTS_KIT_RECORDER_H
#define RINGREC_TESTS_KIT_RECORDER_H

#include <gtest/gtest.h>
#include <ringrec/fs_app.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kit/kit.h"
#include "sim/capture.h"

namespace rec {

// A start time in the middle of an hour: 2023-11-14 22:00:00 UTC plus `secs`.
const int kHour0 = 1699999200;

// Small frames: four channels at 5 frames a second, one key frame a second.
sim::capture_spec small_spec(int channels = 4);

// One block as handed to write, and where it should have landed.
struct written {
  int time;
  std::string bytes;
};

// Formats every disk of the board through the service.
void format_all(fs_app& app);

// The usual set-up: `channels` channels, every disk of the board opened for writing
// and formatted. Returns what db_open returned (the number of disks).
int open_formatted(fs_app& app, int channels);

// Records `seconds` of capture time from cap's current time, block by block, keeping the
// fake wall clock with the capture time. Every block must be accepted unless
// `expect_ok` is false. Returns the blocks written in order.
std::vector<written> record(fs_app& app, sim::capture& cap, int seconds, bool expect_ok = true);

// The recorder of the suites: a service on a simulated board (one 256 MiB disk unless
// make_board says otherwise), on a fake clock starting at kHour0.
struct Recorder : ::testing::Test {
  kit::FakeClock clock{kHour0, 1000000};
  std::unique_ptr<kit::Board> board{new kit::Board(1, 256LL << 20)};
  fs_app* app = new fs_app();
  std::vector<written> blocks;  // what record() handed to write, in order
  ~Recorder() override {
    app->bk_clr();
    app->db_close();
    delete app;
  }
  // The old board goes first: its end clears RINGREC_ROOT.
  template <typename... A>
  void make_board(A&&... a) {
    board.reset();
    board.reset(new kit::Board(std::forward<A>(a)...));
  }
  // Opens and formats every disk of the board for `channels` channels.
  void start(int channels) { ASSERT_GE(open_formatted(*app, channels), 1); }
  // Records `seconds` of cap's capture, keeping the blocks; flushes the open minute.
  void record(sim::capture& cap, int seconds, bool expect_ok = true) {
    std::vector<written> w = rec::record(*app, cap, seconds, expect_ok);
    blocks.insert(blocks.end(), w.begin(), w.end());
    app->flush();
  }
};

// Read-back through a volume opened read-only.
struct minute_view {
  entry_t e;
  std::vector<std::string> blocks;  // stored blocks from data offset 0, whole
  std::vector<long long> offsets;   // their data offsets
};
struct hour_view {
  entry_t e;
  std::vector<minute_view> minutes;
};
std::vector<hour_view> read_volume(const char* dev);

// The payload of hour and minute entries, read at its byte offsets in the 324-byte
// entry rather than through the library: the minute (hour) or second (minute) mask, 8
// bytes at 72; the event bits, 4 bytes at 80; the per-channel frame sums, 4 bytes each
// from 84.
uint64_t mask_of(const entry_t& e);
uint32_t events_of(const entry_t& e);
int32_t count_of(const entry_t& e, int ch);
head_t head_of(const std::string& block);

// The records a minute keeps beside its frame blocks: the motion record (type 4), the
// event log record (8) and the LQ and HQ key-frame indexes (9, 10).
bool is_record(uint32_t type);
// The frame blocks of a stored minute, in order, without those records.
std::vector<std::string> frames_of(const minute_view& m);

}  // namespace rec

#endif
