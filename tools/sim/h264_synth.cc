#include "sim/h264_synth.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "sim/h264_bits.h"

namespace sim {

namespace {

using h264::bitw;
using h264::put_nal;

// NAL unit headers: nal_ref_idc 3 for parameter sets and pictures (every picture is
// referenced by the next), 0 for filler.
const unsigned char NAL_SPS = 0x67;
const unsigned char NAL_PPS = 0x68;
const unsigned char NAL_IDR = 0x65;
const unsigned char NAL_P = 0x61;
const unsigned char NAL_FILLER = 0x0C;
const unsigned char NAL_SEI = 0x06;
const int SEI_USER_DATA_UNREGISTERED = 5;
// The UUID that opens this simulator's user data.
const uint8_t SEI_UUID[16] = {0x72, 0x69, 0x6E, 0x67, 0x72, 0x65, 0x63, 0x2D,
                              0x73, 0x69, 0x6D, 0x2D, 0x73, 0x65, 0x65, 0x64};

const int PROFILE_BASELINE = 66;
const int LOG2_MAX_FRAME_NUM = 16;
const int SLICE_P_ALL = 5;  // slice_type 5 / 7: every slice of the picture is P / I
const int SLICE_I_ALL = 7;
const int MB_I_PCM = 25;  // mb_type in an I slice; P slices number intra types from 5
const int MB_P_INTRA = 5;
const int MB_I16_VERT = 1;  // I_16x16_<pred>_0_0: prediction 0 vertical, 1 horizontal,
const int MB_I16_HORZ = 2;  // 2 DC; no chroma or AC residual
const int MB_I16_DC = 3;

// How an IDR codes each macroblock: background (three predictions), caption, frame code.
enum { MODE_DC, MODE_HORZ, MODE_VERT, MODE_PCM, MODE_CODE };
bool is_background(uint8_t m) { return m <= MODE_VERT; }

// Budget of one I_PCM macroblock: header, 384 samples, alignment.
const size_t PCM_MB_BYTES = 388;

// 5x7 glyphs, one byte a row, bit 4 leftmost.
struct glyph {
  char c;
  uint8_t rows[7];
};
const glyph FONT[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}},
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}},
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}},
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}},
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}},
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}},
    {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}},
    {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'#', {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}},
};
const int GLYPH_W = 6;  // 5 columns and a space
const int GLYPH_H = 7;

const uint8_t* glyph_rows(char c) {
  for (const glyph& g : FONT)
    if (g.c == c) return g.rows;
  return nullptr;  // blank
}

// Caption forms, longest first; the first that fits the picture's width is kept.
std::string caption(int form, int ch, int stream, uint32_t n, long long ms) {
  time_t secs = static_cast<time_t>(ms / 1000);
  struct tm t;
  gmtime_r(&secs, &t);
  const char* name = stream == SYNTH_STREAM_MAIN ? "MAIN" : "SUB";
  char buf[96];
  if (form == 0 && stream == SYNTH_STREAM_MAIN)
    snprintf(buf, sizeof buf, "CH%02d %s %04d-%02d-%02d %02d:%02d:%02d.%03d #%07u", ch, name,
             t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
             static_cast<int>(ms % 1000), n % 10000000u);
  else if (form <= 1)
    snprintf(buf, sizeof buf, "CH%02d %s %04d-%02d-%02d %02d:%02d:%02d.%03d", ch, name,
             t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
             static_cast<int>(ms % 1000));
  else if (form == 2)
    snprintf(buf, sizeof buf, "CH%02d %s %02d:%02d:%02d.%03d", ch, name, t.tm_hour, t.tm_min,
             t.tm_sec, static_cast<int>(ms % 1000));
  else
    snprintf(buf, sizeof buf, "CH%02d %c %02d:%02d:%02d", ch, name[0], t.tm_hour, t.tm_min,
             t.tm_sec);
  return buf;
}
const int CAPTION_FORMS = 4;

}  // namespace

