// Splitting a raw H.264 / H.265 start-code stream into access units, one recorded frame
// each, in the form the recorder's encoder hands them over: every unit with a 4-byte
// start code, parameter sets at the head of each key frame. Header-only; shared by the
// `mp4` command, its tests and the muxing benchmark.
#ifndef RINGREC_TOOL_ANNEXB_H
#define RINGREC_TOOL_ANNEXB_H

#include <stddef.h>

#include <string>
#include <vector>

namespace annexb {

struct frame {
  int kind;  // 0 / 1 H.264 key / other, 11 / 12 H.265 key / other
  std::string data;
};

// The units of a stream without their start codes (3- or 4-byte) and without the zero
// bytes that may pad a unit before the next start code.
inline std::vector<std::pair<size_t, size_t>> units(const std::string& s) {
  std::vector<std::pair<size_t, size_t>> out;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t n = s.size(), start = std::string::npos;
  for (size_t i = 0; i + 2 < n;) {
    if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
      if (start != std::string::npos) {
        size_t end = i;
        while (end > start && p[end - 1] == 0) end--;
        out.push_back({start, end - start});
      }
      i += 3;
      start = i;
    } else {
      i++;
    }
  }
  if (start != std::string::npos && start < n) {
    size_t end = n;
    while (end > start && p[end - 1] == 0) end--;
    out.push_back({start, end - start});
  }
  return out;
}

// Groups the units into access units. A picture starts a new one when it is the first
// slice of its picture and the current one already holds a slice; an access unit
// delimiter, parameter set or prefix SEI after a slice does too.
inline std::vector<frame> split(const std::string& s, bool hevc) {
  std::vector<frame> out;
  frame cur{hevc ? 12 : 1, std::string()};
  bool has_slice = false;
  for (const auto& u : units(s)) {
    if (u.second < (hevc ? 3u : 2u)) continue;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data()) + u.first;
    int type = hevc ? (p[0] >> 1) & 0x3f : p[0] & 0x1f;
    bool slice, first_slice = false, prefix, key;
    if (hevc) {
      slice = type < 32;
      if (slice) first_slice = (p[2] & 0x80) != 0;
      prefix = (type >= 32 && type <= 35) || type == 39;
      key = type >= 16 && type <= 23;
    } else {
      slice = type >= 1 && type <= 5;
      if (slice) first_slice = (p[1] & 0x80) != 0;  // first_mb_in_slice == 0
      prefix = type >= 6 && type <= 9;
      key = type == 5;
    }
    if (has_slice && ((slice && first_slice) || prefix)) {
      out.push_back(cur);
      cur = frame{hevc ? 12 : 1, std::string()};
      has_slice = false;
    }
    cur.data.append("\0\0\0\1", 4);
    cur.data.append(s, u.first, u.second);
    if (slice) has_slice = true;
    if (key) cur.kind = hevc ? 11 : 0;
  }
  if (has_slice) out.push_back(cur);
  return out;
}

// Reads the picture size from a sequence parameter set (unit without start code): the
// coded size less the cropping window. False when the unit is too short to tell.
class bits {
 public:
  explicit bits(const std::string& unit) {
    // Drop emulation prevention bytes (00 00 03 -> 00 00).
    for (size_t i = 0, z = 0; i < unit.size(); i++) {
      unsigned char c = static_cast<unsigned char>(unit[i]);
      if (z >= 2 && c == 3) {
        z = 0;
        continue;
      }
      z = c == 0 ? z + 1 : 0;
      rbsp_ += static_cast<char>(c);
    }
  }
  unsigned u(int n) {
    unsigned v = 0;
    while (n--) {
      if (pos_ >= rbsp_.size() * 8) {
        bad_ = true;
        return 0;
      }
      v = (v << 1) | ((static_cast<unsigned char>(rbsp_[pos_ / 8]) >> (7 - pos_ % 8)) & 1);
      pos_++;
    }
    return v;
  }
  unsigned ue() {
    int zeros = 0;
    while (!bad_ && u(1) == 0 && zeros < 32) zeros++;
    return zeros >= 32 ? (bad_ = true, 0) : (1u << zeros) - 1 + u(zeros);
  }
  int se() {
    unsigned v = ue();
    return v & 1 ? static_cast<int>((v + 1) / 2) : -static_cast<int>(v / 2);
  }
  bool bad() const { return bad_; }

 private:
  std::string rbsp_;
  size_t pos_ = 0;
  bool bad_ = false;
};

inline bool avc_size(const std::string& sps, unsigned& w, unsigned& h) {
  bits b(sps);
  b.u(8);
  unsigned profile = b.u(8);
  b.u(16);
  b.ue();
  unsigned chroma = 1;
  if (profile == 100 || profile == 110 || profile == 122 || profile == 244 || profile == 44 ||
      profile == 83 || profile == 86 || profile == 118 || profile == 128 || profile == 138 ||
      profile == 139 || profile == 134 || profile == 135) {
    chroma = b.ue();
    if (chroma == 3) b.u(1);
    b.ue();
    b.ue();
    b.u(1);
    if (b.u(1))  // scaling matrices: skipped list by list
      for (int i = 0; i < (chroma == 3 ? 12 : 8); i++)
        if (b.u(1))
          for (int j = 0, last = 8, next = 8; j < (i < 6 ? 16 : 64) && next; j++) {
            next = (last + b.se() + 256) % 256;
            last = next ? next : last;
          }
  }
  b.ue();
  unsigned poc = b.ue();
  if (poc == 0) {
    b.ue();
  } else if (poc == 1) {
    b.u(1);
    b.se();
    b.se();
    for (unsigned i = 0, n = b.ue(); i < n && !b.bad(); i++) b.se();
  }
  b.ue();
  b.u(1);
  unsigned mbw = b.ue() + 1, mbh = b.ue() + 1, frame_only = b.u(1);
  if (!frame_only) b.u(1);
  b.u(1);
  unsigned cl = 0, cr = 0, ct = 0, cb = 0;
  if (b.u(1)) cl = b.ue(), cr = b.ue(), ct = b.ue(), cb = b.ue();
  unsigned cx = chroma == 1 || chroma == 2 ? 2 : 1, cy = (chroma == 1 ? 2 : 1) * (2 - frame_only);
  w = mbw * 16 - (cl + cr) * cx;
  h = mbh * 16 * (2 - frame_only) - (ct + cb) * cy;
  return !b.bad();
}

inline bool hevc_size(const std::string& sps, unsigned& w, unsigned& h) {
  bits b(sps);
  b.u(16);
  b.u(4);
  unsigned sub = b.u(3);
  b.u(1);
  b.u(88);  // general profile
  b.u(8);   // general level
  unsigned prof[8] = {0}, lev[8] = {0};
  for (unsigned i = 0; i < sub; i++) prof[i] = b.u(1), lev[i] = b.u(1);
  if (sub > 0)
    for (unsigned i = sub; i < 8; i++) b.u(2);
  for (unsigned i = 0; i < sub; i++) {
    if (prof[i]) b.u(88);
    if (lev[i]) b.u(8);
  }
  b.ue();
  unsigned chroma = b.ue();
  if (chroma == 3) b.u(1);
  w = b.ue();
  h = b.ue();
  if (b.u(1)) {
    unsigned cx = chroma == 1 || chroma == 2 ? 2 : 1, cy = chroma == 1 ? 2 : 1;
    unsigned l = b.ue(), r = b.ue(), t = b.ue(), bo = b.ue();
    w -= (l + r) * cx;
    h -= (t + bo) * cy;
  }
  return !b.bad();
}

}  // namespace annexb

#endif
