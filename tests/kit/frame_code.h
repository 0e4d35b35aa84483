// Reads the frame code that the capture simulator's H.264 pictures carry, from pictures
// decoded by an independent decoder (ffmpeg's gray output: one byte a sample, W x H a
// frame). It knows the code's layout and nothing of the encoder:
//
//   24 macroblocks from pixel (16, 16), 8 across and 3 down, in raster order; MB k holds
//   nibble k as four 8x8 cells (bit 0 top left, 1 top right, 2 bottom left, 3 bottom
//   right), a light cell a set bit, a dark cell a clear bit. Every sample of a cell must
//   be clearly dark (< 64) or clearly light (> 192), all the same way.
//
//   nibble 0 magic 0xA; 1 channel bits 0-3; 2 channel bits 4-5, then stream (0 main,
//   1 sub); 3 XOR of every other nibble; 4-11 frame number (least significant nibble
//   first); 12-23 capture time in ms since 1970.
#ifndef RINGREC_TESTS_FRAME_CODE_H
#define RINGREC_TESTS_FRAME_CODE_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace kit {

struct frame_code {
  bool valid;  // false: no readable code (absent, blurred, wrong magic or check)
  int channel;
  int stream;  // 0 main, 1 substream
  long long ms;
  uint32_t frame;
};

// One gray picture of w x h samples.
frame_code read_frame_code(const uint8_t* gray, int w, int h);

// Every whole picture of a raw gray stream.
std::vector<frame_code> read_frame_codes(FILE* in, int w, int h);

// Decodes a media file with ffmpeg (gray, at its own size w x h) and reads every picture.
// -1 (and *err) when ffmpeg cannot be run or leaves a partial picture.
int decode_frame_codes(const std::string& path, int w, int h, std::vector<frame_code>& out,
                       std::string* err);

// Checks that the codes are one unbroken run of channel ch's stream starting at first_ms:
// picture k valid, captured at first_ms + k * 1000 / fps, and numbered one after picture
// k - 1. Empty when they are; otherwise what is wrong with the first picture that is not.
std::string frame_code_run(const std::vector<frame_code>& codes, int ch, int stream,
                           long long first_ms, int fps);

}  // namespace kit

#endif
