// Exports of real x264 / x265 streams recorded through the capture simulator with
// ADPCM audio, checked by ffprobe and by decoding with ffmpeg: every MP4 decodes
// without a word from the decoder to exactly the pictures of the recorded stream from
// its first key frame in the range, and its sound to exactly the samples adpcm2lpcm
// makes of the recorded audio frames.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <sstream>
#include <string>
#include <vector>

#include "export_kit.h"
#include "media.h"

namespace {

struct Codec {
  int id;
  const char* probe;   // ffprobe codec_name
  const char* raw;     // ffmpeg demuxer of the elementary stream
  const char* encode;  // ffmpeg video options
};

const Codec kH264{264, "h264", "h264",
                  "-c:v libx264 -bf 0 -g 25 -x264-params repeat-headers=1:slices=1 -f h264"};
const Codec kH265{265, "hevc", "hevc",
                  "-c:v libx265 -x265-params "
                  "bframes=0:keyint=25:min-keyint=25:repeat-headers=1:log-level=error -f hevc"};

std::string encode(const kit::TempDir& dir, const Codec& c, const char* size, const char* name) {
  std::string es = dir / name;
  std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc2=size=" + std::string(size) +
                    ":rate=25 -t 4 -pix_fmt yuv420p " + c.encode + " " + es;
  EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
  return es;
}

// Per-picture hashes of a decode; the decoder must stay silent.
std::vector<std::string> hashes(const kit::TempDir& dir, const std::string& input) {
  int st = -1;
  std::string err = dir / "decode.err";
  std::string out =
      media::run("ffmpeg -v error " + input + " -map 0:v -f framemd5 - 2>" + err, &st);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(kit::read_file(err), "") << input;
  std::vector<std::string> h;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') h.push_back(line.substr(line.rfind(',') + 1));
  return h;
}

std::string probe(const std::string& file, const char* stream, const char* fields) {
  return media::run("ffprobe -v error -count_frames -select_streams " + std::string(stream) +
                    " -show_entries stream=" + fields + " -of default=nw=1 " + file);
}

struct Media : xk::Recorder {
  const int t0 = rec::kHour0;
  int beg = 0, end = 0;

  void record_real(const Codec& c, bool audio) {
    REQUIRE_FFMPEG();
    start(2);
    sim::capture_spec s;
    s.channels = 2;
    s.fps = 25;
    s.gop = 25;
    s.block_ms = 200;
    s.audio = audio;
    s.codec = c.id;
    s.main_w = 320;
    s.main_h = 240;
    s.sub_w = 160;
    s.sub_h = 120;
    s.main_input = encode(out, c, "320x240", "main.es");
    s.sub_input = encode(out, c, "160x120", "sub.es");
    sim::capture cap;
    std::string err;
    ASSERT_EQ(0, cap.open(s, (t0 + 54) * 1000LL + 600, &err)) << err;
    record(cap, 12);  // across a minute boundary
    // The range starts between key frames: the export begins at the next one.
    beg = t0 + 56;
    end = t0 + 63;
  }

  // One file for channel ch of the stream (2 main, 3 substream) that must hold the
  // recorded frames of [beg, end].
  void check(const Codec& c, const std::string& mp4, int ch, int stream, bool audio,
             bool exact_audio = true) {
    std::vector<xk::src_frame> want = xk::expected(blocks, beg, end, ch, stream);
    std::string es = out / "want.es";
    kit::write_file(es, xk::video_stream(want));
    int w = stream == 2 ? 320 : 160, h = stream == 2 ? 240 : 120;
    EXPECT_EQ(probe(mp4, "v:0", "codec_name,width,height,nb_read_frames"),
              "codec_name=" + std::string(c.probe) + "\nwidth=" + std::to_string(w) +
                  "\nheight=" + std::to_string(h) +
                  "\nnb_read_frames=" + std::to_string(xk::video_count(want)) + "\n")
        << mp4;
    std::vector<std::string> got = hashes(out, "-i " + mp4);
    std::vector<std::string> src = hashes(out, "-f " + std::string(c.raw) + " -i " + es);
    EXPECT_EQ(static_cast<size_t>(xk::video_count(want)), src.size());
    EXPECT_TRUE(got == src) << mp4 << ": " << got.size() << " pictures, " << src.size()
                            << " recorded";
    std::string streams =
        media::run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 " + mp4);
    EXPECT_EQ(audio ? "video\naudio\n" : "video\n", streams) << mp4;
    if (!audio || !exact_audio) return;
    EXPECT_EQ(probe(mp4, "a:0", "codec_name,sample_rate,channels"),
              "codec_name=pcm_s16le\nsample_rate=8000\nchannels=1\n");
    int st = -1;
    std::string pcm = media::run("ffmpeg -v error -i " + mp4 + " -map 0:a -f s16le -", &st);
    EXPECT_EQ(0, st);
    std::string pcm_want = xk::pcm_of(want);
    EXPECT_GT(pcm_want.size(), 0u);
    EXPECT_TRUE(pcm == pcm_want) << mp4 << ": " << pcm.size() << " bytes decoded, "
                                 << pcm_want.size() << " converted";
  }

