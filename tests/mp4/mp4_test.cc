// fs_mp4 on hand-made frames: sample sizes and mdat bytes, refusal of bad frames, and
// the box tree with its field values.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <string>
#include <vector>

#include "kit/kit.h"
#include "mp4_file.h"

using mp4t::be16;
using mp4t::be32;

namespace {

const std::string SC("\0\0\0\1", 4);

std::string unit(unsigned char head, size_t n, unsigned char fill = 0x55) {
  std::string u(n, static_cast<char>(fill));
  u[0] = static_cast<char>(head);
  return SC + u;
}
std::string avc_key(size_t sps = 10, size_t pps = 4, size_t pic = 500) {
  std::string s = unit(0x67, sps);
  s[5] = 0x64, s[6] = 0x00, s[7] = 0x1f;  // profile, compatibility, level
  return s + unit(0x68, pps) + unit(0x65, pic);
}
std::string hevc_key() {
  std::string sps = unit(0x42, 20);
  for (int i = 0; i < 20; i++) sps[4 + i] = static_cast<char>(i);
  sps[4] = 0x42;
  return unit(0x40, 24) + sps + unit(0x44, 7) + unit(0x4e, 9) + unit(0x26, 300);
}

// Runs one sample through add + w_data into a fresh file body; returns the mdat bytes.
struct Muxed {
  fs_mp4 m;
  FILE* f = tmpfile();
  explicit Muxed(const char* codec = "avc1") : m(codec) { m.set(640, 360, 30, 1234567); }
  ~Muxed() { fclose(f); }
  int put(int kind, const std::string& frame) {
    std::vector<char> exact(frame.begin(), frame.end());  // exact-size heap copy
    int r = m.add(kind, exact.data(), exact.size());
    if (r > 0) m.w_data(kind, f, exact.data(), exact.size());
    return r;
  }
  std::string body() {
    m.flush(f);
    return mp4t::slurp(f);
  }
};

}  // namespace

TEST(Units, NalFindsOnlyFourByteStartCodesAfterTheFirst) {
  std::string s = SC + "abc" + std::string("\0\0\1", 3) + "de" + SC + "f";
  EXPECT_EQ(fs_mp4::nal(s.data(), s.size()), 12u);
  EXPECT_EQ(fs_mp4::nal(s.data(), 12), 0u);  // no second start code inside the length
  EXPECT_EQ(fs_mp4::nal(s.data(), 4), 0u);
  std::string empty = SC + SC + "x";
  EXPECT_EQ(fs_mp4::nal(empty.data(), empty.size()), 4u);
  std::string k = hevc_key();
  EXPECT_EQ(fs_mp4::nal_hevc(k.data(), k.size(), "vps"), 28u);
  EXPECT_EQ(fs_mp4::nal_hevc(k.data(), k.size(), "sps"), 52u);
  EXPECT_EQ(fs_mp4::nal_hevc(k.data(), k.size(), "pps"), 63u);
  std::string no_vps = k.substr(28);
  EXPECT_EQ(fs_mp4::nal_hevc(no_vps.data(), no_vps.size(), "pps"), 0u);
}

TEST(Samples, StartCodesBecomeLengthsAndParameterSetsLeaveMdat) {
  Muxed x;
  std::string key = avc_key(), other = unit(0x41, 996);
  EXPECT_EQ(x.m.scan(0, key.data(), key.size()), 500 + 4);
  EXPECT_EQ(x.put(0, key), 504);
  EXPECT_EQ(x.m.scan(1, other.data(), other.size()), 1000);
  EXPECT_EQ(x.put(1, other), 1000);
  EXPECT_EQ(x.m.scan(2, "0123456789", 256), 994);
  EXPECT_EQ(x.m.scan(7, key.data(), key.size()), 0);
  EXPECT_EQ(x.put(7, key), 0);
  std::string b = x.body();
  ASSERT_EQ(b.size(), 1504u);
  EXPECT_EQ(be32(b, 0), 500u);
  EXPECT_EQ(b.substr(4, 500), key.substr(key.size() - 500));
  EXPECT_EQ(be32(b, 504), 996u);
  EXPECT_EQ(b.substr(508), other.substr(4));
  EXPECT_EQ(x.m.trk[0].stss.cnt, 1u);
  EXPECT_EQ(x.m.trk[0].stco.v[1], 504u);

  // A key frame with units after the picture keeps them as one more unit; only the
  // first key frame's parameter sets are kept.
  Muxed y;
  std::string sei_key = avc_key(10, 4, 20) + unit(0x06, 30);
  EXPECT_EQ(y.put(0, sei_key), 20 + 4 + 30 + 4);
  EXPECT_EQ(y.put(0, avc_key(12, 5, 20)), 24);
  b = y.body();
  EXPECT_EQ(be32(b, 0), 20u);
  EXPECT_EQ(be32(b, 24), 30u);
  EXPECT_EQ(b.substr(28, 30), sei_key.substr(sei_key.size() - 30));
  EXPECT_EQ(y.m.trk[0].sps_sz, 10u);
  EXPECT_EQ(y.m.trk[0].pps_sz, 4u);
  EXPECT_EQ(y.m.trk[0].stss.v[1], 2u);
}