int h264_synth::open(int width, int height, int fps, int channel, int stream, size_t key_bytes,
                     uint32_t seed) {
  if (width < 16 || height < 16 || width % 2 != 0 || height % 2 != 0 || width > 8192 ||
      height > 8192)
    return -1;
  w_ = width;
  h_ = height;
  mbw_ = (width + 15) / 16;
  mbh_ = (height + 15) / 16;
  fps_ = fps > 0 ? fps : 25;
  ch_ = channel;
  stream_ = stream;
  seed_ = seed;
  scale_ = width / 320;
  if (scale_ < 1) scale_ = 1;
  if (scale_ > 4) scale_ = 4;
  text_mb_rows_ = (GLYPH_H * scale_ + 2 + 15) / 16;
  bool code = mbw_ >= SYNTH_CODE_MB_X + SYNTH_CODE_COLS + 1 &&
              mbh_ >= SYNTH_CODE_MB_Y + SYNTH_CODE_ROWS + 1;
  bool text = mbw_ >= 3 && mbh_ >= SYNTH_TEXT_MB_Y + text_mb_rows_ + 1;
  text_form_ = CAPTION_FORMS - 1;
  // The longest caption that fits the width and, in I_PCM, the key frame's budget.
  int room = (mbw_ - 2) * 16;
  bool fits = false;
  for (int f = 0; f < CAPTION_FORMS && !fits; f++) {
    int px = static_cast<int>(caption(f, ch_, stream_, 0, 0).size()) * GLYPH_W * scale_;
    size_t cost = static_cast<size_t>((px + 15) / 16 * text_mb_rows_) * PCM_MB_BYTES +
                  static_cast<size_t>(mbw_ * mbh_) + 16 * SYNTH_CODE_NIBBLES;
    if (px <= room && (key_bytes == 0 || cost <= key_bytes)) {
      text_form_ = f;
      fits = true;
    }
  }
  if (!fits) text = false;
  text_cols_ = 0;
  if (text) {
    int px = static_cast<int>(caption(text_form_, ch_, stream_, 0, 0).size()) * GLYPH_W * scale_;
    text_cols_ = (px + 15) / 16;
    if (text_cols_ > mbw_ - 2) text_cols_ = mbw_ - 2;
  }
  rows_ = text ? SYNTH_TEXT_MB_Y + text_mb_rows_ : code ? SYNTH_CODE_MB_Y + SYNTH_CODE_ROWS : 0;
  luma_.assign(static_cast<size_t>(mbw_) * 16 * static_cast<size_t>(rows_) * 16, SYNTH_LEVEL_BG);
  dirty_.assign(static_cast<size_t>(mbw_) * static_cast<size_t>(rows_), 0);

  // Which MBs are drawn (I_PCM); every other one is background, predicted from a
  // background neighbour so that it decodes to exactly SYNTH_LEVEL_BG.
  std::vector<uint8_t> drawn(static_cast<size_t>(mbw_) * static_cast<size_t>(mbh_), 0);
  if (code)
    for (int y = 0; y < SYNTH_CODE_ROWS; y++)
      for (int x = 0; x < SYNTH_CODE_COLS; x++)
        drawn[static_cast<size_t>((SYNTH_CODE_MB_Y + y) * mbw_ + SYNTH_CODE_MB_X + x)] = 2;
  for (int y = 0; y < (text ? text_mb_rows_ : 0); y++)
    for (int x = 0; x < text_cols_; x++)
      drawn[static_cast<size_t>((SYNTH_TEXT_MB_Y + y) * mbw_ + 1 + x)] = 1;
  mode_.assign(drawn.size(), MODE_PCM);
  for (int y = 0; y < mbh_; y++) {
    for (int x = 0; x < mbw_; x++) {
      size_t i = static_cast<size_t>(y * mbw_ + x);
      if (drawn[i]) {
        mode_[i] = drawn[i] == 2 ? MODE_CODE : MODE_PCM;
        continue;
      }
      bool left = x > 0 && is_background(mode_[i - 1]);
      bool top = y > 0 && is_background(mode_[i - static_cast<size_t>(mbw_)]);
      if (x == 0 && y == 0)
        mode_[i] = MODE_DC;
      else if (left)
        mode_[i] = MODE_HORZ;
      else if (top)
        mode_[i] = MODE_VERT;
      // else: drawn neighbours only; stays I_PCM of the background level
    }
  }
  // The strip under the caption is dark; the glyphs are drawn on it.
  for (int y = 0; y < (text ? text_mb_rows_ * 16 : 0); y++)
    memset(&luma_[static_cast<size_t>((SYNTH_TEXT_MB_Y * 16 + y) * mbw_ * 16 + 16)],
           SYNTH_LEVEL_DARK, static_cast<size_t>(text_cols_) * 16);
  memset(code_, 0xFF, sizeof code_);  // never a nibble: the first frame draws all
  text_.clear();
  frame_num_ = 0;
  idr_id_ = 0;
  return 0;
}

