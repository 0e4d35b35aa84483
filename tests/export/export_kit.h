// What the export suites share: a recorder on a simulated board, the frames a channel's
// export must hold worked out from the blocks the simulator handed to write (not from
// the library), the two ways an application drives the MP4 writers, and a reader of
// the files they leave.
#ifndef RINGREC_TESTS_EXPORT_KIT_H
#define RINGREC_TESTS_EXPORT_KIT_H

#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <string>
#include <vector>

#include "kit/kit.h"
#include "kit/recorder.h"

namespace xk {

// Exports need room: one 512 MiB disk.
struct Recorder : rec::Recorder {
  kit::TempDir out;
  Recorder() { make_board(1, 512LL << 20); }
  void start(int channels) { ASSERT_EQ(1, rec::open_formatted(*app, channels)); }
};

// One frame of a recorded block.
struct src_frame {
  int time;  // block time
  frame_head_t f;
  std::string data;
};

// The frames of channel ch that an export of [beg, end] must carry, in stored order:
// those of blocks of the given stream (2 main, 3 substream) or of audio, from the
// first key frame of the channel in range on.
std::vector<src_frame> expected(const std::vector<rec::written>& blocks, int beg, int end, int ch,
                                int stream);

// Video frames only, and the PCM that adpcm2lpcm makes of the audio frames.
std::string video_stream(const std::vector<src_frame>& v);  // concatenated start-code units
std::string pcm_of(const std::vector<src_frame>& v);
int video_count(const std::vector<src_frame>& v);

// One exported file.
struct out_file {
  std::string path;
  int ret;         // phase two's result (two-phase), 0 otherwise
  long long plan;  // planned mdat payload (two-phase), -1 otherwise
};

// Two-phase export of [beg, end] for the channels of mask into dir: phase one, then
// phase two for each plan line. The plan text goes to *plan.
std::vector<out_file> two_phase(fs_app& app, const std::string& dir, int beg, int end, int mask,
                                bool sub, std::string* plan = nullptr);

// Single-pass export with bk_write for channel ch, a new file at each result of 1 and
// for each item, the mdat size written in at byte 24 when the file is finished.
std::vector<out_file> single_pass(fs_app& app, const std::string& dir, int beg, int end, int ch);

// The same with bk_multi_m4v_write over one slot, one file running across hours.
std::vector<out_file> multi_pass(fs_app& app, const std::string& dir, int beg, int end, int ch,
                                 bool audio);

// Boxes of a finished file: the mdat payload size and the video sample count.
struct mp4_facts {
  bool ok = false;
  std::string err;
  unsigned mdat_payload = 0;
  unsigned video_samples = 0;
  unsigned audio_bytes = 0;
  unsigned width = 0, height = 0;
  std::string codec;  // "avc1" / "hvc1"
  std::vector<unsigned> audio_sizes;
};
mp4_facts facts(const std::string& path);

}  // namespace xk

#endif