TEST(Samples, HevcKeyFrameKeepsItsParameterSetsInline) {
  Muxed x("hvc1");
  std::string k = hevc_key();
  EXPECT_EQ(x.m.scan(11, k.data(), k.size()), static_cast<int>(k.size()));
  EXPECT_EQ(x.put(11, k), static_cast<int>(k.size()));
  std::string b = x.body();
  ASSERT_EQ(b.size(), k.size());
  EXPECT_EQ(b.substr(0, 4), std::string("\0\0\0\x18", 4));   // VPS length
  EXPECT_EQ(b.substr(28, 4), std::string("\0\0\0\x14", 4));  // SPS length
  EXPECT_EQ(be32(b, k.size() - 304), 300u);                  // picture after the SEI
  EXPECT_EQ(x.m.trk[0].vps_sz, 24u);
  EXPECT_EQ(x.m.trk[0].pps_sz, 7u);
}

TEST(Samples, BadFramesAreRefusedWithoutReadingPastThem) {
  Muxed x;
  kit::StderrCapture cap;
  EXPECT_EQ(x.put(0, std::string("\0\0\0", 3)), 0);
  EXPECT_EQ(x.put(0, unit(0x65, 300)), 0);                   // no parameter sets
  EXPECT_EQ(x.put(0, unit(0x67, 10) + unit(0x65, 300)), 0);  // SPS only
  EXPECT_EQ(x.put(11, unit(0x26, 300)), 0);                  // no VPS
  EXPECT_EQ(x.put(11, hevc_key().substr(0, 60)), 0);         // truncated PPS
  std::string big = avc_key(1025, 4, 10);
  EXPECT_EQ(x.m.scan(0, big.data(), big.size()), -1);
  EXPECT_EQ(x.put(0, big), -1);
  EXPECT_EQ(x.put(0, avc_key(10, 1025, 10)), -1);
  EXPECT_EQ(x.put(0, avc_key(1024, 1024, 10)), 14);  // the largest accepted
  EXPECT_EQ(cap.take(),
            "scan[113]: trk[0].sps_sz = 1025,  trk[0].pps_sz = 4\n"
            "add[149]: trk[0].sps_sz = 1025,  trk[0].pps_sz = 4\n"
            "add[149]: trk[0].sps_sz = 10,  trk[0].pps_sz = 1025\n");
  EXPECT_EQ(x.m.trk[0].stsz.cnt, 1u);
  EXPECT_EQ(x.put(1, std::string("\0\0", 2)), 2);  // shorter than its start code: as is
  EXPECT_EQ(x.body().size(), 16u);
}

