// MP4 export on the simulator's synthetic streams: plans and the files they promise,
// where files split (picture size, codec, the size limit, the same-file marker), names,
// the TARVO single-file plan, the multi-slot writer's audio pieces, progress and cancel.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "backup/mp4_export.h"
#include "export_kit.h"

namespace {

using xk::facts;
using xk::out_file;

long long file_size(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string base(const std::string& p) { return p.substr(p.rfind('/') + 1); }

// Restores the file-size limit however a test ends.
struct Limit {
  explicit Limit(unsigned v) { bk_mp4_limit = v; }
  ~Limit() { bk_mp4_limit = kMp4FileLimit; }
};

struct Export : xk::Recorder {
  const int t0 = rec::kHour0;
  void shape(sim::capture& cap, int codec, int w, int h, int secs_from_t0, int gop = 5) {
    sim::capture_spec s = rec::small_spec(2);
    s.sub_w = w / 2;
    s.sub_h = h / 2;
    s.codec = codec;
    s.main_w = w;
    s.main_h = h;
    s.gop = gop;
    ASSERT_EQ(0, cap.open(s, (t0 + secs_from_t0) * 1000LL, nullptr));
  }
};

TEST_F(Export, TwoPhaseFilesHoldThePlannedBytesAndEveryFrameFromTheFirstKeyFrame) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 150);  // across two minute boundaries
  int beg = t0 + 7, end = t0 + 131;
  kit::StderrCapture err;
  std::string plan;
  std::vector<out_file> files = xk::two_phase(*app, out.path(), beg, end, 0x3, false, &plan);
  std::string log = err.take();
  ASSERT_EQ(2u, files.size()) << plan;
  // One line a channel: name, channel, budget, item, entry, offset, start time.
  EXPECT_EQ(0u, plan.find("20231114_22h00m07s_ch01_352x288x5.m4v 0 "));
  EXPECT_NE(std::string::npos, plan.find("\n20231114_22h00m07s_ch02_352x288x5.m4v 1 "));
  EXPECT_NE(std::string::npos, log.find("bk_phase_one[3221]: mp4txt: " + plan));
  for (int ch = 0; ch < 2; ch++) {
    const out_file& o = files[static_cast<size_t>(ch)];
    xk::mp4_facts m = facts(o.path);
    ASSERT_TRUE(m.ok) << m.err;
    EXPECT_EQ(static_cast<long long>(m.mdat_payload), o.plan);
    EXPECT_EQ(o.ret, file_size(o.path));
    std::vector<xk::src_frame> want = xk::expected(blocks, beg, end, ch, 2);
    EXPECT_EQ(static_cast<unsigned>(xk::video_count(want)), m.video_samples);
    EXPECT_EQ(xk::pcm_of(want).size(), m.audio_bytes);
    EXPECT_EQ(352u, m.width);
    EXPECT_EQ("avc1", m.codec);
  }
  // Progress: 1 at the start, the scan below 20, 20 when planned, phase two up to 90
  // at most, 100 with result 1 at the end; never backwards.
  EXPECT_NE(std::string::npos, log.find("bk_sem[2790]: PROGRESS: v=001, ret=0"));
  EXPECT_NE(std::string::npos, log.find("bk_sem[2790]: PROGRESS: v=020, ret=0"));
  EXPECT_NE(std::string::npos, log.find("bk_sem[2790]: PROGRESS: v=100, ret=1"));
  int last = 0, reports = 0;
  for (size_t p = 0; (p = log.find("PROGRESS: v=", p)) != std::string::npos; p++) {
    int v = atoi(log.c_str() + p + 12);
    EXPECT_GE(v, last);
    EXPECT_TRUE(v <= 90 || v == 100) << v;
    last = v;
    reports++;
  }
  EXPECT_GE(reports, 3);
}

