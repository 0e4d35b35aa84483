#include "sim/h264_bits.h"

#include <string.h>

namespace sim {
namespace h264 {

namespace {

// CAVLC codes (length, value) used by the frame-code blocks: at most four coefficients,
// none of them +-1 (so no trailing ones), the last at scan position 4 at most.
//
// coeff_token with TrailingOnes 0, by nC class (0-1, 2-3, 4-7, 8 and up) and TotalCoeff.
const vlc COEFF_TOKEN[4][5] = {{{1, 1}, {6, 5}, {8, 7}, {9, 7}, {10, 7}},
                               {{2, 3}, {6, 11}, {6, 7}, {7, 7}, {8, 7}},
                               {{4, 15}, {6, 15}, {6, 11}, {6, 8}, {7, 15}},
                               {{6, 3}, {6, 0}, {6, 4}, {6, 8}, {6, 12}}};
// total_zeros by TotalCoeff (1-4) and total_zeros (0-4).
const vlc TOTAL_ZEROS[4][5] = {{{1, 1}, {3, 3}, {3, 2}, {4, 3}, {4, 2}},
                               {{3, 7}, {3, 6}, {3, 5}, {3, 4}, {3, 3}},
                               {{4, 5}, {3, 7}, {3, 6}, {3, 5}, {4, 4}},
                               {{5, 3}, {3, 7}, {4, 5}, {4, 4}, {3, 6}}};
// run_before by zerosLeft (1-4) and run.
const vlc RUN_BEFORE[4][5] = {{{1, 1}, {1, 0}, {0, 0}, {0, 0}, {0, 0}},
                              {{1, 1}, {2, 1}, {2, 0}, {0, 0}, {0, 0}},
                              {{2, 3}, {2, 2}, {2, 1}, {2, 0}, {0, 0}},
                              {{2, 3}, {2, 2}, {2, 1}, {3, 1}, {3, 0}}};
// 4x4 zig-zag scan: (x, y) of scan position k.
const uint8_t ZIGZAG[16][2] = {{0, 0}, {1, 0}, {0, 1}, {0, 2}, {1, 1}, {2, 0}, {3, 0}, {2, 1},
                               {1, 2}, {0, 3}, {1, 3}, {2, 2}, {3, 1}, {3, 2}, {2, 3}, {3, 3}};

int nc_class(int nc) { return nc < 2 ? 0 : nc < 4 ? 1 : nc < 8 ? 2 : 3; }

}  // namespace

// Start code, header byte, then the RBSP with an emulation prevention byte (03) after
// every two zero bytes that precede a byte of 0 to 3.
void put_nal(std::string& out, unsigned char hdr, const std::string& rbsp) {
  out.append("\0\0\0\1", 4);
  out.push_back(static_cast<char>(hdr));
  const char* p = rbsp.data();
  size_t n = rbsp.size(), i = 0, zeros = 0;
  while (i < n) {
    const char* z = zeros == 0 ? static_cast<const char*>(memchr(p + i, 0, n - i)) : p + i;
    if (z == nullptr) {
      out.append(p + i, n - i);
      break;
    }
    size_t at = static_cast<size_t>(z - p);
    if (at > i) {
      out.append(p + i, at - i);
      zeros = 0;
      i = at;
    }
    unsigned char c = static_cast<unsigned char>(p[i]);
    if (zeros >= 2 && c <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(static_cast<char>(c));
    zeros = c == 0 ? zeros + 1 : 0;
    i++;
  }
}

// The luma DC block (Intra16x16DCLevel) of a frame-code macroblock holding `nibble`.
// Wanted: every sample of quarter q clipped to 255 when bit q is set, to 0 when not.
// With only DC coefficients, the decoder's inverse Hadamard f = A c A gives each 4x4
// block its DC; choosing c = 20 * A s A (s the +-1 sign of each 4x4 block) gives
// f = 20 * 16 s = 320 s, scaled at QP 26 to 52 * 320 s and so a residual of
// (16640 s + 32) >> 6 = +-260 on every sample: past either end from any prediction.
// A quarter-constant s leaves only the 2x2 low corner of c non-zero.
void dc_block(bitw& b, int nibble, int nc) {
  static const int A[4][4] = {{1, 1, 1, 1}, {1, 1, -1, -1}, {1, -1, -1, 1}, {1, -1, 1, -1}};
  int sgn[4][4], t[4][4], m[4][4];
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 4; x++) sgn[y][x] = (nibble >> ((y / 2) * 2 + x / 2)) & 1 ? 1 : -1;
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 4; x++) {
      t[y][x] = 0;
      for (int k = 0; k < 4; k++) t[y][x] += A[y][k] * sgn[k][x];
    }
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 4; x++) {
      m[y][x] = 0;
      for (int k = 0; k < 4; k++) m[y][x] += t[y][k] * A[k][x];
    }
  // Non-zero coefficients from the highest scan position down, as CAVLC sends them.
  int level[16], pos[16], total = 0;
  for (int k = 15; k >= 0; k--) {
    int c = 20 * m[ZIGZAG[k][1]][ZIGZAG[k][0]];
    if (c != 0) {
      level[total] = c;
      pos[total++] = k;
    }
  }
  b.put(COEFF_TOKEN[nc_class(nc)][total]);
  if (total == 0) return;
  int suffix_len = 0;
  for (int i = 0; i < total; i++) {
    int code = level[i] > 0 ? 2 * level[i] - 2 : -2 * level[i] - 1;
    if (i == 0) code -= 2;  // no trailing ones: the first level is known not to be +-1
    int limit = suffix_len == 0 ? 30 : 15 << suffix_len;
    if (code < limit && suffix_len > 0) {
      b.u((code >> suffix_len) + 1, 1);  // level_prefix: zeros, then a one
      b.u(suffix_len, static_cast<uint32_t>(code & ((1 << suffix_len) - 1)));
    } else if (code < 14) {
      b.u(code + 1, 1);
    } else if (code < 30) {
      b.u(15, 1);
      b.u(4, static_cast<uint32_t>(code - 14));
    } else {
      b.u(16, 1);  // level_prefix 15: a 12-bit suffix
      b.u(12, static_cast<uint32_t>(code - limit));
    }
    if (suffix_len == 0) suffix_len = 1;
    int mag = level[i] < 0 ? -level[i] : level[i];
    if (mag > (3 << (suffix_len - 1)) && suffix_len < 6) suffix_len++;
  }
  int zeros = pos[0] + 1 - total;
  b.put(TOTAL_ZEROS[total - 1][zeros]);
  for (int i = 0; i + 1 < total && zeros > 0; i++) {
    int run = pos[i] - pos[i + 1] - 1;
    b.put(RUN_BEFORE[zeros - 1][run]);
    zeros -= run;
  }
}

// An empty luma DC block: coeff_token for no coefficient.
void dc_block_empty(bitw& b, int nc) { b.put(COEFF_TOKEN[nc_class(nc)][0]); }

}  // namespace h264
}  // namespace sim
