#include "export_kit.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "../mp4/mp4_file.h"

namespace xk {

std::vector<src_frame> expected(const std::vector<rec::written>& blocks, int beg, int end, int ch,
                                int stream) {
  std::vector<src_frame> v;
  bool started = false;
  for (const rec::written& w : blocks) {
    head_t h = rec::head_of(w.bytes);
    if (h.time < beg || h.time > end) continue;
    const unsigned char* data = reinterpret_cast<const unsigned char*>(w.bytes.data()) + 288;
    block_frames(h, data, [&](const frame_head_t& f, const char* p) {
      bool video = f.type != 2;
      if (static_cast<int>(f.ch) != ch || (video && static_cast<int>(f.stream) != stream))
        return true;
      if (!started && !(f.type == 0 || f.type == 11)) return true;
      started = true;
      v.push_back(src_frame{h.time, f, std::string(p, f.len)});
      return true;
    });
  }
  return v;
}

std::string video_stream(const std::vector<src_frame>& v) {
  std::string s;
  for (const src_frame& f : v)
    if (f.f.type != 2) s += f.data;
  return s;
}

int video_count(const std::vector<src_frame>& v) {
  int n = 0;
  for (const src_frame& f : v) n += f.f.type != 2;
  return n;
}

std::string pcm_of(const std::vector<src_frame>& v) {
  std::string s;
  for (const src_frame& f : v) {
    if (f.f.type != 2) continue;
    std::string out(4 * f.data.size() + 2, '\0');
    int n = 0;
    adpcm2lpcm(f.data.data(), static_cast<int>(f.data.size()), &out[0], n);
    s.append(out.data(), static_cast<size_t>(n));
  }
  return s;
}

namespace {

std::vector<std::string> lines(const std::string& s) {
  std::vector<std::string> v;
  std::istringstream in(s);
  for (std::string l; std::getline(in, l);)
    if (!l.empty()) v.push_back(l);
  return v;
}

// The mdat header at byte 24 (after the 24-byte ftyp) of a single-pass file says 8
// until the application writes the size it learnt from g_box.
void patch_mdat(FILE* f, unsigned data) {
  unsigned v = data + 8;
  unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  fseek(f, 24, SEEK_SET);
  fwrite(b, 1, 4, f);
}

}  // namespace

std::vector<out_file> two_phase(fs_app& app, const std::string& dir, int beg, int end, int mask,
                                bool sub, std::string* plan_out) {
  std::vector<out_file> files;
  std::vector<char> plan(1 << 16, '\0');
  int n = sub ? app.bk_phase_one_substream(dir.c_str(), beg, end, mask, plan.data())
              : app.bk_phase_one(dir.c_str(), beg, end, mask, plan.data());
  if (plan_out) *plan_out = plan.data();
  std::vector<std::string> ls = lines(plan.data());
  EXPECT_EQ(n, static_cast<int>(ls.size()));
  for (const std::string& l : ls) {
    char name[128];
    int ch, size, item, entry, off, t;
    EXPECT_EQ(
        7, sscanf(l.c_str(), "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off, &t))
        << l;
    out_file o;
    o.path = dir + "/" + name;
    o.plan = size;
    FILE* f = fopen(o.path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (!f) continue;
    o.ret = sub ? app.bk_phase_two_substream(f, name, ch, size, item, entry, off)
                : app.bk_phase_two(f, name, ch, size, item, entry, off);
    fclose(f);
    files.push_back(o);
  }
  app.bk_over();
  app.bk_clr();
  return files;
}

std::vector<out_file> single_pass(fs_app& app, const std::string& dir, int beg, int end, int ch) {
  std::vector<out_file> files;
  int items = app.bk_set(beg, end, 1 << ch);
  for (int item = 0; item < items; item++) {
    for (;;) {
      out_file o;
      o.path = dir + "/single_" + std::to_string(files.size()) + ".mp4";
      o.ret = 0;
      o.plan = -1;
      FILE* f = fopen(o.path.c_str(), "wb");
      EXPECT_NE(f, nullptr);
      if (!f) return files;
      int t = 0;
      unsigned w = 0, h = 0, fps = 0;
      int r = app.bk_write(f, item, ch, t, w, h, fps);
      unsigned box = 0, data = 0;
      app.bk_close(f, item, box, data);
      patch_mdat(f, data);
      fclose(f);
      if (data == 0)
        remove(o.path.c_str());
      else
        files.push_back(o);
      if (r != 1) break;
    }
  }
  app.bk_over();
  app.bk_clr();
  return files;
}

std::vector<out_file> multi_pass(fs_app& app, const std::string& dir, int beg, int end, int ch,
                                 bool audio) {
  std::vector<out_file> files;
  int mask = 1 << ch;
  int items = app.bk_multi_set(&beg, &end, &mask, 1);
  FILE* f = nullptr;
  out_file o;
  auto finish = [&]() {
    unsigned box = 0, data = 0;
    app.bk_multi_m4v_close(f, box, data);
    patch_mdat(f, data);
    fclose(f);
    f = nullptr;
    files.push_back(o);
  };
  int t = 0;
  unsigned w = 0, h = 0, fps = 0;
  for (int item = 0; item < items; item++) {
    for (;;) {
      if (!f) {
        o.path = dir + "/multi_" + std::to_string(files.size()) + ".mp4";
        o.ret = 0;
        o.plan = -1;
        f = fopen(o.path.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        if (!f) return files;
      }
      int r = app.bk_multi_m4v_write(f, item, ch, t, w, h, fps, audio);
      if (r != 1) break;
      finish();
    }
  }
  if (f) finish();
  // A new multi selection zeroes the state without freeing its array, as the
  // application frees it between runs.
  free(app.bk_multi_state.items);
  memset(&app.bk_multi_state, 0, sizeof app.bk_multi_state);
  return files;
}

mp4_facts facts(const std::string& path) {
  mp4_facts m;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) {
    m.err = "cannot open " + path;
    return m;
  }
  std::string s = mp4t::slurp(f);
  fclose(f);
  mp4t::Tree t(s);
  if (!t.err.empty()) {
    m.err = t.err;
    return m;
  }
  if (!t.has("mdat") || !t.has("moov/trak/mdia/minf/stbl/stsz")) {
    m.err = "no mdat or no video sample table";
    return m;
  }
  m.mdat_payload = mp4t::be32(s, t["mdat"]) - 8;
  size_t stsz = t["moov/trak/mdia/minf/stbl/stsz"];
  m.video_samples = mp4t::be32(s, stsz + 16);
  size_t tkhd = t["moov/trak/tkhd"];
  m.width = mp4t::be32(s, tkhd + 84) >> 16;
  m.height = mp4t::be32(s, tkhd + 88) >> 16;
  m.codec = t.has("moov/trak/mdia/minf/stbl/stsd/hvc1") ? "hvc1" : "avc1";
  if (t.has("moov/trak[1]/mdia/minf/stbl/stsz")) {
    size_t a = t["moov/trak[1]/mdia/minf/stbl/stsz"];
    unsigned each = mp4t::be32(s, a + 12), cnt = mp4t::be32(s, a + 16);
    for (unsigned i = 0; i < cnt && each == 0; i++) {
      unsigned v = mp4t::be32(s, a + 20 + 4 * i);
      m.audio_sizes.push_back(v);
      m.audio_bytes += v;
    }
  }
  m.ok = true;
  return m;
}

}  // namespace xk
