// IMA ADPCM (as the recorder's audio encoder writes it) to 16-bit linear PCM.
#include <ringrec/audio.h>

char pcm[10000];
int pcm_sz;
int audtype;

namespace {

const int kStep[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,   21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,   73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,  253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,  876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749, 3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493, 10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};

const int kAdjust[8] = {-1, -1, -1, -1, 2, 4, 6, 8};

int clamp(int v, int lo, int hi) { return v < lo ? lo : v > hi ? hi : v; }

int le16(const char* p) {
  return static_cast<short>(static_cast<unsigned char>(p[0]) |
                            (static_cast<unsigned char>(p[1]) << 8));
}

void put_le16(char* p, int v) {
  p[0] = static_cast<char>(v & 0xff);
  p[1] = static_cast<char>((v >> 8) & 0xff);
}

}  // namespace

int adpcm2lpcm(char const* in, int n, char* out, int& outlen) {
  int words = (n - 4) / 2;  // 16-bit words after the marker
  // A frame too short to hold even the predictor yields a zero sample rather than a
  // read of bytes that are not there.
  int predictor = n >= 6 ? le16(in + 4) : 0;
  put_le16(out, predictor);
  if (words < 3) {
    outlen = 2;
    return 0;
  }
  // The step index is stored as it was encoded and not checked by the encoder's format;
  // it is clamped here so the first lookup stays inside the 89-entry table.
  int index = clamp(le16(in + 6), 0, 88);
  char* o = out + 2;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in + 8);
  for (int w = 0; w < words - 2; w++, p += 2) {
    unsigned int word = p[0] | (p[1] << 8);
    for (int k = 0; k < 4; k++, word >>= 4) {
      int code = word & 15;
      int step = kStep[index];
      // Multiply, then shift: rounds differently from adding step, step/2 and step/4.
      int diff = (step >> 3) + (((code & 7) * step) >> 2);
      if (code & 8) diff = -diff;
      // The predictor runs on unclamped; only the stored sample is clamped, so a loud
      // passage stays saturated until the predictor comes back into range. It is a
      // 32-bit value: a frame of tens of kilobytes of maximal codes wraps it around, as
      // 32-bit arithmetic does, rather than overflowing a signed int.
      predictor =
          static_cast<int>(static_cast<unsigned int>(predictor) + static_cast<unsigned int>(diff));
      put_le16(o, clamp(predictor, -32768, 32767));
      o += 2;
      index = clamp(index + kAdjust[code & 7], 0, 88);
    }
  }
  outlen = 8 * words - 14;
  return 0;
}