void h264_synth::draw_code(uint32_t n, long long ms, bool all) {
  if (mbw_ < SYNTH_CODE_MB_X + SYNTH_CODE_COLS + 1 || rows_ < SYNTH_CODE_MB_Y + SYNTH_CODE_ROWS)
    return;
  uint8_t nib[SYNTH_CODE_NIBBLES];
  unsigned long long t = static_cast<unsigned long long>(ms);
  nib[0] = SYNTH_CODE_MAGIC;
  nib[1] = static_cast<uint8_t>(ch_ & 0xF);
  nib[2] = static_cast<uint8_t>(((ch_ >> 4) & 3) | (stream_ & 3) << 2);
  for (int k = 0; k < 8; k++) nib[4 + k] = static_cast<uint8_t>((n >> (4 * k)) & 0xF);
  for (int k = 0; k < 12; k++) nib[12 + k] = static_cast<uint8_t>((t >> (4 * k)) & 0xF);
  uint8_t check = 0;
  for (int k = 0; k < SYNTH_CODE_NIBBLES; k++)
    if (k != 3) check ^= nib[k];
  nib[3] = check;
  for (int k = 0; k < SYNTH_CODE_NIBBLES; k++) {
    if (!all && nib[k] == code_[k]) continue;
    code_[k] = nib[k];
    int mx = SYNTH_CODE_MB_X + k % SYNTH_CODE_COLS, my = SYNTH_CODE_MB_Y + k / SYNTH_CODE_COLS;
    dirty_[static_cast<size_t>(my * mbw_ + mx)] = 1;
  }
}

void h264_synth::draw_text(const std::string& s, bool all) {
  if (text_cols_ == 0) return;
  size_t stride = static_cast<size_t>(mbw_) * 16;
  int cw = GLYPH_W * scale_;
  int limit = (text_cols_ * 16) / cw;  // whole glyphs that fit the strip
  int y0 = SYNTH_TEXT_MB_Y * 16 + (text_mb_rows_ * 16 - GLYPH_H * scale_) / 2;
  size_t len = s.size() > text_.size() ? s.size() : text_.size();
  for (size_t i = 0; i < len && static_cast<int>(i) < limit; i++) {
    char c = i < s.size() ? s[i] : ' ';
    char was = i < text_.size() ? text_[i] : ' ';
    if (!all && c == was) continue;
    int x0 = 16 + static_cast<int>(i) * cw;
    const uint8_t* rows = glyph_rows(c);
    for (int gy = 0; gy < GLYPH_H * scale_; gy++) {
      uint8_t* line = &luma_[static_cast<size_t>(y0 + gy) * stride + static_cast<size_t>(x0)];
      uint8_t bits = rows ? rows[gy / scale_] : 0;
      for (int gx = 0; gx < cw; gx++) {
        int col = gx / scale_;
        line[gx] = col < 5 && (bits >> (4 - col)) & 1 ? SYNTH_LEVEL_LIGHT : SYNTH_LEVEL_DARK;
      }
    }
    for (int mx = x0 / 16; mx <= (x0 + cw - 1) / 16; mx++)
      for (int my = 0; my < text_mb_rows_; my++)
        dirty_[static_cast<size_t>((SYNTH_TEXT_MB_Y + my) * mbw_ + mx)] = 1;
  }
  text_ = s;
}

