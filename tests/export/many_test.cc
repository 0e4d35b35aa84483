// Many outputs from one read: the calls that export several channels of one range at
// once give, file for file and byte for byte, what the one-channel calls give, on a
// recording with sound that crosses an hour boundary and moves to another disk; each
// stored block is read once; planning stops at the cancel marker.
#include <gtest/gtest.h>
#include <ringrec/ringrec.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "export_kit.h"
#include "playback/scenario.h"

namespace {

using pbt::kEnd;
using pbt::kStart;

std::string slurp(const std::string& p) {
  std::ifstream f(p, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Counts positioned reads and the bytes they ask for.
long long g_reads = 0, g_bytes = 0;
long long (*g_pread)(int, void*, int, long long) = nullptr;
long long counting_pread(int fd, void* b, int n, long long off) {
  g_reads++;
  g_bytes += n;
  return g_pread(fd, b, n, off);
}
struct Counting {
  Counting() {
    g_reads = g_bytes = 0;
    g_pread = fs_sys.pread;
    fs_sys.pread = counting_pread;
  }
  ~Counting() { fs_sys.pread = g_pread; }
};

struct Many : pbt::Scenario {
  kit::TempDir out;
  const int beg = kStart + 7, end = kEnd - 9;  // both disks, both hours

  // Plan lines: name ch size item entry offset.
  struct line {
    std::string name;
    int ch, size, item, entry, off;
  };
  static std::vector<line> lines(const char* plan) {
    std::vector<line> v;
    std::istringstream in(plan);
    std::string s;
    while (std::getline(in, s)) {
      line l;
      int t;
      char name[128];
      if (sscanf(s.c_str(), "%127s %d %d %d %d %d %d", name, &l.ch, &l.size, &l.item, &l.entry,
                 &l.off, &t) == 7) {
        l.name = name;
        v.push_back(l);
      }
    }
    return v;
  }
};

TEST_F(Many, TwoPhaseForAllChannelsGivesTheSamePlanAndFiles) {
  kit::StderrCapture quiet;
  for (bool sub : {false, true}) {
    std::vector<char> plan1(1 << 16), plan2(1 << 16);
    int n1 = sub ? app->bk_phase_one_substream("", beg, end, 0xF, plan1.data())
                 : app->bk_phase_one("", beg, end, 0xF, plan1.data());
    std::vector<line> l1 = lines(plan1.data());
    ASSERT_EQ(static_cast<size_t>(n1), l1.size());
    ASSERT_GE(l1.size(), 8u);  // four channels, two hours
    std::vector<std::string> want;
    for (const line& l : l1) {
      std::string p = out.path() + "/a_" + l.name;
      FILE* f = fopen(p.c_str(), "wb");
      ASSERT_NE(nullptr, f);
      int r =
          sub ? app->bk_phase_two_substream(f, l.name.c_str(), l.ch, l.size, l.item, l.entry, l.off)
              : app->bk_phase_two(f, l.name.c_str(), l.ch, l.size, l.item, l.entry, l.off);
      fclose(f);
      EXPECT_GT(r, 0) << l.name;
      want.push_back(slurp(p));
    }
    app->bk_clr();

    long long reads_one, bytes_one;
    {
      Counting c;
      EXPECT_EQ(n1, app->bk_phase_one_channels("", beg, end, 0xF, plan2.data(), sub));
      reads_one = g_reads;
      bytes_one = g_bytes;
    }
    EXPECT_STREQ(plan1.data(), plan2.data());
    std::vector<bk_plan_file_t> files;
    std::vector<std::string> paths;
    for (const line& l : lines(plan2.data())) {
      paths.push_back(out.path() + "/b_" + l.name);
      files.push_back({fopen(paths.back().c_str(), "wb"), l.ch, l.size, l.item, l.entry, l.off, 7});
    }
    long long reads_two;
    {
      Counting c;
      EXPECT_EQ(n1, app->bk_phase_two_files(files.data(), n1, sub));
      reads_two = g_reads;
    }
    for (size_t i = 0; i < files.size(); i++) {
      fclose(files[i].out);
      EXPECT_GT(files[i].result, 0);
      EXPECT_TRUE(slurp(paths[i]) == want[i]) << paths[i];
    }
    app->bk_clr();
    // The stored bytes of the range, from the simulator's own record of what it wrote.
    long long stored = 0;
    size_t blocks = 0;
    for (const rec::written& b : w)
      if (b.time >= beg - 60 && b.time <= end + 60) stored += b.bytes.size(), blocks++;
    // Each block at most once: the reads of data come in stretches of many blocks.
    EXPECT_LT(bytes_one, stored * 102 / 100 + (64 << 10)) << bytes_one << " of " << stored;
    EXPECT_LT(reads_one, static_cast<long long>(blocks) / 4);
    EXPECT_LT(reads_two, static_cast<long long>(blocks) / 4);
  }
}

// The caller's side of bk_write_channels: each finished file is kept whole.
struct files_of {
  std::string dir;
  std::vector<std::vector<std::string>> got;
  int opened = 0;
};
FILE* next_file(void* ctx, int k, FILE* f, unsigned pos, unsigned size, bool more) {
  files_of& o = *static_cast<files_of*>(ctx);
  (void)pos;
  fs_app::bk_set_mdat_size(f, size);
  fflush(f);
  rewind(f);
  std::string bytes;
  char buf[1 << 14];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) bytes.append(buf, n);
  fclose(f);
  if (size != 0) o.got[k].push_back(bytes);
  if (!more) return nullptr;
  return fopen((o.dir + "/c" + std::to_string(o.opened++)).c_str(), "w+b");
}

TEST_F(Many, SinglePassForAllChannelsGivesTheFilesOfBkWrite) {
  kit::StderrCapture quiet;
  std::vector<std::vector<std::string>> want(4);
  for (int ch = 0; ch < 4; ch++)
    for (const xk::out_file& o : xk::single_pass(*app, out.path(), beg, end, ch))
      want[ch].push_back(slurp(o.path));
  files_of o;
  o.dir = out.path();
  o.got.resize(4);
  int items = app->bk_set(beg, end, 0xF);
  ASSERT_EQ(3, items);  // hour H on each disk, hour H+1
  long long reads;
  {
    Counting c;
    for (int item = 0; item < items; item++) {
      int chs[4] = {0, 1, 2, 3}, times[4], results[4];
      unsigned ws[4], hs[4], fps[4];
      FILE* outs[4];
      for (int k = 0; k < 4; k++)
        outs[k] = fopen((o.dir + "/c" + std::to_string(o.opened++)).c_str(), "w+b");
      EXPECT_EQ(0, app->bk_write_channels(item, 4, chs, outs, times, ws, hs, fps, results,
                                          next_file, &o));
      for (int k = 0; k < 4; k++) EXPECT_EQ(0, results[k]);
    }
    reads = g_reads;
  }
  app->bk_clr();
  for (int ch = 0; ch < 4; ch++) {
    ASSERT_EQ(want[ch].size(), o.got[ch].size()) << ch;
    ASSERT_GE(want[ch].size(), 3u);  // one file an item
    for (size_t i = 0; i < want[ch].size(); i++) EXPECT_TRUE(want[ch][i] == o.got[ch][i]) << ch;
  }
  EXPECT_LT(reads, static_cast<long long>(w.size()) / 4);
}

TEST_F(Many, MultiSlotSinglePassForAllChannelsGivesTheFilesOfBkMultiM4vWrite) {
  kit::StderrCapture quiet;
  std::vector<std::vector<std::string>> want(4);
  for (int ch = 0; ch < 4; ch++)
    for (const xk::out_file& o : xk::multi_pass(*app, out.path(), beg, end, ch, false))
      want[ch].push_back(slurp(o.path));
  files_of o;
  o.dir = out.path();
  o.got.resize(4);
  int b = beg, e = end, m = 0xF;
  int items = app->bk_multi_set(&b, &e, &m, 1);
  ASSERT_EQ(3, items);
  int chs[4] = {0, 1, 2, 3}, times[4] = {}, results[4];
  unsigned ws[4] = {}, hs[4] = {}, fps[4] = {};
  FILE* outs[4];
  fs_mp4* writers[4] = {};
  for (int k = 0; k < 4; k++)
    outs[k] = fopen((o.dir + "/m" + std::to_string(o.opened++)).c_str(), "w+b");
  long long reads;
  {
    Counting c;
    for (int item = 0; item <= items; item++) {  // the last call finishes the files
      EXPECT_EQ(0, app->bk_multi_m4v_write_channels(item < items ? item : -1, 4, chs, outs, writers,
                                                    times, ws, hs, fps, results, next_file, &o));
      for (int k = 0; k < 4; k++) EXPECT_EQ(0, results[k]);
    }
    reads = g_reads;
  }
  for (int k = 0; k < 4; k++) {
    EXPECT_EQ(nullptr, outs[k]);
    EXPECT_EQ(nullptr, writers[k]);
  }
  free(app->bk_multi_state.items);
  memset(&app->bk_multi_state, 0, sizeof app->bk_multi_state);
  for (int ch = 0; ch < 4; ch++) {
    ASSERT_EQ(want[ch].size(), o.got[ch].size()) << ch;
    ASSERT_EQ(1u, want[ch].size());  // one file across the hours and the disks
    for (size_t i = 0; i < want[ch].size(); i++) EXPECT_TRUE(want[ch][i] == o.got[ch][i]) << ch;
  }
  EXPECT_LT(reads, static_cast<long long>(w.size()) / 4);
}

TEST_F(Many, BkReadReadsEachStoredByteOnceInStretchesOfAMebibyte) {
  // The last closed minute on sdb, as the second parser reads it.
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  const rec::minute_view& m = v.back().minutes[0];
  ASSERT_GE(m.blocks.size(), 50u);
  app->bk_set(m.e.time - 60, m.e.time + 3000, 0xF);  // records and frames alike
  entry_t e = m.e;
  q_t q = {0x80000, static_cast<unsigned char*>(malloc(0x80000))};
  head_t h;
  int off = 0;
  size_t served = 0;
  {
    Counting c;
    while (off < e.size) {
      int r = app->bk_read(-1, app->db_info[1].db, e, off, h, &q);
      if (r < 0) break;
      if (r == 0) continue;
      ASSERT_LT(served, m.blocks.size());
      EXPECT_TRUE(m.blocks[served].substr(0, 288) == std::string(reinterpret_cast<char*>(&h), 288));
      EXPECT_TRUE(m.blocks[served].substr(288, h.size) ==
                  std::string(reinterpret_cast<char*>(q.buf), h.size));
      served++;
      off += 296 + h.size;
    }
    // Every byte once, in 1 MiB stretches, each followed at most by the rest of the
    // block it cuts.
    EXPECT_EQ(m.e.size, g_bytes);
    EXPECT_LE(g_reads, 2 * ((m.e.size >> 20) + 1));
    EXPECT_LT(g_reads, static_cast<long long>(m.blocks.size()));
  }
  EXPECT_EQ(m.blocks.size(), served);
  free(q.buf);
  app->bk_clr();
}

// Runs the many-output calls over the range and plays it through the cursor; every file
// goes to a scratch file. Returns the bytes written.
long long export_all(fs_app& app, int beg, int end) {
  long long bytes = 0;
  std::vector<char> plan(1 << 16);
  for (bool sub : {false, true}) {
    int n = app.bk_phase_one_channels("", beg, end, 0xF, plan.data(), sub);
    std::vector<bk_plan_file_t> files;
    std::istringstream in(plan.data());
    std::string s;
    while (std::getline(in, s)) {
      bk_plan_file_t f = {tmpfile(), 0, 0, 0, 0, 0, 0};
      char name[128];
      int t;
      if (sscanf(s.c_str(), "%127s %d %d %d %d %d %d", name, &f.ch, &f.size, &f.item, &f.entry,
                 &f.offset, &t) == 7)
        files.push_back(f);
      else
        fclose(f.out);
    }
    EXPECT_EQ(static_cast<size_t>(n), files.size());
    app.bk_phase_two_files(files.data(), static_cast<int>(files.size()), sub);
    for (bk_plan_file_t& f : files) {
      bytes += ftell(f.out);
      fclose(f.out);
    }
    app.bk_clr();
  }
  int items = app.bk_set(beg, end, 0xF);
  for (int item = 0; item < items; item++) {
    int chs[4] = {0, 1, 2, 3}, times[4], results[4];
    unsigned ws[4], hs[4], fps[4];
    FILE* outs[4] = {tmpfile(), tmpfile(), tmpfile(), tmpfile()};
    app.bk_write_channels(
        item, 4, chs, outs, times, ws, hs, fps, results,
        [](void* ctx, int, FILE* f, unsigned, unsigned, bool more) -> FILE* {
          *static_cast<long long*>(ctx) += ftell(f);
          if (more) return f;
          fclose(f);
          return nullptr;
        },
        &bytes);
  }
  app.bk_clr();
  std::vector<char> buf;
  if (app.r_set(beg, 0) == 0)
    for (int k = 0; k < 5000; k++) {
      head_t* h = app.r_head();
      if (h != nullptr && h->size >= 0 && h->size < (16 << 20)) {
        buf.resize(static_cast<size_t>(h->size) + 8);
        if (app.r_data(buf.data(), h->size) == 0) bytes += h->size;
      }
      if (app.r_seek(+1) != 0 && app.r_next(+1) != 0) break;
    }
  return bytes;
}

// A block the window read before the writer finished it (its data not all there, its
// tail not yet written) is not served from the window once it is whole on the disk: the
// tail did not agree, so the block is read again, by bk_read and by the cursor.
TEST_F(Many, ABlockReadBeforeItsTailWasWrittenIsReadAgain) {
  kit::StderrCapture quiet;
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  const rec::minute_view& m = v.back().minutes[0];
  size_t bi = 10;  // a frame block well inside the first stretch
  ASSERT_LT(m.offsets[bi] + static_cast<long long>(m.blocks[bi].size()), 1 << 20);
  std::string img = board->image("sdb");
  long long at = static_cast<long long>(m.e.offset) + m.offsets[bi];
  long long tail_at = at + static_cast<long long>(m.blocks[bi].size()) - 8;
  const std::string zeros(64, '\0');
  for (int path = 0; path < 2; path++) {
    kit::write_at(img, at + 288, zeros.data(), 64);
    kit::write_at(img, tail_at, zeros.data(), 8);
    std::string got;
    if (path == 0) {
      app->bk_set(m.e.time - 60, m.e.time + 3000, 0xF);
      entry_t e = m.e;
      q_t q = {0x80000, static_cast<unsigned char*>(malloc(0x80000))};
      head_t h;
      int off = 0;
      for (size_t k = 0; k < bi; k++) {
        ASSERT_EQ(1, app->bk_read(-1, app->db_info[1].db, e, off, h, &q));
        off += 296 + h.size;
      }
      kit::write_at(img, at, m.blocks[bi].data(), static_cast<int>(m.blocks[bi].size()));
      ASSERT_EQ(1, app->bk_read(-1, app->db_info[1].db, e, off, h, &q));
      got.assign(reinterpret_cast<char*>(&h), 288);
      got.append(reinterpret_cast<char*>(q.buf), h.size);
      free(q.buf);
      app->bk_clr();
    } else {
      head_t before = rec::head_of(m.blocks[bi - 1]);
      ASSERT_EQ(0, app->r_set(before.time, 0));
      while (app->r_cur.off != m.offsets[bi - 1]) ASSERT_EQ(0, app->r_seek(+1));
      ASSERT_NE(nullptr, app->r_head());
      kit::write_at(img, at, m.blocks[bi].data(), static_cast<int>(m.blocks[bi].size()));
      ASSERT_EQ(0, app->r_seek(+1));
      head_t* h = app->r_head();
      ASSERT_NE(nullptr, h);
      got.assign(reinterpret_cast<char*>(h), 288);
      got.resize(288 + static_cast<size_t>(h->size));
      ASSERT_EQ(0, app->r_data(&got[288], h->size));
    }
    EXPECT_TRUE(got == m.blocks[bi].substr(0, m.blocks[bi].size() - 8)) << path;
  }
}

TEST_F(Many, DamagedBlocksEndOrSkipButNeverCrashTheManyOutputCalls) {
  kit::StderrCapture quiet;
  std::vector<rec::hour_view> v = rec::read_volume("/dev/sdb");
  ASSERT_GE(v.size(), 2u);
  ASSERT_GT(export_all(*app, beg, end), 0);
  std::string img = board->image("sdb");
  std::mt19937 rng(18);
  for (int it = 0; it < 24; it++) {
    const rec::hour_view& h = v[rng() % v.size()];
    const rec::minute_view& m = h.minutes[rng() % h.minutes.size()];
    size_t bi = rng() % m.blocks.size();
    long long at = static_cast<long long>(m.e.offset) + m.offsets[bi];
    // The head, the tail, or bytes of the data: random bytes over 16 of them.
    long long len = static_cast<long long>(m.blocks[bi].size());
    long long where = it % 3 == 0   ? at
                      : it % 3 == 1 ? at + len - 8
                                    : at + 288 + rng() % (len - 296);
    std::string keep = kit::read_at(img, where, 16);
    std::string d = keep;
    for (int k = 0; k < 6; k++) d[rng() % 16] = static_cast<char>(rng());
    kit::write_at(img, where, d.data(), 16);
    export_all(*app, beg, end);
    kit::write_at(img, where, keep.data(), 16);
  }
}

TEST_F(Many, PlanningStopsAtTheCancelMarker) {
  kit::StderrCapture quiet;
  board->touch("/tmp/bk_cancel");
  std::vector<char> plan(1 << 16, 'x');
  m4vbackupInfo info;
  memset(&info, 0, sizeof info);
  info.ch = 1;
  for (int form = 0; form < 4; form++) {
    plan[0] = 'x';
    int n = form == 0   ? app->bk_phase_one("", beg, end, 0xF, plan.data())
            : form == 1 ? app->bk_phase_one_substream("", beg, end, 0xF, plan.data())
            : form == 2 ? app->bk_phase_one_channels("", beg, end, 0xF, plan.data(), false)
                        : app->bk_phase_oneWithTARVO("", beg, end, 0xF, &info);
    EXPECT_EQ(0, n) << form;
    if (form < 3) {
      EXPECT_STREQ("", plan.data()) << form;
    }
    app->bk_clr();
  }
  EXPECT_EQ(0, info.n);
  board->unlink("/tmp/bk_cancel");
}

}  // namespace
