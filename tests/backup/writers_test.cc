// IRF and OEM backup files: every byte of what the writers produce, composed here from
// the recorded frames; IRF read back through the USB reader forwards and backwards;
// progress on the application's semaphore set; the cancel marker.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>

#include "backup/bk_kit.h"

namespace {

using bk::block;
using bk::frame;

// The application's IRF header: "TOLVEX", 0, version 0, then its own bytes.
std::string irf_header() {
  std::string h("TOLVEX\0\0", 8);
  for (int i = 8; i < 4096; i++) h += static_cast<char>(i * 7);
  return h;
}

// One IRF frame record laid out from the table: sync E4 F6 4E 03, 64-byte record, data.
std::string irf_record(const frame& f, int32_t link) {
  std::string r(64, '\0');
  bool audio = f.w[0] == 2;
  bool key = f.w[0] == 0 || f.w[0] == 11;
  bk::put32(r, 16, f.w[10]);
  if (!audio) {
    bk::put32(r, 28, f.w[2]);
    bk::put32(r, 32, f.w[3]);
    bk::put32(r, 60, f.w[4]);
  }
  bk::put32(r, 36, audio ? 3 : key ? 1 : 2);
  bk::put32(r, 40, f.w[1]);
  bk::put32(r, 48, static_cast<uint32_t>(link));
  bk::put32(r, 52, audio ? f.w[2] : f.w[5]);
  bk::put32(r, 56, audio ? f.w[3] : f.w[6]);
  return std::string("\xE4\xF6\x4E\x03", 4) + r + f.data;
}

// The frames a writer keeps from blocks with time in [beg, end]: channels of mask, each
// from its first key frame (types 0 and 11, or 0 only), audio when asked.
struct kept {
  int time;
  const frame* f;
};
std::vector<kept> keep(const std::vector<block>& blocks, int beg, int end, uint32_t mask,
                       bool audio, bool h264_gate_only = false) {
  std::vector<kept> out;
  bool gate[32] = {false};
  for (const block& b : blocks) {
    if (b.time < beg || b.time > end) continue;
    for (const frame& f : b.frames) {
      if (!((mask >> f.w[1]) & 1)) continue;
      bool key = f.w[0] == 0 || (!h264_gate_only && f.w[0] == 11);
      if (!gate[f.w[1]] && !key) continue;
      gate[f.w[1]] = true;
      if (!audio && f.w[0] == 2) continue;
      out.push_back({b.time, &f});
    }
  }
  return out;
}

struct Writers : bk::Fixture {
  std::string out_path() const { return board->root() + "/out.bin"; }
};

const int H1 = rec::kHour0 + 3600;  // an hour boundary

TEST_F(Writers, MultiIrfLinksKeyFramesAcrossCallsAndReadsBackBothWays) {
  start(4);
  // Key frames every 4 s from second 2: both hours begin with non-key frames.
  std::vector<block> blocks = bk::scene(H1 - 60, 120, 4, 4, 2);
  record(blocks);
  kit::write_file(board->root() + "/tmp/header.h264", irf_header());
  int beg[2] = {H1 - 60, H1}, end[2] = {H1 - 1, H1 + 59}, bits[2] = {0x2, 0x2};
  ASSERT_EQ(2, app->bk_multi_set(beg, end, bits, 2));
  FILE* out = fopen(out_path().c_str(), "wb");
  int lastkey = 0;
  kit::StderrCapture err;
  EXPECT_EQ(0, app->bk_multi_irf_write(out, 0, 1, lastkey, true));
  int after_first = lastkey;
  EXPECT_EQ(0, app->bk_multi_irf_write(out, 1, 1, lastkey, true));
  fclose(out);
  std::string log = err.take();
  EXPECT_NE(std::string::npos, log.find("bk_multi_irf_write[3246]: 00: MIN_59:00\n")) << log;
  EXPECT_NE(std::string::npos, log.find("bk_multi_irf_write[3246]: 01: MIN_00:00\n")) << log;

  // Expected file: the header once, then each call's frames from its own first key
  // frame, every record linking to the latest key frame before it (-1 at first).
  std::string want = irf_header();
  std::vector<kept> all, a = keep(blocks, beg[0], end[0], 0x2, true),
                         b = keep(blocks, beg[1], end[1], 0x2, true);
  all = a;
  all.insert(all.end(), b.begin(), b.end());
  std::vector<long long> key_at;  // sync offsets of the key frames, in file order
  std::vector<long long> rec_at;
  int32_t link = -1;
  for (size_t i = 0; i < all.size(); i++) {
    const frame& f = *all[i].f;
    rec_at.push_back(static_cast<long long>(want.size()));
    int32_t here = static_cast<int32_t>(want.size());
    want += irf_record(f, link);
    if (f.w[0] == 0) {
      link = here;
      key_at.push_back(here);
    }
    if (i + 1 == a.size()) {
      EXPECT_EQ(link, after_first);
    }
  }
  EXPECT_EQ(link, lastkey);
  ASSERT_GT(key_at.size(), 20u);
  EXPECT_EQ(4096, key_at[0]);
  std::string got = kit::read_file(out_path());
  ASSERT_EQ(want.size(), got.size());
  EXPECT_TRUE(want == got);

  // Forwards to the end through the USB reader, then backwards along the chain.
  ASSERT_EQ(1, app->usb_open_irf(out_path().c_str()));
  ASSERT_TRUE(app->usb_isOpenFile());
  EXPECT_EQ(1, app->usb_check_irf_header(app->usb_f));
  int size = 0;
  app->usb_reset_irf(size);
  EXPECT_EQ(static_cast<int>(got.size()), size);
  EXPECT_EQ(4096, app->usb_irf_position());
  std::vector<char> data(200000);
  size_t n = 0;
  for (; n < all.size(); n++) {
    EXPECT_EQ(rec_at[n], app->usb_irf_position());
    irf_frame_rec_t* r = app->usb_read_video_header(0);
    const frame& f = *all[n].f;
    ASSERT_EQ(f.w[10], r->len) << n;
    app->usb_read_video_data(data.data(), static_cast<int>(r->len));
    EXPECT_EQ(0, memcmp(f.data.data(), data.data(), f.data.size())) << n;
  }
  // From the last record back: the key frame it depends on, then each one before.
  size_t k = key_at.size();
  int steps = 0;
  for (;;) {
    irf_frame_rec_t* r = app->usb_read_video_header(-1);
    if (r->len == 0 && r->kind == 0) break;
    ASSERT_LT(++steps, 1000);
    ASSERT_GT(k, 0u);
    k--;
    EXPECT_EQ(key_at[k] + 68, app->usb_irf_position());
    EXPECT_EQ(1u, r->kind);
    app->usb_read_video_data(data.data(), static_cast<int>(r->len));
    size_t idx = std::find(rec_at.begin(), rec_at.end(), key_at[k]) - rec_at.begin();
    EXPECT_EQ(0, memcmp(all[idx].f->data.data(), data.data(), all[idx].f->data.size()));
  }
  EXPECT_EQ(0u, k);
  EXPECT_EQ(static_cast<int>(key_at.size()), steps);
  // Read forward again from the first record: at the end comes a zero record.
  app->usb_reset_irf(size);
  for (n = 0; n < all.size(); n++) {
    irf_frame_rec_t* r = app->usb_read_video_header(0);
    app->usb_read_video_data(data.data(), static_cast<int>(r->len));
  }
  irf_frame_rec_t* r = app->usb_read_video_header(0);
  EXPECT_EQ(0u, r->len);
  EXPECT_EQ(0u, r->kind);
  app->usb_close_irf();
  EXPECT_FALSE(app->usb_isOpenFile());
  EXPECT_EQ(0, app->usb_irf_position());

  // Without audio no record of kind 3 is written.
  out = fopen(out_path().c_str(), "wb");
  lastkey = 0;
  EXPECT_EQ(0, app->bk_multi_irf_write(out, 0, 1, lastkey, false));
  fclose(out);
  std::string noaudio = kit::read_file(out_path());
  int records = 0;
  for (const kept& x : keep(blocks, beg[0], end[0], 0x2, false)) {
    EXPECT_NE(2u, x.f->w[0]);
    records++;
  }
  size_t pos = 4096;
  int seen = 0;
  while (pos + 68 <= noaudio.size()) {
    EXPECT_NE(3u, kit::get<uint32_t>(out_path(), static_cast<long long>(pos) + 40));
    pos += 68 + kit::get<uint32_t>(out_path(), static_cast<long long>(pos) + 20);
    seen++;
  }
  EXPECT_EQ(noaudio.size(), pos);
  EXPECT_EQ(records, seen);
}

TEST_F(Writers, SingleIrfCopiesTheMaskFromKeyFramesWithZeroLinks) {
  start(4);
  std::vector<block> blocks = bk::scene(H1 + 10, 100, 4, 4, 1);
  record(blocks);
  kit::write_file(board->root() + "/tmp/header.irf", irf_header());
  ASSERT_EQ(1, app->bk_set(H1 + 20, H1 + 80, 0x5));
  FILE* out = fopen(out_path().c_str(), "wb");
  int started = 7;
  kit::StderrCapture err;
  EXPECT_EQ(0, app->bk_irf_write(out, 0, 0x5, started));
  fclose(out);
  std::string log = err.take();
  EXPECT_NE(0, started);
  // The minute's own records are passed over with a line each.
  EXPECT_NE(std::string::npos, log.find("bk_irf_write[3187]: head.type: 4\n")) << log;
  EXPECT_NE(std::string::npos, log.find("bk_irf_write[3187]: head.type: 8\n"));
  std::string want = irf_header();
  for (const kept& k : keep(blocks, H1 + 20, H1 + 80, 0x5, true)) want += irf_record(*k.f, 0);
  std::string got = kit::read_file(out_path());
  EXPECT_EQ(want.size(), got.size());
  EXPECT_TRUE(want == got);

  // Without the header file the frames begin at offset 0; out of range items refuse.
  unlink((board->root() + "/tmp/header.irf").c_str());
  out = fopen(out_path().c_str(), "wb");
  EXPECT_EQ(0, app->bk_irf_write(out, 0, 0x5, started));
  EXPECT_EQ(-1, app->bk_irf_write(out, 1, 0x5, started));
  fclose(out);
  EXPECT_EQ(want.substr(4096), kit::read_file(out_path()));
  app->bk_clr();
}

TEST_F(Writers, FrameWritersReturnWhatTheyWroteAndRefuseOtherTypes) {
  FILE* out = fopen(out_path().c_str(), "wb");
  frame v = bk::make_frame(12, 3, 2, 321, 9), a = bk::make_frame(2, 3, 2, 80, 9);
  frame odd = bk::make_frame(5, 3, 2, 40, 9), bad = bk::make_frame(13, 3, 2, 40, 9);
  frame_head_t f;
  memcpy(&f, v.w, 44);
  EXPECT_EQ(321 + 68, app->bk_irf_write_frame(out, &f, v.data.data(), 4096));
  memcpy(&f, a.w, 44);
  EXPECT_EQ(80 + 68, app->bk_irf_write_frame(out, &f, a.data.data()));
  memcpy(&f, odd.w, 44);
  EXPECT_EQ(0, app->bk_irf_write_frame(out, &f, odd.data.data()));
  memcpy(&f, bad.w, 44);
  EXPECT_EQ(0, app->bk_irf_write_frame(out, &f, bad.data.data()));
  fclose(out);
  EXPECT_EQ(irf_record(v, 4096) + irf_record(a, 0), kit::read_file(out_path()));

  // OEM: a frame of type 5 is refused with a line (the records: oem_file below).
  out = fopen(out_path().c_str(), "wb");
  memcpy(&f, odd.w, 44);
  kit::StderrCapture err;
  EXPECT_EQ(0, app->bk_kesto_write_frame(out, &f, odd.data.data(), 1234, 99));
  EXPECT_EQ("bk_kesto_write_frame[4127]: Unknown Frame Type: 5\n", err.take());
  memcpy(&f, v.w, 44);
  EXPECT_EQ(321 + 24, app->bk_kesto_write_frame(out, &f, v.data.data(), 0x01020304, 77));
  fclose(out);
}

// The OEM file of one minute as the format lays it out.
std::string oem_file(const std::vector<kept>& frames) {
  std::string s;
  uint32_t prev = 0;
  for (const kept& k : frames) {
    const frame& f = *k.f;
    std::string h(24, '\0');
    bk::put32(h, 0, 0x6868);
    bk::put32(h, 4, f.w[10] + 24);
    memcpy(&h[9], &k.time, 4);
    memcpy(&h[13], &prev, 4);
    h[17] = static_cast<char>(f.w[1]);
    h[20] = f.w[0] == 0 || f.w[0] == 11 ? 1 : f.w[0] == 2 ? 0 : 3;
    h[22] = f.w[0] == 2 ? 1 : 0;
    s += h + f.data;
    prev = f.w[10] + 24;
  }
  return s;
}

TEST_F(Writers, OemWritesOneFilePerMinuteWithPreviousLengthLinks) {
  start(4);
  // 22:00:40 to 22:02:10 of one hour; key frames every 3 s from second 1.
  int t0 = rec::kHour0 + 40;
  std::vector<block> blocks = bk::scene(t0, 91, 4, 3, 1);
  record(blocks);
  ASSERT_EQ(1, app->bk_set(t0, t0 + 90, 0x3));
  std::vector<std::string> files;
  int ftime = 0, r;
  kit::StderrCapture err;
  do {
    FILE* out = fopen(out_path().c_str(), "wb");
    ftime = 0;
    r = app->bk_kesto_write(out, 0, 0x3, ftime);
    fclose(out);
    files.push_back(kit::read_file(out_path()));
    ASSERT_LT(files.size(), 10u);
  } while (r == 1);
  std::string log = err.take();
  ASSERT_EQ(3u, files.size());
  EXPECT_NE(std::string::npos, log.find("bk_kesto_write[4201]: ftime = " + std::to_string(t0 + 1) +
                                        ", head.tim = " + std::to_string(rec::kHour0 + 60) + "\n"))
      << log;
  for (int m = 0; m < 3; m++) {
    int lo = std::max(t0, rec::kHour0 + 60 * m), hi = std::min(t0 + 90, rec::kHour0 + 60 * m + 59);
    EXPECT_TRUE(oem_file(keep(blocks, lo, hi, 0x3, true, true)) == files[m]) << m;
  }
  app->bk_clr();

  // An H.265 recording has no type-0 key frame: nothing is written.
  std::vector<block> hevc = bk::scene(rec::kHour0 + 600, 20, 2, 3, 0, 265);
  record(hevc);
  ASSERT_EQ(1, app->bk_set(rec::kHour0 + 600, rec::kHour0 + 619, 0x3));
  FILE* out = fopen(out_path().c_str(), "wb");
  ftime = 0;
  EXPECT_EQ(0, app->bk_kesto_write(out, 0, 0x3, ftime));
  fclose(out);
  EXPECT_EQ(0, ftime);
  EXPECT_EQ("", kit::read_file(out_path()));
  app->bk_clr();
}

// An output stream that creates the cancel marker once `after` bytes went through it.
struct cancel_sink {
  FILE* file;
  long long written;
  long long after;
  std::string marker;
};
ssize_t sink_write(void* c, const char* buf, size_t n) {
  cancel_sink* s = static_cast<cancel_sink*>(c);
  fwrite(buf, 1, n, s->file);
  s->written += static_cast<long long>(n);
  if (s->written > s->after) fclose(fopen(s->marker.c_str(), "w"));
  return static_cast<ssize_t>(n);
}

TEST_F(Writers, CancelStopsAtTheNextMinute) {
  start(4);
  int t0 = rec::kHour0 + 600;  // 22:10:00, four minutes
  std::vector<block> blocks = bk::scene(t0, 240, 4, 4, 0);
  record(blocks);
  int started = 0;
  FILE* out;
  // Cancel: the marker appears while the second minute is being copied; that minute is
  // finished and nothing after it is written.
  kit::write_file(board->root() + "/tmp/header.irf", irf_header());
  ASSERT_EQ(1, app->bk_set(t0, t0 + 239, 0x3));
  std::vector<kept> first = keep(blocks, t0, t0 + 59, 0x3, true);
  std::vector<kept> two = keep(blocks, t0, t0 + 119, 0x3, true);
  long long first_bytes = 4096;
  for (const kept& k : first) first_bytes += 68 + k.f->data.size();
  cancel_sink s = {fopen(out_path().c_str(), "wb"), 0, first_bytes + 1000,
                   board->root() + "/tmp/bk_cancel"};
  cookie_io_functions_t io = {nullptr, sink_write, nullptr, nullptr};
  out = fopencookie(&s, "w", io);
  setvbuf(out, nullptr, _IONBF, 0);
  EXPECT_EQ(0, app->bk_irf_write(out, 0, 0x3, started));
  fclose(out);
  fclose(s.file);
  std::string want2 = irf_header();
  for (const kept& k : two) want2 += irf_record(*k.f, 0);
  std::string got = kit::read_file(out_path());
  EXPECT_EQ(want2.size(), got.size());
  EXPECT_TRUE(want2 == got);
  // With the marker present from the start nothing is copied.
  out = fopen(out_path().c_str(), "wb");
  EXPECT_EQ(0, app->bk_irf_write(out, 0, 0x3, started));
  fclose(out);
  EXPECT_EQ(0, started);
  EXPECT_EQ("", kit::read_file(out_path()));
  board->unlink("/tmp/bk_cancel");
  app->bk_clr();
}

TEST(UsbReader, HeaderChecksOpensAndLongRecords) {
  kit::TempDir dir;
  fs_app app;
  std::string a = dir / "a.irf", b = dir / "b.irf";
  std::string hdr = irf_header();
  frame big = bk::make_frame(0, 1, 2, 150000, 3);
  kit::write_file(a, hdr + irf_record(big, -1));
  std::string v1 = hdr;
  v1[7] = 1;
  kit::write_file(b, v1);
  // Nothing open: nothing happens.
  int size = -5;
  app.usb_reset_irf(size);
  EXPECT_EQ(-5, size);
  EXPECT_EQ(0, app.usb_irf_position());
  EXPECT_EQ(0u, app.usb_read_video_header(0)->kind);
  EXPECT_EQ(0, app.usb_check_irf_header(nullptr));
  EXPECT_EQ(0, app.usb_open_irf((dir / "missing.irf").c_str()));

  ASSERT_EQ(1, app.usb_open_irf(b.c_str()));
  EXPECT_EQ(0, app.usb_check_irf_header(app.usb_f));  // version 1
  ASSERT_EQ(1, app.usb_open_irf(a.c_str()));          // closes b
  EXPECT_EQ(0, app.usb_irf_position());
  EXPECT_EQ(1, app.usb_check_irf_header(app.usb_f));
  app.usb_reset_irf(size);
  EXPECT_EQ(static_cast<int>(hdr.size() + 68 + 150000), size);
  irf_frame_rec_t* r = app.usb_read_video_header(0);
  ASSERT_EQ(150000u, r->len);
  EXPECT_EQ(-1, r->link);
  // A frame longer than the reader's buffer arrives whole, in pieces.
  std::vector<char> data(150000 + 16, 'x');
  app.usb_read_video_data(data.data(), 150000);
  EXPECT_EQ(0, memcmp(big.data.data(), data.data(), 150000));
  EXPECT_EQ('x', data[150000]);
  // The first key frame's link is -1: stepping back gives a zero record.
  EXPECT_EQ(0u, app.usb_read_video_header(-1)->kind);
  EXPECT_EQ(0u, app.usb_read_video_header(0)->kind);  // end of file
  app.usb_close_irf();
  // A file shorter than its header, and an empty one.
  kit::write_file(b, hdr.substr(0, 100));
  ASSERT_EQ(1, app.usb_open_irf(b.c_str()));
  EXPECT_EQ(0, app.usb_check_irf_header(app.usb_f));
  kit::write_file(b, "");
  ASSERT_EQ(1, app.usb_open_irf(b.c_str()));
  EXPECT_EQ(0, app.usb_check_irf_header(app.usb_f));
}

}  // namespace
