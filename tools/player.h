// The playback walk of `ringrec play`: the library's cursor driven block by block or key
// frame by key frame, forwards or backwards, across minutes, hours and disks, with the
// spans it has to jump over because their stored blocks cannot be read.
#ifndef RINGREC_TOOL_PLAYER_H
#define RINGREC_TOOL_PLAYER_H

#include <ringrec/fs_app.h>

#include <string>
#include <vector>

namespace tool {

struct play_gap {
  std::string minute;  // the minute entry's name
  int slot;            // its disk's row in the disk table
  int offset;          // the data offset that does not read
  long long from, to;  // the last second read before it, the first after (-1: none)
};

class player {
 public:
  // dir: 1 forwards, -1 backwards. mask and step apply with keyframes: the channels a
  // shown key frame must carry, and the least seconds between two shown key frames.
  player(fs_app& app, int dir, bool keyframes, uint32_t mask, int step);

  // After r_set(at): the first block to show (forwards, the first at or after `at`;
  // backwards, the last at or before it), or null when there is none.
  head_t* start(long long at);
  // The next block to show, or null at the end of the recording.
  head_t* next();

  std::vector<play_gap> gaps;

 private:
  bool next_minute();
  bool move();
  void resync();
  bool wanted(const head_t& h) const;
  head_t* settle(bool moved);
  head_t* read_or_jump();
  void back_to(long long at);

  fs_app& app_;
  int dir_;
  bool keyframes_;
  uint32_t mask_;
  int step_;
  int32_t minute_time_ = 0;   // entry time of the minute the cursor is in
  long long last_shown_ = 0;  // time of the last block shown (or the virtual one before)
  long long last_read_ = -1;  // time of the last frame block read
};

// "main key", "sub": the stream and kind of a block.
std::string block_kind(const head_t& h);

}  // namespace tool

#endif