// Writes a whole file: n video frames at 30/s (a key frame every 10) and audio chunks.
static std::string make_file(const char* codec, int frames, int chunks, unsigned short w = 640,
                             unsigned short h = 360) {
  fs_mp4 m(codec);
  m.set(w, h, 30, 1234567);
  FILE* f = tmpfile();
  bool hevc = codec[0] == 'h';
  std::vector<std::pair<int, std::string>> s;
  for (int i = 0; i < frames; i++) {
    if (i % 10)
      s.push_back({hevc ? 12 : 1, unit(hevc ? 0x02 : 0x41, 100 + i)});
    else
      s.push_back({hevc ? 11 : 0, hevc ? hevc_key() : avc_key()});
    if (i < chunks) s.push_back({2, std::string(642, static_cast<char>(i))});
  }
  unsigned size = 0;
  for (auto& x : s)
    size += x.first == 2 ? x.second.size() : m.scan(x.first, x.second.data(), x.second.size());
  m.w_box_mdat(f, size);
  for (auto& x : s) {
    m.add(x.first, x.second.data(), x.second.size());
    m.w_data(x.first, f, x.second.data(), x.second.size());
  }
  m.w_box_moov(f);
  std::string out = mp4t::slurp(f);
  fclose(f);
  return out;
}

TEST(Boxes, VideoOnlyFileHasOneTrackTimedByTheFrameRate) {
  audtype = 0;
  std::string s = make_file("avc1", 300, 0);
  mp4t::Tree t(s);
  ASSERT_EQ(t.err, "");
  EXPECT_EQ(s.substr(0, 24), std::string("\0\0\0\x18"
                                         "ftypisom\0\0\0\1isom    ",
                                         24));
  EXPECT_EQ(t["mdat"], 24u);
  EXPECT_EQ(be32(s, 24) + 24, t["moov"]);  // the scanned size matches what was written
  size_t mvhd = t["moov/mvhd"];
  EXPECT_EQ(be32(s, mvhd + 12), 1234567u);
  EXPECT_EQ(be32(s, mvhd + 20), 3000u);
  EXPECT_EQ(be32(s, mvhd + 24), 30000u);
  EXPECT_EQ(be32(s, mvhd + 104), 2u);  // next track ID
  EXPECT_FALSE(t.has("moov/trak[1]"));
  EXPECT_EQ(be32(s, t["moov/trak/tkhd"] + 28), 30000u);
  size_t stts = t["moov/trak/mdia/minf/stbl/stts"];
  EXPECT_EQ(s.substr(stts + 12, 12), std::string("\0\0\0\1\0\0\x01\x2c\0\0\0\x64", 12));
  size_t stss = t["moov/trak/mdia/minf/stbl/stss"];
  EXPECT_EQ(be32(s, stss + 12), 30u);
  EXPECT_EQ(be32(s, stss + 20), 11u);
  size_t stco = t["moov/trak/mdia/minf/stbl/stco"], stsz = t["moov/trak/mdia/minf/stbl/stsz"];
  // Each chunk offset points at a sample whose first 4 bytes give its length.
  for (int i = 0; i < 300; i++)
    EXPECT_EQ(be32(s, be32(s, stco + 16 + 4 * i)) + 4, be32(s, stsz + 20 + 4 * i)) << i;
  size_t avcC = t["moov/trak/mdia/minf/stbl/stsd/avc1/avcC"];
  EXPECT_EQ(s.substr(avcC + 8, 8), std::string("\1\x64\0\x1f\xff\xe1\0\x0a", 8));
  EXPECT_FALSE(t.has("moov/trak/mdia/minf/stbl/stsd/avc1/pasp"));
  EXPECT_TRUE(mp4t::Tree(make_file("avc1", 3, 0, 960, 1080))
                  .has("moov/trak/mdia/minf/stbl/stsd/avc1/pasp"));
  EXPECT_TRUE(mp4t::Tree(make_file("avc1", 3, 0, 944, 1088))
                  .has("moov/trak/mdia/minf/stbl/stsd/avc1/pasp"));
  EXPECT_FALSE(mp4t::Tree(make_file("avc1", 3, 0, 1920, 1080))
                   .has("moov/trak/mdia/minf/stbl/stsd/avc1/pasp"));
}

