#include "sim/capture.h"

#include <ringrec/block.h>
#include <ringrec/fs_io.h>
#include <ringrec/records.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "annexb.h"

namespace sim {

namespace {

uint32_t next_rand(uint32_t& s) {
  s ^= s << 13;
  s ^= s >> 17;
  s ^= s << 5;
  return s;
}

void put_nal(std::string& out, const unsigned char* hdr, int n) {
  static const unsigned char sc[4] = {0, 0, 0, 1};
  out.append(reinterpret_cast<const char*>(sc), 4);
  out.append(reinterpret_cast<const char*>(hdr), static_cast<size_t>(n));
}

// Payload bytes never 0, so no start code can appear inside a unit.
void put_payload(std::string& out, int n, uint32_t& s) {
  for (int i = 0; i < n; i++) out.push_back(static_cast<char>(1 + next_rand(s) % 255));
}

// NAL unit types of the sequence parameter sets.
const int AVC_NAL_SPS = 7;
const int HEVC_NAL_SPS = 33;

int nal_type(int codec, unsigned char b) { return codec == 265 ? (b >> 1) & 0x3F : b & 0x1F; }
bool is_vcl(int codec, int t) { return codec == 265 ? t < 32 : (t >= 1 && t <= 5); }
bool is_key(int codec, int t) { return codec == 265 ? (t >= 16 && t <= 21) : t == 5; }

}  // namespace

std::string synth_unit(int codec, bool key, int bytes, uint32_t seed) {
  std::string out;
  uint32_t s = seed * 2654435761u + 1;
  if (s == 0) s = 1;
  int slice;
  if (codec == 265) {
    if (key) {
      const unsigned char vps[] = {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60};
      const unsigned char sps[] = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03};
      const unsigned char pps[] = {0x44, 0x01, 0xC1, 0x72, 0xB4, 0x62, 0x40};
      put_nal(out, vps, sizeof vps);
      put_nal(out, sps, sizeof sps);
      put_nal(out, pps, sizeof pps);
      const unsigned char idr[] = {0x26, 0x01, 0xAF};  // IDR_W_RADL
      put_nal(out, idr, sizeof idr);
    } else {
      const unsigned char trail[] = {0x02, 0x01, 0xD0};  // TRAIL_R
      put_nal(out, trail, sizeof trail);
    }
  } else {
    if (key) {
      const unsigned char sps[] = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78};
      const unsigned char pps[] = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
      put_nal(out, sps, sizeof sps);
      put_nal(out, pps, sizeof pps);
      const unsigned char idr[] = {0x65, 0x88, 0x84};
      put_nal(out, idr, sizeof idr);
    } else {
      const unsigned char p[] = {0x41, 0x9A, 0x02};
      put_nal(out, p, sizeof p);
    }
  }
  slice = bytes - static_cast<int>(out.size());
  put_payload(out, slice < 4 ? 4 : slice, s);
  return out;
}

