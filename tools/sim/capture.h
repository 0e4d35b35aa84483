// The capture side of a simulated recorder: gathers the frames of N channels (main
// stream, substream and ADPCM audio) into stored blocks exactly as the recorder hands
// them to fs_app::write, one main-stream block and one substream block per tick.
//
// Block: head_t (288 bytes), frames back to back (frame_head_t + data each), tail
// {0xFFFFEDCB, size}. Head words filled: sync, magic (time ^ size), type 1, time,
// time2 0 (no zone offset), stream 2 (main) or 3 (substream), size, frame count, type
// bits, w9 = tick number, event bits (one Record bit per channel present, ORed with the
// injected event bits), and the per-channel frame counts.
#ifndef RINGREC_SIM_CAPTURE_H
#define RINGREC_SIM_CAPTURE_H

#include <stdint.h>

#include <string>
#include <vector>

#include "sim/h264_synth.h"

namespace sim {

// Head word 2 of the frame blocks this capture side builds (the library's own records
// use 4 and up).
const uint32_t SIM_BLOCK_FRAMES = 1;
// An audio frame's head: width word 1 says 8 kHz IMA ADPCM, height word the sample rate.
const uint32_t SIM_AUDIO_ADPCM = 1;
const uint32_t SIM_AUDIO_RATE = 8000;

struct capture_spec {
  int channels = 4;
  int fps = 25;
  int gop = 25;          // frames from one key frame to the next
  int main_kbps = 4000;  // main stream bit rate
  int sub_kbps = 512;    // substream bit rate
  bool audio = true;     // 8 kHz IMA ADPCM, one audio frame per video frame
  bool substream = true;
  int block_ms = 200;                // capture time gathered into one block; divides 1000
  int codec = 264;                   // 264: decodable pictures (h264_synth); 265: placeholder units
  int main_w = 1920, main_h = 1080;  // replaced by the SPS's size of an --input stream
  int sub_w = 704, sub_h = 576;
  std::string main_input;  // Annex B stream (ffmpeg -f h264 / -f hevc); empty: synthetic
  std::string sub_input;   // the same for the substream; empty: main_input or synthetic
  uint32_t seed = 1;
};

// One access unit of an Annex B stream.
struct access_unit {
  std::string bytes;  // start codes included
  bool key;
};

// Splits an Annex B stream into access units; codec 264 or 265 (0: guess from the
// first NAL unit). Parameter sets are kept with the key frame that follows them.
int load_annexb(const std::string& path, int codec, std::vector<access_unit>& out, int* found_codec,
                std::string* err);

// A synthetic, well-formed but undecodable access unit (start codes, plausible NAL
// headers, parameter sets before key frames, payload without start-code emulation): the
// H.265 placeholder.
std::string synth_unit(int codec, bool key, int bytes, uint32_t seed);

class capture {
 public:
  // start_ms: capture time of the first tick, milliseconds since the epoch.
  int open(const capture_spec& shape, long long start_ms, std::string* err);

  // Builds the blocks of the next tick into `blocks` (replacing its contents) and moves
  // the capture time on by block_ms. time() is the block time (seconds) of those blocks.
  void next(std::vector<std::string>& blocks);
  int time() const { return static_cast<int>(block_start_ms_ / 1000); }
  long long now_ms() const { return now_ms_; }

  // Event bits ORed into word 10 of the blocks built from now on (0 to stop).
  void set_events(uint32_t bits) { events_ = bits; }

  const capture_spec& shape() const { return spec_; }
  int codec() const { return codec_; }

 private:
  std::string video_frame(int ch, bool sub, long long n, bool& key);
  long long frame_bytes(bool sub, bool key) const;
  std::string audio_frame(int ch, long long n);

  capture_spec spec_;
  int codec_ = 264;
  long long start_ms_ = 0;
  long long now_ms_ = 0;
  long long block_start_ms_ = 0;
  long long tick_ = 0;
  long long frame_ = 0;  // video frames per channel so far
  uint32_t events_ = 0;
  std::vector<access_unit> main_units_, sub_units_;
  std::vector<h264_synth> pictures_;  // per channel: main, then substream
};

// Moves the library's wall clock (fs_sys.time) with simulated capture time: while
// followed, time() answers the seconds last given to clock_set. clock_release puts
// the C library's time back.
void clock_follow();
void clock_set(long long secs);
void clock_release();

}  // namespace sim

#endif
