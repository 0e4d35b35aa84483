// Bit-level pieces of the simulator's H.264 writer: an RBSP bit writer, NAL unit
// framing with emulation prevention, and the CAVLC luma DC block of the frame code.
#ifndef RINGREC_SIM_H264_BITS_H
#define RINGREC_SIM_H264_BITS_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace sim {
namespace h264 {

// A variable-length code: its length in bits and its value.
struct vlc {
  uint8_t len, bits;
};

// RBSP bit writer: 64-bit accumulator, flushed a byte at a time.
class bitw {
 public:
  explicit bitw(std::string& s) : s_(s) {}
  void u(int n, uint32_t v) {
    acc_ = (acc_ << n) | (v & ((n == 32) ? 0xFFFFFFFFu : ((1u << n) - 1)));
    bits_ += n;
    while (bits_ >= 8) {
      bits_ -= 8;
      s_.push_back(static_cast<char>((acc_ >> bits_) & 0xFF));
    }
  }
  // Exp-Golomb: len-1 zeros, then v+1 in len bits.
  void ue(uint32_t v) {
    uint64_t x = static_cast<uint64_t>(v) + 1;
    int len = 0;
    while ((x >> len) > 1) len++;
    if (len > 0) u(len, 0);
    if (len + 1 > 32) {
      u(1, 1);
      u(len, static_cast<uint32_t>(x));
    } else {
      u(len + 1, static_cast<uint32_t>(x));
    }
  }
  void put(vlc c) { u(c.len, c.bits); }
  void se(int v) { ue(v > 0 ? static_cast<uint32_t>(2 * v - 1) : static_cast<uint32_t>(-2 * v)); }
  void align_zero() {
    if (bits_ > 0) u(8 - bits_, 0);
  }
  void trailing() {
    u(1, 1);
    align_zero();
  }
  void raw(const uint8_t* p, size_t n) { s_.append(reinterpret_cast<const char*>(p), n); }
  void fill(size_t n, uint8_t v) { s_.append(n, static_cast<char>(v)); }

 private:
  std::string& s_;
  uint64_t acc_ = 0;
  int bits_ = 0;
};

// Start code, header byte, then the RBSP with an emulation prevention byte (03) after
// every two zero bytes that precede a byte of 0 to 3.
void put_nal(std::string& out, unsigned char hdr, const std::string& rbsp);

// The luma DC block (Intra16x16DCLevel) of an I_16x16 macroblock whose four 8x8
// quarters clip to 255 (bit q of nibble set) or 0, whatever the prediction; nc is the
// block's nC (the neighbours' coefficient counts).
void dc_block(bitw& b, int nibble, int nc);

// A luma DC block without coefficients.
void dc_block_empty(bitw& b, int nc);

}  // namespace h264
}  // namespace sim

#endif
