// Backup suites' fixture: a one-disk board recorded with hand-built blocks whose every
// frame the test knows, so what a backup reads or writes can be compared with what went
// in. The block bytes are composed here from literals, independently of the library's
// own format header.
#ifndef RINGREC_TESTS_BACKUP_BK_KIT_H
#define RINGREC_TESTS_BACKUP_BK_KIT_H

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "kit/recorder.h"

namespace bk {

// One frame as the capture side hands it over: its 11 header words and its data.
struct frame {
  uint32_t w[11];  // type, ch, width, height, fps, w5, w6, stream, w8, size, len
  std::string data;
};

// A stored block as the recorder builds it.
struct block {
  int time;
  uint32_t type = 1;
  std::vector<frame> frames;
  std::string bytes;  // filled by seal()
};

inline void put32(std::string& s, size_t off, uint32_t v) { memcpy(&s[off], &v, 4); }

inline frame make_frame(uint32_t type, uint32_t ch, uint32_t stream, int len, uint32_t seed) {
  frame f;
  memset(f.w, 0, sizeof f.w);
  f.w[0] = type;
  f.w[1] = ch;
  if (type == 2) {
    f.w[2] = 1;     // ADPCM
    f.w[3] = 8000;  // sample rate
  } else {
    f.w[2] = 352;
    f.w[3] = 288;
    f.w[4] = 5;
    f.w[5] = 0x500 + seed % 7;
    f.w[6] = 0x600 + seed % 11;
  }
  f.w[7] = stream;
  f.w[9] = static_cast<uint32_t>(len);
  f.w[10] = static_cast<uint32_t>(len);
  f.data.resize(static_cast<size_t>(len));
  uint32_t x = seed * 2654435761u + 1;
  for (int i = 0; i < len; i++) {
    x = x * 1103515245u + 12345u;
    f.data[static_cast<size_t>(i)] = static_cast<char>(x >> 24);
  }
  return f;
}

// Head (288 bytes: sync 0x1234, magic time ^ size, type, time, ..., size at byte 24,
// frame count at 28, per-channel counts from byte 52), frames, tail {0xFFFFEDCB, size}.
inline void seal(block& b) {
  std::string data;
  std::vector<int32_t> count(59, 0);
  uint32_t types = 0;
  for (const frame& f : b.frames) {
    data.append(reinterpret_cast<const char*>(f.w), 44);
    data += f.data;
    if (f.w[1] < 59) count[f.w[1]]++;
    if (f.w[0] < 32) types |= 1u << f.w[0];
  }
  uint32_t size = static_cast<uint32_t>(data.size());
  std::string h(288, '\0');
  put32(h, 0, 0x1234);
  put32(h, 4, static_cast<uint32_t>(b.time) ^ size);
  put32(h, 8, b.type);
  put32(h, 12, static_cast<uint32_t>(b.time));
  put32(h, 20, 2);
  put32(h, 24, size);
  put32(h, 28, static_cast<uint32_t>(b.frames.size()));
  put32(h, 32, types);
  for (int ch = 0; ch < 59; ch++) put32(h, 52 + 4 * ch, static_cast<uint32_t>(count[ch]));
  std::string tail(8, '\0');
  put32(tail, 0, 0xFFFFEDCB);
  put32(tail, 4, size);
  b.bytes = h + data + tail;
}

// One block a second for every second of [t0, t0 + seconds): each of `channels`
// channels gives a video frame (a key frame every `gop` seconds, starting at
// `first_key`) and an audio frame. H.264 unless codec is 265.
inline std::vector<block> scene(int t0, int seconds, int channels, int gop = 4, int first_key = 0,
                                int codec = 264) {
  std::vector<block> out;
  for (int s = 0; s < seconds; s++) {
    block b;
    b.time = t0 + s;
    for (int ch = 0; ch < channels; ch++) {
      bool key = s >= first_key && (s - first_key) % gop == 0;
      uint32_t type = codec == 265 ? (key ? 11 : 12) : (key ? 0 : 1);
      uint32_t seed = static_cast<uint32_t>(b.time) * 64u + static_cast<uint32_t>(ch);
      b.frames.push_back(make_frame(
          type, ch, 2,
          100 + static_cast<int>((static_cast<uint32_t>(b.time) * 37u + ch * 11u) % 400u), seed));
      b.frames.push_back(make_frame(2, ch, 2, 80, seed + 7));
    }
    seal(b);
    out.push_back(b);
  }
  return out;
}

// A recorder on a one-disk board whose wall clock follows the blocks it is given.
struct Fixture : rec::Recorder {
  void start(int channels = 4) { ASSERT_EQ(1, rec::open_formatted(*app, channels)); }
  void record(const std::vector<block>& v) {
    for (const block& b : v) {
      kit::FakeClock::wall = b.time;
      kit::FakeClock::mono_ms += 1000;
      ASSERT_EQ(0, app->write(b.time, static_cast<int>(b.bytes.size()), b.bytes.data()));
    }
    app->flush();
  }
};

}  // namespace bk

#endif
