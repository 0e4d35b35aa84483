// adpcm2lpcm against an independent encoder: ffmpeg's IMA ADPCM (WAV flavour) encodes a
// known signal in blocks of 505 samples, which are repacked as recorder audio frames.
#include <gtest/gtest.h>
#include <math.h>
#include <ringrec/audio.h>

#include <string>
#include <vector>

#include "kit/kit.h"
#include "media.h"

namespace {

// Signal-to-noise ratio of decoded against source, in dB.
double snr_db(const std::vector<short>& src, const std::vector<short>& dec) {
  double s = 0, n = 0;
  for (size_t i = 0; i < src.size(); i++) {
    s += double(src[i]) * src[i];
    n += (double(src[i]) - dec[i]) * (double(src[i]) - dec[i]);
  }
  return 10 * log10(s / (n > 0 ? n : 1));
}

}  // namespace

TEST(AdpcmAgainstFfmpeg, DecodedFramesTrackTheEncodedSignal) {
  REQUIRE_FFMPEG();
  kit::TempDir dir;
  const int kFrames = 160, kPer = 505;  // 10 s at 8000 Hz
  std::vector<short> src(kFrames * kPer);
  std::string raw;
  for (size_t t = 0; t < src.size(); t++) {
    double x = 9000 * sin(2 * M_PI * 440 * t / 8000) + 5000 * sin(2 * M_PI * 1230 * t / 8000 + 1) +
               3000 * sin(2 * M_PI * 97 * t / 8000);
    src[t] = static_cast<short>(lrint(x));
    raw += static_cast<char>(src[t] & 0xff);
    raw += static_cast<char>((src[t] >> 8) & 0xff);
  }
  kit::write_file(dir / "sig.raw", raw);
  // A 256-byte block (the encoder wants a power of two): predictor (2), step index (1),
  // reserved (1), 252 code bytes.
  std::string cmd = "ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i " + (dir / "sig.raw") +
                    " -c:a adpcm_ima_wav -block_size 256 " + (dir / "sig.wav");
  ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  // The blocks are the WAV file's "data" chunk.
  std::string wav = kit::read_file(dir / "sig.wav"), blocks;
  for (size_t off = 12; off + 8 <= wav.size();) {
    size_t len = (wav[off + 4] & 0xff) | (wav[off + 5] & 0xff) << 8 | (wav[off + 6] & 0xff) << 16 |
                 size_t(wav[off + 7] & 0xff) << 24;
    if (wav.compare(off, 4, "data") == 0) blocks = wav.substr(off + 8, len);
    off += 8 + len + (len & 1);
  }
  ASSERT_EQ(blocks.size(), size_t(kFrames) * 256);

  std::vector<short> dec;
  for (int k = 0; k < kFrames; k++) {
    const char* b = blocks.data() + k * 256;
    std::string frame =
        std::string("\0\1\x52\0", 4) + std::string(b, 3) + '\0' + std::string(b + 4, 252);
    char out[8 * 130 - 14];
    int len = 0;
    adpcm2lpcm(frame.data(), static_cast<int>(frame.size()), out, len);
    ASSERT_EQ(len, kPer * 2);
    for (int i = 0; i < len; i += 2)
      dec.push_back(static_cast<short>((out[i] & 0xff) | ((out[i + 1] & 0xff) << 8)));
  }
  // ffmpeg's own decoder on the same blocks: the quality the 4-bit codes allow.
  std::string ref_pcm = media::run("ffmpeg -v error -i " + (dir / "sig.wav") + " -f s16le -");
  ASSERT_EQ(ref_pcm.size(), src.size() * 2);
  std::vector<short> ref(src.size());
  for (size_t i = 0; i < ref.size(); i++)
    ref[i] = static_cast<short>((ref_pcm[2 * i] & 0xff) | ((ref_pcm[2 * i + 1] & 0xff) << 8));
  double snr = snr_db(src, dec), ref_snr = snr_db(src, ref), agree = snr_db(ref, dec);
  printf(
      "SNR against the source: adpcm2lpcm %.1f dB, ffmpeg's decoder %.1f dB; "
      "adpcm2lpcm against ffmpeg's decoder %.1f dB\n",
      snr, ref_snr, agree);
  EXPECT_GT(snr, 20.0);
  EXPECT_GT(snr, ref_snr - 0.5);
  EXPECT_GT(agree, 40.0);
}
