// A small H.264 encoder for the capture simulator: real, decodable pictures of a flat
// grey background carrying an on-screen caption (channel, stream, capture time) and a
// machine-readable frame code, cheap enough to make hours of several channels.
//
// Stream shape: Baseline profile, CAVLC, one slice per picture, no deblocking (so every
// decoded sample is exactly what was coded), one reference frame, POC type 2 (output
// order = decoding order). Key frames carry SPS and PPS, then an IDR slice; the others
// are P slices that reference the picture before.
//
//   background MB (IDR)   I_16x16, no residual, predicted from a background neighbour
//                         (DC with no neighbour gives 128): decodes to luma 128
//   frame code MB         I_16x16 whose only residual is its luma DC: each 8x8 quarter
//                         gets a residual of +-260, so whatever the prediction, the
//                         samples clip to exactly 0 or 255 (a few bytes a macroblock)
//   caption MB            I_PCM: the samples themselves, exact
//   P picture             P_Skip (zero motion, exact copy) except the MBs that changed
//                         since the picture before, coded as above
//   SEI                   user data: the capture's seed, so that two captures differ
//   filler                NAL units of type 12 after the slice, up to the byte budget
//
// The caption costs about 400 bytes a macroblock, so it is drawn only when the key
// frame's byte budget allows it; the frame code is always there.
//
// Chroma is 128 everywhere, so the picture is grey scale. The height is coded in whole
// macroblocks and cropped in the SPS (1080 = 68 MB rows less 8 lines).
//
// Frame code: 24 macroblocks at MB column 1, row 1, 8 wide and 3 tall, in raster order.
// MB k holds nibble k as four 8x8 cells (bit 0 top left, 1 top right, 2 bottom left,
// 3 bottom right), a set bit luma 255 and a clear bit luma 0:
//
//   nibble   0      magic 0xA
//            1      channel, bits 0-3
//            2      channel bits 4-5 (bits 0-1), stream (bits 2-3: 0 main, 1 sub)
//            3      check: XOR of every other nibble
//            4-11   frame number, 32 bits, least significant nibble first
//            12-23  capture time in ms since 1970, 48 bits, least significant first
//
// The caption sits on a dark strip from MB row 5 down.
#ifndef RINGREC_SIM_H264_SYNTH_H
#define RINGREC_SIM_H264_SYNTH_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace sim {

const int SYNTH_LEVEL_BG = 128;
const int SYNTH_LEVEL_DARK = 16;
const int SYNTH_LEVEL_LIGHT = 235;

const int SYNTH_CODE_MB_X = 1;
const int SYNTH_CODE_MB_Y = 1;
const int SYNTH_CODE_COLS = 8;
const int SYNTH_CODE_ROWS = 3;
const int SYNTH_CODE_NIBBLES = SYNTH_CODE_COLS * SYNTH_CODE_ROWS;  // 24
const int SYNTH_CODE_MAGIC = 0xA;
const int SYNTH_TEXT_MB_Y = SYNTH_CODE_MB_Y + SYNTH_CODE_ROWS + 1;

const int SYNTH_STREAM_MAIN = 0;
const int SYNTH_STREAM_SUB = 1;

class h264_synth {
 public:
  // width and height in pixels (even, at least 16); stream SYNTH_STREAM_MAIN or _SUB;
  // key_bytes: the byte budget of a key frame, which decides whether the caption is
  // drawn (0: always). Returns 0, or -1 for a size that cannot be coded.
  int open(int width, int height, int fps, int channel, int stream, size_t key_bytes,
           uint32_t seed);

  // Appends one access unit (4-byte start codes) for frame `n` captured at `ms`: a key
  // frame when `key`, else a P picture on the unit appended before. Filler NAL units
  // bring the unit up to `bytes` when it is shorter.
  void frame(std::string& out, uint32_t n, bool key, long long ms, size_t bytes);

  int mb_width() const { return mbw_; }
  int mb_height() const { return mbh_; }

 private:
  void draw_code(uint32_t n, long long ms, bool all);
  void draw_text(const std::string& text, bool all);
  void sps(std::string& out);
  void pps(std::string& out);
  void slice(std::string& out, bool key);
  void sei(std::string& out);

  int w_ = 0, h_ = 0, mbw_ = 0, mbh_ = 0, fps_ = 25, ch_ = 0, stream_ = 0;
  int scale_ = 1, text_mb_rows_ = 0, text_cols_ = 0, text_form_ = 0;
  int rows_ = 0;                // MB rows of the drawn area held in luma_
  std::vector<uint8_t> luma_;   // mbw*16 x rows_*16 samples of the drawn area
  std::vector<uint8_t> mode_;   // per MB: how an IDR codes it
  std::vector<uint8_t> dirty_;  // per MB of the drawn area: changed since the last unit
  uint8_t code_[SYNTH_CODE_NIBBLES] = {0};
  std::string text_;
  uint32_t frame_num_ = 0;
  uint32_t idr_id_ = 0;
  uint32_t seed_ = 0;
  std::string rbsp_;
};

}  // namespace sim

#endif