TEST_F(Export, ProgressReachesTheApplicationsSemaphoreSet) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 30);
  kit::SemSet sem(board->root());
  ASSERT_GE(sem.id, 0) << "cannot create a semaphore set";
  std::vector<char> plan(4096);
  ASSERT_EQ(1, app->bk_phase_one("", t0, t0 + 29, 0x1, plan.data()));
  EXPECT_EQ(20, sem.get(0));  // planned
  EXPECT_EQ(0, sem.get(1));
  char name[128];
  int ch, size, item, entry, off, t;
  ASSERT_EQ(
      7, sscanf(plan.data(), "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off, &t));
  FILE* f = fopen((out / name).c_str(), "wb");
  ASSERT_NE(f, nullptr);
  EXPECT_GT(app->bk_phase_two(f, name, ch, size, item, entry, off), size);
  fclose(f);
  EXPECT_EQ(90, sem.get(0));  // every planned byte written
  app->bk_over();
  EXPECT_EQ(100, sem.get(0));
  EXPECT_EQ(1, sem.get(1));
}

TEST_F(Export, SubstreamFilesCarryTheSubstreamPictures) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 30);
  std::string plan;
  std::vector<out_file> files = xk::two_phase(*app, out.path(), t0, t0 + 29, 0x2, true, &plan);
  ASSERT_EQ(1u, files.size()) << plan;
  EXPECT_EQ(0u, plan.find("20231114_22h00m00s_ch02_176x144x5.m4v 1 "));
  xk::mp4_facts m = facts(files[0].path);
  ASSERT_TRUE(m.ok) << m.err;
  EXPECT_EQ(static_cast<long long>(m.mdat_payload), files[0].plan);
  EXPECT_EQ(176u, m.width);
  std::vector<xk::src_frame> want = xk::expected(blocks, t0, t0 + 29, 1, 3);
  EXPECT_EQ(static_cast<unsigned>(xk::video_count(want)), m.video_samples);
  EXPECT_EQ(xk::pcm_of(want).size(), m.audio_bytes);
}

TEST_F(Export, APictureSizeChangeStartsANewFileUnlessTheMarkerSaysOtherwise) {
  start(2);
  sim::capture a, b;
  shape(a, 264, 352, 288, 0);
  record(a, 40);
  shape(b, 264, 176, 144, 40);
  record(b, 40);
  std::string plan;
  std::vector<out_file> two = xk::two_phase(*app, out.path(), t0, t0 + 79, 0x1, false, &plan);
  ASSERT_EQ(2u, two.size()) << plan;
  EXPECT_EQ("20231114_22h00m00s_ch01_352x288x5.m4v", base(two[0].path));
  EXPECT_EQ("20231114_22h00m40s_ch01_176x144x5.m4v", base(two[1].path));
  EXPECT_EQ(200u, facts(two[0].path).video_samples);
  EXPECT_EQ(200u, facts(two[1].path).video_samples);
  for (const out_file& o : two) EXPECT_EQ(o.plan, facts(o.path).mdat_payload);

  std::vector<out_file> one = xk::single_pass(*app, out.path(), t0, t0 + 79, 0);
  ASSERT_EQ(2u, one.size());
  EXPECT_EQ(200u, facts(one[0].path).video_samples);
  EXPECT_EQ(176u, facts(one[1].path).width);
  std::vector<out_file> multi = xk::multi_pass(*app, out.path(), t0, t0 + 79, 0, false);
  ASSERT_EQ(2u, multi.size());
  EXPECT_EQ(200u, facts(multi[1].path).video_samples);

  // With the marker: one file, named ".avi", MP4 inside.
  board->touch("/zconf/custom/R8kWq2Nv5T");
  std::vector<out_file> avi = xk::two_phase(*app, out.path(), t0, t0 + 79, 0x1, false, &plan);
  ASSERT_EQ(1u, avi.size()) << plan;
  EXPECT_EQ("20231114_22h00m00s_ch01_352x288x5.avi", base(avi[0].path));
  EXPECT_EQ(400u, facts(avi[0].path).video_samples);
  EXPECT_EQ(1u, xk::single_pass(*app, out.path(), t0, t0 + 79, 0).size());
  board->unlink("/zconf/custom/R8kWq2Nv5T");
}

