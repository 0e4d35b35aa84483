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
  media::write_file(dir / "sig.raw", raw);
  // A 256-byte block (the encoder wants a power of two): predictor (2), step index (1),
  // reserved (1), 252 code bytes.
  std::string cmd = "ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i " + (dir / "sig.raw") +
                    " -c:a adpcm_ima_wav -block_size 256 -f data " + (dir / "sig.adpcm");
  ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  std::string blocks = media::read_file(dir / "sig.adpcm");
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
  double snr = snr_db(src, dec);
  printf("adpcm2lpcm SNR against the source signal: %.1f dB\n", snr);
  EXPECT_GT(snr, 30.0);
}
