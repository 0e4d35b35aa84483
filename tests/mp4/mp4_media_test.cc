// fs_mp4 on real streams from x264 and x265, shaped like a recorder's encoder (no
// B-frames, one slice per picture, a fixed GOP, parameter sets before every key frame),
// checked with ffprobe and by decoding with ffmpeg.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <sstream>
#include <string>
#include <vector>

#include "annexb.h"
#include "kit/kit.h"
#include "media.h"

namespace {

struct Codec {
  const char* name;    // fs_mp4 codec
  const char* probe;   // ffprobe codec_name
  const char* encode;  // ffmpeg video options
};

const Codec kH264{"avc1", "h264",
                  "-c:v libx264 -bf 0 -g 25 -x264-params repeat-headers=1:slices=1 -f h264"};
const Codec kH265{"hvc1", "hevc",
                  "-c:v libx265 -x265-params "
                  "bframes=0:keyint=25:min-keyint=25:repeat-headers=1:log-level=error -f hevc"};

// 3 s of 320x240 at 25/s.
std::string encode(const kit::TempDir& dir, const Codec& c) {
  std::string es = dir / "src.es";
  std::string cmd =
      "ffmpeg -v error -y -f lavfi -i testsrc2=size=320x240:rate=25 -t 3 "
      "-pix_fmt yuv420p " +
      std::string(c.encode) + " " + es;
  EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
  return es;
}

// The driving order of export: scan everything to size mdat, then add + w_data per
// sample, moov at the end.
void mux(const std::string& out, const char* codec, const std::vector<annexb::frame>& frames,
         const std::vector<std::string>& audio = {}) {
  fs_mp4 m(codec);
  m.set(320, 240, 25, 1700000000);
  unsigned size = 0;
  for (const auto& f : frames) size += m.scan(f.kind, f.data.data(), f.data.size());
  for (const auto& a : audio) size += a.size();
  FILE* f = fopen(out.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  m.w_box_mdat(f, size);
  for (size_t i = 0; i < frames.size(); i++) {
    ASSERT_GT(m.add(frames[i].kind, frames[i].data.data(), frames[i].data.size()), 0) << i;
    m.w_data(frames[i].kind, f, frames[i].data.data(), frames[i].data.size());
    if (i < audio.size()) {
      m.add(2, audio[i].data(), audio[i].size());
      m.w_data(2, f, audio[i].data(), audio[i].size());
    }
  }
  m.w_box_moov(f);
  unsigned box, data;
  m.g_box(box, data);
  EXPECT_EQ(data, size);
  fclose(f);
}

std::string probe(const std::string& file, const char* stream, const char* fields) {
  return media::run("ffprobe -v error -count_frames -select_streams " + std::string(stream) +
                    " -show_entries stream=" + fields + " -of default=nw=1 " + file);
}

// Per-frame hashes of a decode, without timestamps (raw streams and MP4 count time
// differently); "" plus a failure when the decoder said anything.
std::vector<std::string> frame_hashes(const kit::TempDir& dir, const std::string& file) {
  int st = -1;
  std::string out = media::run(
      "ffmpeg -v error -i " + file + " -map 0:v -f framemd5 - 2>" + (dir / "decode.err"), &st);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(kit::read_file(dir / "decode.err"), "") << file;
  std::vector<std::string> h;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') h.push_back(line.substr(line.rfind(',') + 1));
  return h;
}

void check_video(const Codec& c) {
  REQUIRE_FFMPEG();
  kit::TempDir dir;
  std::string es = encode(dir, c);
  std::vector<annexb::frame> frames = annexb::split(kit::read_file(es), c.name[0] == 'h');
  ASSERT_EQ(frames.size(), 75u);
  for (size_t i = 0; i < frames.size(); i++)
    EXPECT_EQ(frames[i].kind % 10 == 0 || frames[i].kind == 11, i % 25 == 0) << i;
  std::string mp4 = dir / "out.mp4";
  mux(mp4, c.name, frames);
  EXPECT_EQ(probe(mp4, "v:0", "codec_name,width,height,nb_read_frames,duration"),
            "codec_name=" + std::string(c.probe) +
                "\nwidth=320\nheight=240\nduration=3.000000\nnb_read_frames=75\n");
  std::vector<std::string> want = frame_hashes(dir, es), got = frame_hashes(dir, mp4);
  EXPECT_EQ(want.size(), 75u);
  EXPECT_EQ(got, want);
}

}  // namespace

TEST(RealStreams, H264FromX264DecodesToTheSourceFrames) { check_video(kH264); }
TEST(RealStreams, H265FromX265DecodesToTheSourceFrames) { check_video(kH265); }

TEST(RealStreams, PcmTrackDecodesToTheSamplesAdded) {
  REQUIRE_FFMPEG();
  kit::TempDir dir;
  std::vector<annexb::frame> frames = annexb::split(kit::read_file(encode(dir, kH264)), false);
  // One recorded audio frame's worth of PCM per picture: 321 samples, a slow sweep.
  std::vector<std::string> audio;
  std::string all;
  for (int k = 0, t = 0; k < 75; k++) {
    std::string a;
    for (int i = 0; i < 321; i++, t++) {
      short v = static_cast<short>((t * 37 % 20000) - 10000);
      a += static_cast<char>(v & 0xff);
      a += static_cast<char>((v >> 8) & 0xff);
    }
    audio.push_back(a);
    all += a;
  }
  audtype = 2;
  std::string mp4 = dir / "pcm.mp4";
  mux(mp4, "avc1", frames, audio);
  audtype = 0;
  EXPECT_EQ(probe(mp4, "a:0", "codec_name,sample_rate,channels,bits_per_sample"),
            "codec_name=pcm_s16le\nsample_rate=8000\nchannels=1\nbits_per_sample=16\n");
  int st = -1;
  std::string pcm_out = media::run("ffmpeg -v error -i " + mp4 + " -map 0:a -f s16le -", &st);
  EXPECT_EQ(st, 0);
  EXPECT_TRUE(pcm_out == all) << pcm_out.size() << " bytes decoded, " << all.size() << " added";
}