void h264_synth::sps(std::string& out) {
  rbsp_.clear();
  bitw b(rbsp_);
  int mbs = mbw_ * mbh_;
  int level = mbs <= 396 ? 21 : mbs <= 1620 ? 30 : mbs <= 5120 ? 32 : mbs <= 8192 ? 40 : 51;
  b.u(8, PROFILE_BASELINE);
  b.u(8, 0xC0);  // constraint_set0 and 1: constrained baseline
  b.u(8, static_cast<uint32_t>(level));
  b.ue(0);                       // seq_parameter_set_id
  b.ue(LOG2_MAX_FRAME_NUM - 4);  // log2_max_frame_num_minus4
  b.ue(2);                       // pic_order_cnt_type: output order is decoding order
  b.ue(1);                       // max_num_ref_frames
  b.u(1, 0);                     // gaps_in_frame_num_value_allowed_flag
  b.ue(static_cast<uint32_t>(mbw_ - 1));
  b.ue(static_cast<uint32_t>(mbh_ - 1));
  b.u(1, 1);                                                         // frame_mbs_only_flag
  b.u(1, 1);                                                         // direct_8x8_inference_flag
  int crop_r = (mbw_ * 16 - w_) / 2, crop_b = (mbh_ * 16 - h_) / 2;  // in 2-sample units
  b.u(1, crop_r || crop_b ? 1 : 0);
  if (crop_r || crop_b) {
    b.ue(0);
    b.ue(static_cast<uint32_t>(crop_r));
    b.ue(0);
    b.ue(static_cast<uint32_t>(crop_b));
  }
  b.u(1, 1);  // vui_parameters_present_flag
  b.u(1, 0);  // aspect_ratio_info_present_flag
  b.u(1, 0);  // overscan_info_present_flag
  b.u(1, 0);  // video_signal_type_present_flag
  b.u(1, 0);  // chroma_loc_info_present_flag
  b.u(1, 1);  // timing_info_present_flag: a field tick, two per frame
  b.u(32, 1);
  b.u(32, static_cast<uint32_t>(2 * fps_));
  b.u(1, 1);  // fixed_frame_rate_flag
  b.u(1, 0);  // nal_hrd_parameters_present_flag
  b.u(1, 0);  // vcl_hrd_parameters_present_flag
  b.u(1, 0);  // pic_struct_present_flag
  b.u(1, 1);  // bitstream_restriction_flag: no reordering, one frame buffered
  b.u(1, 1);  // motion_vectors_over_pic_boundaries_flag
  b.ue(0);    // max_bytes_per_pic_denom
  b.ue(0);    // max_bits_per_mb_denom
  b.ue(16);   // log2_max_mv_length_horizontal
  b.ue(16);   // log2_max_mv_length_vertical
  b.ue(0);    // max_num_reorder_frames
  b.ue(1);    // max_dec_frame_buffering
  b.trailing();
  put_nal(out, NAL_SPS, rbsp_);
}

void h264_synth::pps(std::string& out) {
  rbsp_.clear();
  bitw b(rbsp_);
  b.ue(0);    // pic_parameter_set_id
  b.ue(0);    // seq_parameter_set_id
  b.u(1, 0);  // entropy_coding_mode_flag: CAVLC
  b.u(1, 0);  // bottom_field_pic_order_in_frame_present_flag
  b.ue(0);    // num_slice_groups_minus1
  b.ue(0);    // num_ref_idx_l0_default_active_minus1
  b.ue(0);    // num_ref_idx_l1_default_active_minus1
  b.u(1, 0);  // weighted_pred_flag
  b.u(2, 0);  // weighted_bipred_idc
  b.se(0);    // pic_init_qp_minus26
  b.se(0);    // pic_init_qs_minus26
  b.se(0);    // chroma_qp_index_offset
  b.u(1, 1);  // deblocking_filter_control_present_flag
  b.u(1, 0);  // constrained_intra_pred_flag
  b.u(1, 0);  // redundant_pic_cnt_present_flag
  b.trailing();
  put_nal(out, NAL_PPS, rbsp_);
}