int load_annexb(const std::string& path, int codec, std::vector<access_unit>& out, int* found_codec,
                std::string* err) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) {
    if (err) *err = path + ": cannot open";
    return -1;
  }
  std::string data;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) data.append(buf, n);
  fclose(f);

  // NAL units: [start, end) of each, start codes excluded.
  std::vector<std::pair<size_t, size_t>> nals;
  size_t i = 0, cur = std::string::npos;
  while (i + 3 <= data.size()) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      size_t sc = (i > 0 && data[i - 1] == 0) ? i - 1 : i;
      if (cur != std::string::npos) nals.push_back({cur, sc});
      cur = i + 3;
      i += 3;
    } else {
      i++;
    }
  }
  if (cur != std::string::npos && cur < data.size()) nals.push_back({cur, data.size()});
  if (nals.empty()) {
    if (err) *err = path + ": no NAL units (not an Annex B stream)";
    return -1;
  }
  if (codec != 264 && codec != 265) {
    unsigned char b = static_cast<unsigned char>(data[nals[0].first]);
    codec = (b == 0x40 || b == 0x42 || b == 0x44 || b == 0x46) ? 265 : 264;
  }
  if (found_codec) *found_codec = codec;

  access_unit au;
  au.key = false;
  bool vcl_seen = false;
  for (auto& r : nals) {
    if (r.second <= r.first) continue;
    int t = nal_type(codec, static_cast<unsigned char>(data[r.first]));
    bool vcl = is_vcl(codec, t);
    // A non-VCL unit after a picture, or a second picture, starts a new access unit.
    if (vcl_seen) {
      bool first_slice = true;
      if (vcl && r.second - r.first > 2) {
        // first_mb_in_slice == 0 (H.264) / first_slice_segment_in_pic_flag (H.265):
        // the top bit of the byte after the header.
        unsigned char b = static_cast<unsigned char>(data[r.first + (codec == 265 ? 2 : 1)]);
        first_slice = (b & 0x80) != 0;
      }
      if (!vcl || first_slice) {
        out.push_back(au);
        au.bytes.clear();
        au.key = false;
        vcl_seen = false;
      }
    }
    au.bytes.append("\0\0\0\1", 4);
    au.bytes.append(data, r.first, r.second - r.first);
    if (vcl) {
      vcl_seen = true;
      if (is_key(codec, t)) au.key = true;
    }
  }
  if (!au.bytes.empty() && vcl_seen) out.push_back(au);
  if (out.empty()) {
    if (err) *err = path + ": no pictures";
    return -1;
  }
  return 0;
}

namespace {

// The picture size in the first sequence parameter set of a stream; kept as it was when
// there is none or it cannot be read.
void stream_size(const std::vector<access_unit>& units, int codec, int& w, int& h) {
  for (const access_unit& u : units) {
    for (const auto& r : annexb::units(u.bytes)) {
      std::string nal = u.bytes.substr(r.first, r.second);
      int t = nal_type(codec, static_cast<unsigned char>(nal[0]));
      unsigned sw = 0, sh = 0;
      bool ok = codec == 265 ? t == HEVC_NAL_SPS && annexb::hevc_size(nal, sw, sh)
                             : t == AVC_NAL_SPS && annexb::avc_size(nal, sw, sh);
      if (ok && sw > 0 && sh > 0 && sw <= 16384 && sh <= 16384) {
        w = static_cast<int>(sw);
        h = static_cast<int>(sh);
        return;
      }
    }
  }
}

}  // namespace

int capture::open(const capture_spec& shape, long long start_ms, std::string* err) {
  spec_ = shape;
  if (spec_.channels < 1 || spec_.channels > 32) {
    if (err) *err = "channels must be 1 to 32";
    return -1;
  }
  if (spec_.block_ms <= 0 || 1000 % spec_.block_ms != 0 || spec_.fps <= 0 ||
      (spec_.fps * spec_.block_ms) % 1000 != 0) {
    if (err) *err = "block_ms must divide 1000 and hold whole frames";
    return -1;
  }
  codec_ = spec_.codec == 265 ? 265 : 264;
  main_units_.clear();
  sub_units_.clear();
  if (!spec_.main_input.empty()) {
    if (load_annexb(spec_.main_input, 0, main_units_, &codec_, err) != 0) return -1;
  }
  std::string sub = spec_.sub_input.empty() ? spec_.main_input : spec_.sub_input;
  if (!sub.empty()) {
    if (load_annexb(sub, codec_, sub_units_, nullptr, err) != 0) return -1;
  }
  // A given stream is stamped with its own picture size, read from its first SPS.
  if (!main_units_.empty()) stream_size(main_units_, codec_, spec_.main_w, spec_.main_h);
  if (!sub_units_.empty()) stream_size(sub_units_, codec_, spec_.sub_w, spec_.sub_h);
  pictures_.clear();
  if (codec_ == 264) {
    pictures_.resize(static_cast<size_t>(spec_.channels) * 2);
    for (int ch = 0; ch < spec_.channels; ch++) {
      if ((main_units_.empty() &&
           pictures_[static_cast<size_t>(ch) * 2].open(
               spec_.main_w, spec_.main_h, spec_.fps, ch, SYNTH_STREAM_MAIN,
               static_cast<size_t>(frame_bytes(false, true)), spec_.seed) != 0) ||
          (sub_units_.empty() &&
           pictures_[static_cast<size_t>(ch) * 2 + 1].open(
               spec_.sub_w, spec_.sub_h, spec_.fps, ch, SYNTH_STREAM_SUB,
               static_cast<size_t>(frame_bytes(true, true)), spec_.seed) != 0)) {
        if (err) *err = "picture size cannot be coded (even sizes, 16 to 8192)";
        return -1;
      }
    }
  }
  start_ms_ = start_ms;
  now_ms_ = start_ms;
  block_start_ms_ = start_ms;
  tick_ = 0;
  frame_ = 0;
  return 0;
}