TEST_F(Export, ACodecChangeEndsASinglePassFile) {
  start(2);
  sim::capture a, b;
  shape(a, 264, 352, 288, 0);
  record(a, 20);
  shape(b, 265, 352, 288, 20);
  record(b, 20);
  std::vector<out_file> one = xk::single_pass(*app, out.path(), t0, t0 + 39, 1);
  ASSERT_EQ(2u, one.size());
  EXPECT_EQ("avc1", facts(one[0].path).codec);
  EXPECT_EQ("hvc1", facts(one[1].path).codec);
  EXPECT_EQ(100u, facts(one[0].path).video_samples);
  EXPECT_EQ(100u, facts(one[1].path).video_samples);
  std::vector<out_file> multi = xk::multi_pass(*app, out.path(), t0, t0 + 39, 1, true);
  ASSERT_EQ(2u, multi.size());
  EXPECT_EQ("hvc1", facts(multi[1].path).codec);
}

TEST_F(Export, FilesReachingTheSizeLimitContinueAtTheNextKeyFrame) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 60);
  Limit lim(20000);  // about five seconds of channel 0 with its audio
  std::string plan;
  std::vector<out_file> two = xk::two_phase(*app, out.path(), t0, t0 + 59, 0x1, false, &plan);
  std::vector<out_file> one = xk::single_pass(*app, out.path(), t0, t0 + 59, 0);
  std::vector<out_file> multi = xk::multi_pass(*app, out.path(), t0, t0 + 59, 0, true);
  ASSERT_GT(two.size(), 5u) << plan;
  unsigned frames = 0;
  for (size_t i = 0; i < two.size(); i++) {
    xk::mp4_facts m = facts(two[i].path);
    ASSERT_TRUE(m.ok) << m.err;
    EXPECT_EQ(two[i].plan, m.mdat_payload);
    EXPECT_EQ(two[i].ret, file_size(two[i].path));
    // Every file but the last passed the limit; none by more than one second of frames.
    if (i + 1 < two.size()) {
      EXPECT_GE(m.mdat_payload, 20000u);
    }
    EXPECT_LT(m.mdat_payload, 20000u + 8000u);
    EXPECT_EQ(0u, m.video_samples % 5) << "files begin at key frames";
    frames += m.video_samples;
  }
  EXPECT_EQ(300u, frames);
  // Single pass measures the file with its boxes, so it splits no later.
  ASSERT_GE(one.size(), two.size());
  frames = 0;
  for (const out_file& o : one) frames += facts(o.path).video_samples;
  EXPECT_EQ(300u, frames);
  // The multi-slot writer holds audio back in 8000-byte pieces, which count only once
  // handed on; it splits all the same.
  ASSERT_GT(multi.size(), 5u);
  frames = 0;
  for (size_t i = 0; i < multi.size(); i++) {
    xk::mp4_facts m = facts(multi[i].path);
    if (i + 1 < multi.size()) {
      EXPECT_GE(m.mdat_payload + 32, 20000u);
    }
    frames += m.video_samples;
  }
  EXPECT_EQ(300u, frames);
}

TEST_F(Export, PlanNamesTakenAlreadyGetANumber) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0, 1);  // every picture a key frame
  record(cap, 3);
  Limit lim(1);  // every key frame begins a file
  std::string plan;
  std::vector<out_file> v = xk::two_phase(*app, out.path(), t0, t0 + 2, 0x1, false, &plan);
  ASSERT_EQ(15u, v.size()) << plan;
  EXPECT_EQ("20231114_22h00m00s_ch01_352x288x5.m4v", base(v[0].path));
  EXPECT_EQ("20231114_22h00m00s_ch01_352x288x5_1.m4v", base(v[1].path));
  EXPECT_EQ("20231114_22h00m00s_ch01_352x288x5_4.m4v", base(v[4].path));
  EXPECT_EQ("20231114_22h00m01s_ch01_352x288x5.m4v", base(v[5].path));
  for (const out_file& o : v) EXPECT_EQ(1u, facts(o.path).video_samples);
}