  void all_ways(const Codec& c, bool audio) {
    record_real(c, audio);
    if (HasFatalFailure()) return;
    audtype = 2;  // linear PCM, as the recorder's application sets it for MP4 export
    std::string plan;
    std::vector<xk::out_file> two = xk::two_phase(*app, out.path(), beg, end, 0x2, false, &plan);
    ASSERT_EQ(1u, two.size()) << plan;
    check(c, two[0].path, 1, 2, audio);
    std::vector<xk::out_file> sub = xk::two_phase(*app, out.path(), beg, end, 0x1, true, &plan);
    ASSERT_EQ(1u, sub.size()) << plan;
    check(c, sub[0].path, 0, 3, audio);
    std::vector<xk::out_file> one = xk::single_pass(*app, out.path(), beg, end, 1);
    ASSERT_EQ(1u, one.size());
    check(c, one[0].path, 1, 2, audio);
    // The multi-slot writer hands sound on in 8000-byte pieces while the sample table
    // describes 321 samples a piece, so only its pictures are compared here.
    std::vector<xk::out_file> multi = xk::multi_pass(*app, out.path(), beg, end, 0, audio);
    ASSERT_EQ(1u, multi.size());
    check(c, multi[0].path, 0, 2, audio, false);
    audtype = 0;
  }
};

// What the page in Chromium reported for one file, as "key": value pairs.
double field(const std::string& json, const std::string& key) {
  size_t p = json.find("\"" + key + "\": ");
  return p == std::string::npos ? -1 : atof(json.c_str() + p + key.size() + 4);
}

// A real browser plays the two-phase H.264 export to its end, with and without the PCM
// track, from a page on a local HTTP server.
void browser_plays(Media& t, bool audio) {
  t.record_real(kH264, audio);
  if (t.HasFatalFailure()) return;
  ASSERT_EQ(0, system("command -v chromium >/dev/null 2>&1"))
      << "Chromium is needed for this test: apt-get install chromium";
  audtype = 2;
  t.end = t.beg + 2;  // about three seconds of pictures: played in real time
  std::string plan;
  std::vector<xk::out_file> v =
      xk::two_phase(*t.app, t.out.path(), t.beg, t.end, 0x1, false, &plan);
  audtype = 0;
  ASSERT_EQ(1u, v.size()) << plan;
  std::string name = v[0].path.substr(v[0].path.rfind('/') + 1);
  int st = -1;
  std::string json = media::run(
      std::string("python3 ") + EXPORT_BROWSER_SCRIPT + " " + t.out.path() + " " + name + " 30",
      &st);
  ASSERT_EQ(0, st) << json;
  int frames = xk::video_count(xk::expected(t.blocks, t.beg, t.end, 0, 2));
  EXPECT_EQ(320, field(json, "width")) << json;
  EXPECT_EQ(240, field(json, "height")) << json;
  EXPECT_EQ(0, field(json, "error")) << json;
  double duration = field(json, "duration");
  EXPECT_NEAR(frames / 25.0, duration, 0.1) << json;
  EXPECT_GE(field(json, "currentTime"), duration - 0.05) << json;
  EXPECT_GT(field(json, "video"), 0) << json;
  if (audio) {
    EXPECT_GT(field(json, "audio"), 0) << json;
  } else {
    EXPECT_EQ(0, field(json, "audio")) << json;
  }
  fprintf(stderr, "chromium reported: %s", json.c_str());
}

TEST_F(Media, ChromiumPlaysH264WithPcmToTheEnd) { browser_plays(*this, true); }
TEST_F(Media, ChromiumPlaysH264WithoutSoundToTheEnd) { browser_plays(*this, false); }

TEST_F(Media, H264WithAdpcmAudioEveryWay) { all_ways(kH264, true); }
TEST_F(Media, H264WithoutAudioEveryWay) { all_ways(kH264, false); }
TEST_F(Media, H265WithAdpcmAudioEveryWay) { all_ways(kH265, true); }

}  // namespace