// The byte budget of a frame: key frames four times the size of the others, the average
// kept at the bit rate.
long long capture::frame_bytes(bool sub, bool key) const {
  int kbps = sub ? spec_.sub_kbps : spec_.main_kbps;
  long long avg = static_cast<long long>(kbps) * 1000 / 8 / spec_.fps;
  long long p = avg * spec_.gop / (spec_.gop + 3);
  long long bytes = key ? 4 * p : p;
  return bytes < 32 ? 32 : bytes;
}

std::string capture::video_frame(int ch, bool sub, long long n, bool& key) {
  const std::vector<access_unit>& units = sub ? sub_units_ : main_units_;
  if (!units.empty()) {
    const access_unit& u = units[static_cast<size_t>(n % static_cast<long long>(units.size()))];
    key = u.key;
    return u.bytes;
  }
  key = n % spec_.gop == 0;
  long long bytes = frame_bytes(sub, key);
  if (!pictures_.empty()) {
    std::string out;
    long long ms = start_ms_ + n * 1000 / spec_.fps;
    pictures_[static_cast<size_t>(ch) * 2 + (sub ? 1 : 0)].frame(out, static_cast<uint32_t>(n), key,
                                                                 ms, static_cast<size_t>(bytes));
    return out;
  }
  return synth_unit(codec_, key, static_cast<int>(bytes),
                    spec_.seed ^ static_cast<uint32_t>(n * 131 + ch * 7 + (sub ? 1 : 0)));
}

// One 40 ms frame of 8 kHz IMA ADPCM: marker 00 01 52 00, predictor, step index, then
// 320 samples of 4 bits.
std::string capture::audio_frame(int ch, long long n) {
  std::string a;
  const unsigned char marker[4] = {0x00, 0x01, 0x52, 0x00};
  a.append(reinterpret_cast<const char*>(marker), 4);
  int16_t pred = static_cast<int16_t>((n * 37 + ch) % 2000 - 1000);
  int16_t index = 20;
  a.append(reinterpret_cast<const char*>(&pred), 2);
  a.append(reinterpret_cast<const char*>(&index), 2);
  uint32_t s = spec_.seed + static_cast<uint32_t>(n * 17 + ch);
  if (s == 0) s = 1;
  for (int i = 0; i < 160; i++) a.push_back(static_cast<char>(next_rand(s) & 0x77));
  return a;
}

