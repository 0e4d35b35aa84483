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

}  // namespace annexb

#endif
