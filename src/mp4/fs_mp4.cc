// fs_mp4 sample accumulation: the sample tables, start-code to length-prefix conversion,
// and the 64 KiB buffered output.
#include <ringrec/fs_mp4.h>
#include <stdlib.h>
#include <string.h>

#include "mp4/mp4_tab.h"
#include "runtime/runtime.h"

namespace {

char* copy_unit(const char* p, unsigned int n) {
  char* c = static_cast<char*>(malloc(n ? n : 1));
  if (c) memcpy(c, p, n);
  return c;
}

// HEVC unit type of the unit starting (with its start code) at p.
unsigned int hevc_type(const char* p) { return (static_cast<unsigned char>(p[4]) >> 1) & 0x3f; }

void put_be32(char* p, unsigned int v) {
  p[0] = static_cast<char>(v >> 24);
  p[1] = static_cast<char>(v >> 16);
  p[2] = static_cast<char>(v >> 8);
  p[3] = static_cast<char>(v);
}

// Where the parameter sets of an H.264 key frame end: a = end of the SPS unit, b = end
// of the PPS unit, c = length of the unit after them (0 when the picture is the last
// unit). Returns 0 when unusable, -1 when a parameter set is over 1024 bytes (the avcC
// lengths and the box buffer's appends are sized for that), else 1.
int avc_key_units(const char* data, unsigned int len, unsigned int& a, unsigned int& b,
                  unsigned int& c) {
  a = fs_mp4::nal(data, len);
  b = a ? a + fs_mp4::nal(data + a, len - a) : 0;
  c = b ? fs_mp4::nal(data + b, len - b) : 0;
  if (a == 0 || b == 0 || a == b || b + c == 0) return 0;
  if (a >= fs_mp4::PS_MAX + 5 || b - a >= fs_mp4::PS_MAX + 5) return -1;
  return 1;
}

// The same for an H.265 key frame: ends of the VPS, SPS and PPS units. Sets of more than
// 1024 bytes are refused too: the box buffer grows by 1024 bytes per append.
int hevc_key_units(const char* data, unsigned int len, unsigned int& v, unsigned int& s,
                   unsigned int& p) {
  v = fs_mp4::nal_hevc(data, len, "vps");
  s = fs_mp4::nal_hevc(data, len, "sps");
  p = fs_mp4::nal_hevc(data, len, "pps");
  if (v == 0 || s == 0 || p == 0) return 0;
  if (v - 4 > fs_mp4::PS_MAX || s - v - 4 > fs_mp4::PS_MAX || p - s - 4 > fs_mp4::PS_MAX) return -1;
  return 1;
}

}  // namespace

fs_mp4::fs_mp4(const char* codec_) : codec(codec_), cap(BUF_CAP), fill(0) {
  box_cap = 0;
  box_len = 0;
  box = nullptr;
  memset(trk, 0, sizeof trk);
}

fs_mp4::~fs_mp4() {
  for (mp4_trk_t& t : trk) {
    free(t.stts.v);
    free(t.stts.w);
    free(t.vps);
    free(t.sps);
    free(t.pps);
    free(t.stsz.v);
    free(t.stco.v);
    free(t.stco.w);
    free(t.stss.v);
  }
  free(box);
}

const char* fs_mp4::Codec() { return codec; }

void fs_mp4::set(unsigned short width, unsigned short height, unsigned int a, unsigned int b) {
  trk[0].width = width;
  trk[0].height = height;
  trk[0].rate = a;
  trk[0].ctime = b;
  trk[1].ctime = b;
}

// The buffer starts with a start code; the bytes from offset 4 on go through a 32-bit
// shift register that starts all ones, so only four whole bytes 00 00 00 01 match.
unsigned int fs_mp4::nal(const char* data, unsigned int len) {
  if (len < 5) return 0;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  unsigned int v = 0xffffffffu;
  for (unsigned int i = 4; i < len; i++) {
    v = (v << 8) | p[i];
    if (v == 1) return i - 3;
  }
  return 0;
}

// A key frame begins VPS, SPS, PPS, each with its start code; "which" names the unit
// whose end offset is wanted. 0 when the frame does not begin with those three units.
unsigned int fs_mp4::nal_hevc(const char* data, unsigned int len, const char* which) {
  static const char* const names[3] = {"vps", "sps", "pps"};
  unsigned int end = 0;
  for (unsigned int k = 0; k < 3; k++) {
    unsigned int n = nal(data + end, len - end);
    if (n == 0 || hevc_type(data + end) != 32 + k) return 0;
    end += n;
    if (strcmp(which, names[k]) == 0) return end;
  }
  return 0;
}

int fs_mp4::scan(int kind, const char* data, unsigned int len) {
  switch (kind) {
    case 0: {
      unsigned int a, b, c;
      int r = avc_key_units(data, len, a, b, c);
      if (r < 0)
        fs_log("scan", 113, "trk[0].sps_sz = %d,  trk[0].pps_sz = %d\n", static_cast<int>(a - 4),
               static_cast<int>(b - a - 4));
      return r <= 0 ? r : static_cast<int>(len - b);
    }
    case 11: {
      unsigned int v, s, p;
      int r = hevc_key_units(data, len, v, s, p);
      return r <= 0 ? r : static_cast<int>(len);
    }
    case 1:
    case 12:
      return static_cast<int>(len);
    case 2:
      // Audio goes into mdat decoded: 8 * ((len - 4) / 2) - 14 bytes of PCM.
      return static_cast<int>(len * 4 - 30);
    default:
      return 0;
  }
}