TEST_F(Export, TarvoPlanGoesIntoOneFile) {
  start(2);
  sim::capture a, b;
  shape(a, 264, 352, 288, 0);
  record(a, 20);
  shape(b, 264, 176, 144, 20);
  record(b, 20);
  m4vbackupInfo info;
  memset(&info, 0, sizeof info);
  info.ch = 1;
  app->bk_phase_oneWithTARVO(out.path().c_str(), t0, t0 + 39, 0x2, &info);
  ASSERT_EQ(2, info.n);
  EXPECT_STREQ("20231114_22h00m00s_ch02_176x144x5.m4v", info.name);
  EXPECT_EQ(t0, info.row[0][4]);
  EXPECT_EQ(t0 + 20, info.row[1][4]);
  std::string path = out / "tarvo.m4v";
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  int r = app->bk_phase_twoWithTARVO(f, &info);
  fclose(f);
  EXPECT_EQ(r, file_size(path));
  xk::mp4_facts m = facts(path);
  ASSERT_TRUE(m.ok) << m.err;
  EXPECT_EQ(static_cast<unsigned>(info.row[0][0] + info.row[1][0]), m.mdat_payload);
  EXPECT_EQ(200u, m.video_samples);

  // Rows count from 1; the name is the first row's only.
  m4vbackupInfo w;
  memset(&w, 0, sizeof w);
  EXPECT_EQ(0, app->write_to_m4vbackupInfo(&w, "a.m4v", 10, 1, 2, 3, 4, 1));
  EXPECT_EQ(0, app->write_to_m4vbackupInfo(&w, "b.m4v", 20, 5, 6, 7, 8, 2));
  app->write_to_m4vbackupInfo(&w, "c.m4v", 30, 0, 0, 0, 0, 0);
  EXPECT_STREQ("a.m4v", w.name);
  EXPECT_EQ(2, w.n);
  EXPECT_EQ(20, w.row[1][0]);
  EXPECT_EQ(8, w.row[1][4]);
  m4vbackupInfo empty;
  memset(&empty, 0, sizeof empty);
  EXPECT_EQ(0, app->bk_phase_twoWithTARVO(stdout, &empty));
}

TEST_F(Export, MultiSlotAudioGoesOutIn8000BytePieces) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 10);
  std::vector<out_file> v = xk::multi_pass(*app, out.path(), t0, t0 + 9, 0, true);
  ASSERT_EQ(1u, v.size());
  xk::mp4_facts m = facts(v[0].path);
  ASSERT_TRUE(m.ok) << m.err;
  std::string pcm = xk::pcm_of(xk::expected(blocks, t0, t0 + 9, 0, 2));
  ASSERT_EQ(pcm.size(), m.audio_bytes);
  ASSERT_GE(m.audio_sizes.size(), 2u);
  for (size_t i = 0; i + 1 < m.audio_sizes.size(); i++) EXPECT_EQ(8000u, m.audio_sizes[i]);
  EXPECT_EQ(pcm.size() % 8000, m.audio_sizes.back());
  EXPECT_EQ(0, pcm_sz);
  // Without audio the file has no sound track.
  std::vector<out_file> mute = xk::multi_pass(*app, out.path(), t0, t0 + 9, 0, false);
  EXPECT_EQ(0u, facts(mute[0].path).audio_bytes);
}

TEST_F(Export, TheCancelMarkerStopsASinglePassRunBetweenMinutes) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 150);
  board->touch("/tmp/bk_cancel");
  kit::StderrCapture err;
  std::vector<out_file> v = xk::single_pass(*app, out.path(), t0, t0 + 149, 0);
  std::string log = err.take();
  board->unlink("/tmp/bk_cancel");
  EXPECT_TRUE(v.empty());
  EXPECT_NE(std::string::npos, log.find("bk_write[3420]: m_bk.bf[0].cur.on = 0"));
  EXPECT_EQ(1, kit::count(log, "bk_write[3447]: "));  // the first entry, then the stop
}

TEST_F(Export, PhaseTwoRefusesAnEntryOutsideTheItem) {
  start(2);
  sim::capture cap;
  shape(cap, 264, 352, 288, 0);
  record(cap, 5);
  std::vector<char> plan(4096);
  ASSERT_EQ(1, app->bk_phase_one("", t0, t0 + 4, 0x1, plan.data()));
  FILE* f = fopen((out / "x.m4v").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(-1, app->bk_phase_two(f, "x.m4v", 0, 1000, 0, 99, 0));
  EXPECT_EQ(-1, app->bk_phase_two(f, "x.m4v", 0, 1000, 5, 0, 0));
  EXPECT_EQ(-1, app->bk_phase_two(f, "x.m4v", 0, 1000, 0, -1, 0));
  fclose(f);
}

}  // namespace
