#include "kit/frame_code.h"

#include <stdio.h>

namespace kit {

namespace {

const int CODE_X = 16, CODE_Y = 16;  // top left of the code, in samples
const int CODE_COLS = 8, CODE_NIBBLES = 24;
const int CELL = 8;
const int DARK_BELOW = 64, LIGHT_ABOVE = 192;
const int MAGIC = 0xA;

// 1 light, 0 dark, -1 mixed or in between.
int cell(const uint8_t* gray, int w, int x0, int y0) {
  int light = 0, dark = 0;
  for (int y = y0; y < y0 + CELL; y++)
    for (int x = x0; x < x0 + CELL; x++) {
      uint8_t v = gray[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)];
      if (v > LIGHT_ABOVE)
        light++;
      else if (v < DARK_BELOW)
        dark++;
    }
  return light == CELL * CELL ? 1 : dark == CELL * CELL ? 0 : -1;
}

}  // namespace

frame_code read_frame_code(const uint8_t* gray, int w, int h) {
  frame_code c = {false, 0, 0, 0, 0};
  if (w < CODE_X + CODE_COLS * 16 || h < CODE_Y + (CODE_NIBBLES / CODE_COLS) * 16) return c;
  int nib[CODE_NIBBLES];
  for (int k = 0; k < CODE_NIBBLES; k++) {
    int x = CODE_X + (k % CODE_COLS) * 16, y = CODE_Y + (k / CODE_COLS) * 16;
    nib[k] = 0;
    for (int b = 0; b < 4; b++) {
      int v = cell(gray, w, x + (b & 1) * CELL, y + (b >> 1) * CELL);
      if (v < 0) return c;
      nib[k] |= v << b;
    }
  }
  int check = 0;
  for (int k = 0; k < CODE_NIBBLES; k++) check ^= nib[k];  // nibble 3 cancels itself
  if (nib[0] != MAGIC || check != 0) return c;
  c.valid = true;
  c.channel = nib[1] | (nib[2] & 3) << 4;
  c.stream = nib[2] >> 2;
  for (int k = 0; k < 8; k++) c.frame |= static_cast<uint32_t>(nib[4 + k]) << (4 * k);
  unsigned long long t = 0;
  for (int k = 0; k < 12; k++) t |= static_cast<unsigned long long>(nib[12 + k]) << (4 * k);
  c.ms = static_cast<long long>(t);
  return c;
}

std::vector<frame_code> read_frame_codes(FILE* in, int w, int h) {
  std::vector<frame_code> out;
  if (w <= 0 || h <= 0) return out;
  std::vector<uint8_t> pic(static_cast<size_t>(w) * static_cast<size_t>(h));
  while (fread(pic.data(), 1, pic.size(), in) == pic.size())
    out.push_back(read_frame_code(pic.data(), w, h));
  return out;
}

int decode_frame_codes(const std::string& path, int w, int h, std::vector<frame_code>& out,
                       std::string* err) {
  std::string cmd = "ffmpeg -nostdin -v error -i '" + path + "' -f rawvideo -pix_fmt gray -";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) {
    if (err) *err = "cannot run: " + cmd;
    return -1;
  }
  out = read_frame_codes(p, w, h);
  int st = pclose(p);
  if (st != 0) {
    if (err) *err = "ffmpeg failed on " + path;
    return -1;
  }
  return 0;
}

std::string frame_code_run(const std::vector<frame_code>& codes, int ch, int stream,
                           long long first_ms, int fps) {
  char msg[200];
  for (size_t k = 0; k < codes.size(); k++) {
    const frame_code& c = codes[k];
    long long want = first_ms + static_cast<long long>(k) * 1000 / fps;
    if (!c.valid)
      snprintf(msg, sizeof msg, "picture %zu: no readable frame code", k);
    else if (c.channel != ch || c.stream != stream)
      snprintf(msg, sizeof msg, "picture %zu: channel %d stream %d, expected %d and %d", k,
               c.channel, c.stream, ch, stream);
    else if (c.ms != want)
      snprintf(msg, sizeof msg, "picture %zu: captured at %lld ms, expected %lld", k, c.ms, want);
    else if (k > 0 && c.frame != codes[k - 1].frame + 1)
      snprintf(msg, sizeof msg, "picture %zu: frame %u after frame %u", k, c.frame,
               codes[k - 1].frame);
    else
      continue;
    return msg;
  }
  return std::string();
}

}  // namespace kit
