// Reading back what fs_mp4 wrote: the box tree of a file, with every box's children
// required to fill its payload exactly, and big-endian field access.
#ifndef RINGREC_TEST_MP4_FILE_H
#define RINGREC_TEST_MP4_FILE_H

#include <stdio.h>

#include <map>
#include <string>

namespace mp4t {

inline unsigned be32(const std::string& s, size_t off) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data()) + off;
  return (unsigned(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}
inline unsigned be16(const std::string& s, size_t off) {
  return (unsigned char)s[off] << 8 | (unsigned char)s[off + 1];
}

inline std::string slurp(FILE* f) {
  std::string s;
  fflush(f);
  rewind(f);
  char b[65536];
  size_t n;
  while ((n = fread(b, 1, sizeof b, f)) > 0) s.append(b, n);
  return s;
}

// Box path ("moov/trak[1]/mdia/mdhd") -> offset of the box. Children start after a
// fixed part that depends on the box type; "mdat" is taken as a leaf.
struct Tree {
  std::map<std::string, size_t> at;
  std::string err;

  static size_t child_skip(const std::string& t) {
    if (t == "moov" || t == "trak" || t == "mdia" || t == "minf" || t == "dinf" || t == "stbl")
      return 8;
    if (t == "stsd" || t == "dref") return 16;
    if (t == "avc1" || t == "hvc1") return 86;
    if (t == "mp4a") return 36;
    if (t == "sowt") return 52;
    return 0;
  }

  void walk(const std::string& s, size_t off, size_t end, const std::string& prefix) {
    std::map<std::string, int> seen;
    while (off < end && err.empty()) {
      if (end - off < 8) {
        err = prefix + ": trailing bytes";
        return;
      }
      size_t sz = be32(s, off);
      std::string type = s.substr(off + 4, 4);
      if (sz < 8 || sz > end - off) {
        err = prefix + type + ": size " + std::to_string(sz) + " overruns its parent";
        return;
      }
      std::string path = prefix + type;
      if (seen[type]++) path += "[" + std::to_string(seen[type] - 1) + "]";
      at[path] = off;
      size_t skip = child_skip(type);
      if (skip && type != "mdat") walk(s, off + skip, off + sz, path + "/");
      off += sz;
    }
  }

  explicit Tree(const std::string& s) { walk(s, 0, s.size(), ""); }
  bool has(const std::string& p) const { return at.count(p) != 0; }
  size_t operator[](const std::string& p) const { return at.at(p); }
};

}  // namespace mp4t

#endif