int fs_mp4::add(int kind, const char* data, unsigned int len) {
  mp4_trk_t& v = trk[0];
  mp4_trk_t& au = trk[1];
  unsigned int size;
  switch (kind) {
    case 0: {
      unsigned int a, b, c;
      int r = avc_key_units(data, len, a, b, c);
      if (r < 0)
        fs_log("add", 149, "trk[0].sps_sz = %d,  trk[0].pps_sz = %d\n", static_cast<int>(a - 4),
               static_cast<int>(b - a - 4));
      if (r <= 0) return r;
      if (!v.sps) {
        v.sps_sz = a - 4;
        v.sps = copy_unit(data + 4, v.sps_sz);
        v.pps_sz = b - a - 4;
        v.pps = copy_unit(data + a + 4, v.pps_sz);
      }
      size = len - b;  // the parameter sets live in avcC, not in mdat
      break;
    }
    case 11: {
      unsigned int e0, e1, e2;
      int r = hevc_key_units(data, len, e0, e1, e2);
      if (r <= 0) return r;
      if (!v.sps) {
        v.vps_sz = e0 - 4;
        v.vps = copy_unit(data + 4, v.vps_sz);
        v.sps_sz = e1 - e0 - 4;
        v.sps = copy_unit(data + e0 + 4, v.sps_sz);
        v.pps_sz = e2 - e1 - 4;
        v.pps = copy_unit(data + e1 + 4, v.pps_sz);
      }
      size = len;
      break;
    }
    case 1:
    case 12:
      size = len;
      break;
    case 2:
      tab_push(au.stsz, len);
      tab_push(au.stco, v.bytes + au.bytes, 321);
      au.bytes += len;
      return static_cast<int>(len);
    default:
      return 0;
  }
  tab_push(v.stsz, size);
  tab_push(v.stco, v.bytes + au.bytes, 1);
  if (kind == 0 || kind == 11) tab_push(v.stss, v.stsz.cnt);
  v.bytes += size;
  return static_cast<int>(size);
}

void fs_mp4::w_data(int kind, FILE* f, const char* data, unsigned int len) {
  char lenbuf[4];
  // One unit [from, to) of the frame, its start code replaced by its length.
  auto unit = [&](unsigned int from, unsigned int to) {
    put_be32(lenbuf, to - from - 4);
    fwrite(lenbuf, 1, 4, f);
    fwrite(data + from + 4, 1, to - from - 4, f);
  };
  // The picture of a key frame from offset b: its first unit, then the rest as one more.
  auto picture = [&](unsigned int b) {
    unsigned int c = nal(data + b, len - b);
    if (c == 0) {
      // The picture is the frame's last unit: it runs to the end, nothing follows.
      unit(b, len);
      return;
    }
    unit(b, b + c);
    unit(b + c, len);
  };
  switch (kind) {
    case 1:
    case 12:
      // A frame shorter than its start code cannot be rewritten; its bytes go as they
      // are, so mdat still holds exactly the size add() recorded for it.
      if (len < 4) {
        fwrite(data, 1, len, f);
        return;
      }
      unit(0, len);
      return;
    case 2:
      fwrite(data, 1, len, f);
      return;
    case 0: {
      unsigned int a, b, c;
      // Frames add() refused take no room in mdat.
      if (avc_key_units(data, len, a, b, c) <= 0) return;
      picture(b);
      return;
    }
    case 11: {
      unsigned int e[3];
      if (hevc_key_units(data, len, e[0], e[1], e[2]) <= 0) return;
      unsigned int from = 0;
      for (unsigned int k = 0; k < 3; k++) {
        // Three zero bytes and one length byte; sets up to 1024 bytes get their whole
        // length here, since one byte cannot hold it (the same bytes up to 255).
        unit(from, e[k]);
        from = e[k];
      }
      picture(e[2]);
      return;
    }
    default:
      return;
  }
}

void fs_mp4::fwrite(const void* p, unsigned int size, unsigned int n, FILE* f) {
  unsigned int k = size * n;
  if (fill && k > cap - fill) flush(f);
  if (k > cap) {
    ::fwrite(p, 1, k, f);
    return;
  }
  memcpy(buf + fill, p, k);
  fill += k;
}

void fs_mp4::flush(FILE* f) {
  if (fill) ::fwrite(buf, 1, fill, f);
  fill = 0;
}

void fs_mp4::g_box(unsigned int& box_, unsigned int& data) {
  box_ = box_len;
  data = trk[0].bytes + trk[1].bytes;
  fs_log("g_box", 323, "box = %d, data = %d (%d + %d)\n", box_, data, trk[0].bytes, trk[1].bytes);
}

unsigned int fs_mp4::g_size() { return trk[0].bytes + box_len + trk[1].bytes; }
