// The OEM frame format: one file per recorded minute, every frame a 24-byte record
// header followed by its data. All integers little-endian; fields at odd offsets are
// unaligned.
//   off  size  field
//     0     4  magic 0x00006868 (bytes 68 68 00 00)
//     4     4  len      data length + 24
//     8     1  0
//     9     4  time     head_t word 3 + word 4 of the block holding the frame
//    13     4  prev     len of the previous record in this file, 0 for the first
//    17     1  ch       frame_head_t word 1
//    18     2  0
//    20     1  vtype    1 key frame (types 0, 11), 3 other video (1, 12), 0 audio
//    21     1  0
//    22     1  audio    1 for audio (type 2), 0 for video
//    23     1  0
//    24     n  data (frame_head_t word 10 bytes)
#ifndef RINGREC_OEM_H
#define RINGREC_OEM_H

#include <stddef.h>
#include <stdint.h>

const uint32_t OEM_MAGIC = 0x00006868;
const int OEM_HEAD_SIZE = 24;
// vtype: key frame (types 0, 11) and any other video frame (1, 12); audio has 0.
const uint8_t OEM_VTYPE_KEY = 1;
const uint8_t OEM_VTYPE_OTHER = 3;

#pragma pack(push, 1)
struct oem_frame_head_t {
  uint32_t magic;
  uint32_t len;
  uint8_t zero0;
  int32_t time;
  uint32_t prev;
  uint8_t ch;
  uint8_t zero1[2];
  uint8_t vtype;
  uint8_t zero2;
  uint8_t audio;
  uint8_t zero3;
};
#pragma pack(pop)

static_assert(sizeof(oem_frame_head_t) == 24, "oem_frame_head_t is 24 bytes");
static_assert(offsetof(oem_frame_head_t, len) == 4, "oem_frame_head_t.len");
static_assert(offsetof(oem_frame_head_t, zero0) == 8, "oem_frame_head_t.zero0");
static_assert(offsetof(oem_frame_head_t, time) == 9, "oem_frame_head_t.time");
static_assert(offsetof(oem_frame_head_t, prev) == 13, "oem_frame_head_t.prev");
static_assert(offsetof(oem_frame_head_t, ch) == 17, "oem_frame_head_t.ch");
static_assert(offsetof(oem_frame_head_t, vtype) == 20, "oem_frame_head_t.vtype");
static_assert(offsetof(oem_frame_head_t, audio) == 22, "oem_frame_head_t.audio");

#endif