TEST(Boxes, HevcFileDescribesItsParameterSetsInHvcC) {
  std::string s = make_file("hvc1", 20, 0, 960, 1080);
  mp4t::Tree t(s);
  ASSERT_EQ(t.err, "");
  EXPECT_EQ(s.substr(8, 16), std::string("iso4\0\0\0\1iso4hvc1", 16));
  EXPECT_FALSE(t.has("moov/trak/mdia/minf/stbl/stsd/hvc1/pasp"));
  size_t c = t["moov/trak/mdia/minf/stbl/stsd/hvc1/hvcC"];
  EXPECT_EQ(s.substr(c + 8, 13), std::string("\1\1\2\3\4\5\6\7\x08\x09\x0a\x0b\x0c", 13));
  EXPECT_EQ(s.substr(c + 21, 10), std::string("\xf0\0\xfc\xfc\xf8\xf8\0\0\x0f\x03", 10));
  EXPECT_EQ(s.substr(c + 31, 5), std::string("\xa0\0\1\0\x18", 5));
  EXPECT_EQ(be32(s, c), 46u + 24 + 20 + 7);
}

TEST(Boxes, AudioTrackFollowsAudtype) {
  audtype = 2;
  std::string s = make_file("avc1", 30, 10);
  mp4t::Tree t(s);
  ASSERT_EQ(t.err, "");
  EXPECT_EQ(be32(s, t["moov/mvhd"] + 104), 3u);
  std::string a = "moov/trak[1]/mdia/";
  EXPECT_EQ(be32(s, t["moov/trak[1]/tkhd"] + 20), 2u);
  EXPECT_EQ(be32(s, t[a + "mdhd"] + 20), 8000u);
  EXPECT_EQ(be32(s, t[a + "mdhd"] + 24), 3210u);
  EXPECT_EQ(s.substr(t[a + "hdlr"] + 16, 4), "soun");
  EXPECT_TRUE(t.has(a + "minf/smhd"));
  EXPECT_TRUE(t.has(a + "minf/stbl/stsd/sowt/chan"));
  EXPECT_FALSE(t.has(a + "minf/stbl/stss"));
  EXPECT_EQ(be32(s, t[a + "minf/stbl/stsz"]), 20u);
  EXPECT_EQ(be32(s, t[a + "minf/stbl/stsz"] + 12), 1u);
  EXPECT_EQ(be32(s, t[a + "minf/stbl/stsz"] + 16), 3210u);
  EXPECT_EQ(be32(s, t[a + "minf/stbl/stsc"] + 20), 321u);
  EXPECT_EQ(be32(s, t[a + "minf/stbl/stts"] + 20), 1u);
  // Audio chunk k sits right after video frame k in mdat.
  size_t co = t[a + "minf/stbl/stco"];
  EXPECT_EQ(s.substr(be32(s, co + 16 + 4 * 3), 642), std::string(642, 3));

  audtype = 1;
  mp4t::Tree aac(s = make_file("avc1", 30, 10));
  EXPECT_TRUE(aac.has(a + "minf/stbl/stsd/mp4a/esds"));
  EXPECT_EQ(be32(s, aac[a + "minf/stbl/stts"] + 20), 1024u);
  audtype = 0;  // any other value: the video entry, delta 100
  mp4t::Tree other(s = make_file("avc1", 30, 10));
  EXPECT_TRUE(other.has(a + "minf/stbl/stsd/avc1/avcC"));
  EXPECT_EQ(be32(s, other[a + "minf/stbl/stts"] + 20), 100u);
  EXPECT_EQ(be32(s, other[a + "minf/stbl/stsz"] + 16), 10u);
}

TEST(Output, BufferedBytesArriveInOrderAndMoovNeedsVideo) {
  fs_mp4 m("avc1");
  FILE* f = tmpfile();
  std::string small(1000, 'a'), big(70000, 'b'), expect;
  for (int i = 0; i < 100; i++) {
    const std::string& x = i % 30 == 7 ? big : small;
    m.add(2, x.data(), x.size());
    m.w_data(2, f, x.data(), x.size());
    expect += x;
  }
  m.w_box_moov(f);  // audio only: nothing written, the last buffered bytes stay
  std::string s = mp4t::slurp(f);
  EXPECT_LT(s.size(), expect.size());
  EXPECT_EQ(s, expect.substr(0, s.size()));
  m.flush(f);
  EXPECT_EQ(mp4t::slurp(f), expect);
  unsigned box, data;
  kit::StderrCapture cap;
  m.g_box(box, data);
  EXPECT_EQ(cap.take(), "g_box[323]: box = 0, data = 376000 (0 + 376000)\n");
  EXPECT_EQ(m.g_size(), 376000u);
  fclose(f);
}
