// adpcm2lpcm: output sizes, nibble order, the multiply-then-shift difference and the
// unclamped predictor.
#include <gtest/gtest.h>
#include <ringrec/audio.h>

#include <string>
#include <vector>

namespace {

std::string frame(short pred, short index, const std::string& codes) {
  std::string f("\0\1\x52\0", 4);
  f += static_cast<char>(pred & 0xff);
  f += static_cast<char>((pred >> 8) & 0xff);
  f += static_cast<char>(index & 0xff);
  f += static_cast<char>((index >> 8) & 0xff);
  return f + codes;
}

std::vector<int> decode(const std::string& f) {
  std::vector<char> in(f.begin(), f.end());  // exact-size heap copy
  std::vector<char> out(f.size() * 4 + 16, 0x7f);
  int len = -1;
  EXPECT_EQ(adpcm2lpcm(in.data(), static_cast<int>(in.size()), out.data(), len), 0);
  std::vector<int> s;
  for (int i = 0; i + 1 < len; i += 2)
    s.push_back(static_cast<short>((out[i] & 0xff) | ((out[i + 1] & 0xff) << 8)));
  EXPECT_EQ(static_cast<int>(s.size()) * 2, len);
  return s;
}

}  // namespace

TEST(Adpcm, OutputLengthIsThePredictorAndFourSamplesPerWord) {
  EXPECT_EQ(decode(frame(-300, 0, "")), std::vector<int>{-300});
  EXPECT_EQ(decode(frame(5, 0, "\x11")).size(), 1u);  // 9 bytes
  EXPECT_EQ(decode(frame(5, 0, std::string(4, 0))).size(), 9u);
  EXPECT_EQ(decode(frame(5, 0, std::string(5, 0))).size(), 9u);  // odd byte ignored
  EXPECT_EQ(decode(frame(5, 0, std::string(160, 0))).size(), 321u);
  EXPECT_EQ(decode(std::string("\0\1", 2)).size(), 1u);  // too short for a predictor
}

TEST(Adpcm, CodesAreTakenLowNibbleFirstWithTheMultiplyingDifference) {
  // At step 7, code 7 gives 0 + (7 * 7 >> 2) = 12; adding step, step/2 and step/4
  // bit by bit would give 11.
  std::vector<int> s = decode(frame(0, 0, std::string("\x07\x0f", 2) + std::string(2, 0)));
  ASSERT_EQ(s.size(), 9u);
  EXPECT_EQ(s[1], 12);  // low nibble of byte 0: +7 at step 7
  // Index went 0 -> 8 (step 16): high nibble 0 adds 16 >> 3 = 2.
  EXPECT_EQ(s[2], 14);
  // Index 7 (step 14): low nibble of byte 1 is 0xf: -(1 + 98/4) = -25.
  EXPECT_EQ(s[3], -11);
}

TEST(Adpcm, PredictorRunsOnPastTheClampedOutput) {
  // From 32000 at the largest step, positive codes saturate the output while the
  // predictor climbs; the first negative codes still show 32767.
  std::string codes = std::string(8, '\x77') + std::string(8, '\xff');
  std::vector<int> s = decode(frame(32000, 88, codes));
  ASSERT_EQ(s.size(), 33u);
  for (int i = 1; i <= 16; i++) EXPECT_EQ(s[i], 32767) << i;
  // 16 codes of +7 at step 32767 put the predictor at 32000 + 16 * 61437 = 1015 k;
  // each -7 takes 61437 off, so it is below 32767 only after 16 of them.
  for (int i = 17; i < 32; i++) EXPECT_EQ(s[i], 32767) << i;
  EXPECT_EQ(s[32], 32000);
  // A step index outside the table is clamped for the lookup: 200 acts as 88, -5 as 0.
  EXPECT_EQ(decode(frame(0, 200, std::string(2, 1))), decode(frame(0, 88, std::string(2, 1))));
  EXPECT_EQ(decode(frame(0, -5, std::string(2, 7))), decode(frame(0, 0, std::string(2, 7))));
}