void h264_synth::slice(std::string& out, bool key) {
  rbsp_.clear();
  bitw b(rbsp_);
  b.ue(0);  // first_mb_in_slice
  b.ue(key ? SLICE_I_ALL : SLICE_P_ALL);
  b.ue(0);  // pic_parameter_set_id
  b.u(LOG2_MAX_FRAME_NUM, frame_num_);
  if (key) b.ue(idr_id_ & 1);  // idr_pic_id: differs between neighbouring IDRs
  if (!key) {
    b.u(1, 0);  // num_ref_idx_active_override_flag
    b.u(1, 0);  // ref_pic_list_modification_flag_l0
  }
  if (key) {
    b.u(1, 0);  // no_output_of_prior_pics_flag
    b.u(1, 0);  // long_term_reference_flag
  } else {
    b.u(1, 0);  // adaptive_ref_pic_marking_mode_flag: sliding window
  }
  b.se(0);  // slice_qp_delta
  b.ue(1);  // disable_deblocking_filter_idc: off, samples stay exact

  size_t stride = static_cast<size_t>(mbw_) * 16;
  uint8_t flat[256];
  memset(flat, SYNTH_LEVEL_BG, sizeof flat);
  auto pcm = [&](int x, int y) {
    b.align_zero();
    if (y < rows_) {
      const uint8_t* p = &luma_[static_cast<size_t>(y) * 16 * stride + static_cast<size_t>(x) * 16];
      for (int r = 0; r < 16; r++) b.raw(p + static_cast<size_t>(r) * stride, 16);
    } else {
      b.raw(flat, 256);
    }
    b.fill(128, 128);  // Cb and Cr, 8x8 each: grey
  };
  // nC of a macroblock's luma DC block: the mean of the left and upper neighbours'
  // coefficient counts, 16 for I_PCM and 0 for everything else here (no AC residual,
  // or skipped).
  auto nc = [&](int x, int y, bool skipped_above, bool skipped_left) {
    size_t i = static_cast<size_t>(y * mbw_ + x);
    int na = x > 0 ? (!skipped_left && mode_[i - 1] == MODE_PCM ? 16 : 0) : -1;
    int nb =
        y > 0 ? (!skipped_above && mode_[i - static_cast<size_t>(mbw_)] == MODE_PCM ? 16 : 0) : -1;
    return na >= 0 && nb >= 0 ? (na + nb + 1) >> 1 : na >= 0 ? na : nb >= 0 ? nb : 0;
  };
  auto code_mb = [&](int x, int y, int nc_value) {
    b.ue(MB_I16_DC + (key ? 0 : MB_P_INTRA));
    b.ue(0);  // intra_chroma_pred_mode: DC (every neighbour's chroma is 128)
    b.se(0);  // mb_qp_delta
    int k = (y - SYNTH_CODE_MB_Y) * SYNTH_CODE_COLS + (x - SYNTH_CODE_MB_X);
    h264::dc_block(b, code_[k], nc_value);
  };
  if (key) {
    for (int y = 0; y < mbh_; y++) {
      for (int x = 0; x < mbw_; x++) {
        uint8_t m = mode_[static_cast<size_t>(y * mbw_ + x)];
        if (m == MODE_PCM) {
          b.ue(MB_I_PCM);
          pcm(x, y);
        } else if (m == MODE_CODE) {
          code_mb(x, y, nc(x, y, false, false));
        } else {
          b.ue(m == MODE_DC ? MB_I16_DC : m == MODE_HORZ ? MB_I16_HORZ : MB_I16_VERT);
          b.ue(0);  // intra_chroma_pred_mode: DC
          b.se(0);  // mb_qp_delta
          h264::dc_block_empty(b, nc(x, y, false, false));
        }
      }
    }
  } else {
    uint32_t run = 0;
    for (int y = 0; y < mbh_; y++) {
      for (int x = 0; x < mbw_; x++) {
        size_t i = static_cast<size_t>(y * mbw_ + x);
        if (y >= rows_ || !dirty_[i]) {
          run++;
          continue;
        }
        b.ue(run);  // mb_skip_run
        run = 0;
        if (mode_[i] == MODE_CODE) {
          bool above = y > 0 && (y - 1 >= rows_ || !dirty_[i - static_cast<size_t>(mbw_)]);
          bool left = x > 0 && !dirty_[i - 1];
          code_mb(x, y, nc(x, y, above, left));
        } else {
          b.ue(MB_P_INTRA + MB_I_PCM);
          pcm(x, y);
        }
      }
    }
    if (run > 0) b.ue(run);
  }
  b.trailing();
  put_nal(out, key ? NAL_IDR : NAL_P, rbsp_);
}

void h264_synth::sei(std::string& out) {
  rbsp_.clear();
  bitw b(rbsp_);
  b.u(8, SEI_USER_DATA_UNREGISTERED);
  b.u(8, sizeof SEI_UUID + 4);  // payloadSize
  b.raw(SEI_UUID, sizeof SEI_UUID);
  b.u(32, seed_);
  b.trailing();
  put_nal(out, NAL_SEI, rbsp_);
}

void h264_synth::frame(std::string& out, uint32_t n, bool key, long long ms, size_t bytes) {
  size_t start = out.size();
  if (key) {
    frame_num_ = 0;
    sps(out);
    pps(out);
  }
  sei(out);
  draw_code(n, ms, key);
  draw_text(caption(text_form_, ch_, stream_, n, ms), key);
  slice(out, key);
  if (!dirty_.empty()) memset(dirty_.data(), 0, dirty_.size());
  if (key) idr_id_++;
  frame_num_ = (frame_num_ + 1) & ((1u << LOG2_MAX_FRAME_NUM) - 1);
  // Filler: start code, header, 0xFF bytes, the stop bit byte.
  size_t have = out.size() - start;
  if (bytes >= have + 6) {
    out.append("\0\0\0\1", 4);
    out.push_back(static_cast<char>(NAL_FILLER));
    out.append(bytes - have - 6, static_cast<char>(0xFF));
    out.push_back(static_cast<char>(0x80));
  }
}

}  // namespace sim
