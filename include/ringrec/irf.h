// IRF backup files: the recorder's own backup format, written to USB by the backup
// writers and read back by the USB reader. All integers little-endian.
//
// File: a 4096-byte header prepared by the application (copied verbatim by the writer),
// then frame records back to back from offset 4096:
//   off  size  field
//     0     4  sync 0x034EF6E4 (bytes E4 F6 4E 03)
//     4    64  irf_frame_rec_t
//    68     n  the frame's data, n = len
// Header: bytes 0-5 "TOLVEX", byte 6 0, byte 7 version 0; the rest is the application's.
#ifndef RINGREC_IRF_H
#define RINGREC_IRF_H

#include <stddef.h>
#include <stdint.h>

const uint32_t IRF_FRAME_SYNC = 0x034EF6E4;
const int IRF_HEADER_SIZE = 4096;
const char IRF_MAGIC[] = "TOLVEX";
const int IRF_DATA_MAX = 102400;  // the reader's frame data buffer

// Record kinds (offset 36).
const uint32_t IRF_KIND_KEY = 1;
const uint32_t IRF_KIND_VIDEO = 2;
const uint32_t IRF_KIND_AUDIO = 3;

#pragma pack(push, 1)

// One frame record, 64 bytes; bytes not listed are 0.
//   off  size  field      video frame              audio frame
//     0    16  zero
//    16     4  len        frame_head_t word 10     word 10
//    20     8  zero
//    28     4  w2         word 2 (width)           0
//    32     4  w3         word 3 (height)          0
//    36     4  kind       1 key, 2 other           3
//    40     4  ch         word 1                   word 1
//    44     4  zero
//    48     4  link       file offset of the sync of the latest key frame written before
//                         this record, -1 when none (multi-slot files); 0 in the others
//    52     4  w5         word 5                   word 2 (audio format)
//    56     4  w6         word 6                   word 3 (sample rate)
//    60     4  w4         word 4 (frame rate)      0
struct irf_frame_rec_t {
  uint32_t zero0[4];
  uint32_t len;
  uint32_t zero1[2];
  uint32_t w2;
  uint32_t w3;
  uint32_t kind;
  uint32_t ch;
  uint32_t zero2;
  int32_t link;
  uint32_t w5;
  uint32_t w6;
  uint32_t w4;
};

#pragma pack(pop)

static_assert(sizeof(irf_frame_rec_t) == 64, "irf_frame_rec_t is 64 bytes");
static_assert(offsetof(irf_frame_rec_t, len) == 16, "irf_frame_rec_t.len");
static_assert(offsetof(irf_frame_rec_t, w2) == 28, "irf_frame_rec_t.w2");
static_assert(offsetof(irf_frame_rec_t, w3) == 32, "irf_frame_rec_t.w3");
static_assert(offsetof(irf_frame_rec_t, kind) == 36, "irf_frame_rec_t.kind");
static_assert(offsetof(irf_frame_rec_t, ch) == 40, "irf_frame_rec_t.ch");
static_assert(offsetof(irf_frame_rec_t, link) == 48, "irf_frame_rec_t.link");
static_assert(offsetof(irf_frame_rec_t, w5) == 52, "irf_frame_rec_t.w5");
static_assert(offsetof(irf_frame_rec_t, w6) == 56, "irf_frame_rec_t.w6");
static_assert(offsetof(irf_frame_rec_t, w4) == 60, "irf_frame_rec_t.w4");

#endif