namespace {

struct block_builder {
  head_t h;
  std::string data;
  explicit block_builder(int time, uint32_t stream, uint32_t tick) {
    memset(&h, 0, sizeof h);
    h.type = SIM_BLOCK_FRAMES;
    h.time = time;
    h.stream = stream;
    h.w9 = tick;
  }
  void add(const frame_head_t& fh, const std::string& payload) {
    data.append(reinterpret_cast<const char*>(&fh), sizeof fh);
    data.append(payload);
    h.frames++;
    if (fh.type < 32) h.types |= 1u << fh.type;
    if (fh.ch < sizeof h.count / sizeof h.count[0]) h.count[fh.ch]++;
    if (fh.ch < 32) h.events |= 1u << fh.ch;
  }
  std::string finish(uint32_t events) {
    h.events |= events;
    block_seal(h, static_cast<int32_t>(data.size()));
    std::string out(reinterpret_cast<const char*>(&h), sizeof h);
    out += data;
    uint32_t tail[2];
    block_tail(tail, h.size);
    out.append(reinterpret_cast<const char*>(tail), sizeof tail);
    return out;
  }
};

frame_head_t video_head(int codec, bool key, int ch, int w, int h, int fps, uint32_t stream,
                        size_t len) {
  frame_head_t f;
  memset(&f, 0, sizeof f);
  f.type = codec == 265 ? (key ? FRAME_H265_KEY : FRAME_H265) : (key ? FRAME_H264_KEY : FRAME_H264);
  f.ch = static_cast<uint32_t>(ch);
  f.width = static_cast<uint32_t>(w);
  f.height = static_cast<uint32_t>(h);
  f.fps = static_cast<uint32_t>(fps);
  f.stream = stream;
  f.size = static_cast<uint32_t>(len);
  f.len = static_cast<uint32_t>(len);
  return f;
}

}  // namespace

void capture::next(std::vector<std::string>& blocks) {
  blocks.clear();
  block_start_ms_ = now_ms_;
  int t = static_cast<int>(now_ms_ / 1000);
  int frames = spec_.fps * spec_.block_ms / 1000;
  block_builder main(t, BLOCK_STREAM_MAIN, static_cast<uint32_t>(tick_));
  block_builder sub(t, BLOCK_STREAM_SUB, static_cast<uint32_t>(tick_));
  for (int k = 0; k < frames; k++) {
    long long n = frame_ + k;
    for (int ch = 0; ch < spec_.channels; ch++) {
      bool key = false;
      std::string v = video_frame(ch, false, n, key);
      main.add(video_head(codec_, key, ch, spec_.main_w, spec_.main_h, spec_.fps, BLOCK_STREAM_MAIN,
                          v.size()),
               v);
      if (spec_.audio) {
        std::string a = audio_frame(ch, n);
        frame_head_t f;
        memset(&f, 0, sizeof f);
        f.type = FRAME_AUDIO;
        f.ch = static_cast<uint32_t>(ch);
        f.width = SIM_AUDIO_ADPCM;  // needs conversion for export
        f.height = SIM_AUDIO_RATE;
        f.size = static_cast<uint32_t>(a.size());
        f.len = static_cast<uint32_t>(a.size());
        main.add(f, a);
      }
      if (spec_.substream) {
        std::string s = video_frame(ch, true, n, key);
        sub.add(video_head(codec_, key, ch, spec_.sub_w, spec_.sub_h, spec_.fps, BLOCK_STREAM_SUB,
                           s.size()),
                s);
      }
    }
  }
  blocks.push_back(main.finish(events_));
  if (spec_.substream) blocks.push_back(sub.finish(events_));
  frame_ += frames;
  tick_++;
  now_ms_ += spec_.block_ms;
}

namespace {
std::atomic<long long> g_clock(0);
time_t (*g_saved)(time_t*) = nullptr;
time_t followed_time(time_t* t) {
  time_t v = static_cast<time_t>(g_clock.load(std::memory_order_relaxed));
  if (t != nullptr) *t = v;
  return v;
}
}  // namespace

void clock_follow() {
  if (fs_sys.time != followed_time) {
    g_saved = fs_sys.time;
    fs_sys.time = followed_time;
  }
}
void clock_set(long long secs) { g_clock.store(secs, std::memory_order_relaxed); }
void clock_release() {
  if (fs_sys.time == followed_time) fs_sys.time = g_saved != nullptr ? g_saved : ::time;
}

}  // namespace sim
