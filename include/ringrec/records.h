// On-disk records of a volume. All integers are little-endian; every record is an
// exact byte image (packed, no padding), pinned below by static_assert.
#ifndef RINGREC_RECORDS_H
#define RINGREC_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#pragma pack(push, 1)

// Superblock, 36 bytes, at offset 0 and again after the data area.
//   off size field
//     0    2 key       (ctime & 0xFFFF) ^ (ctime >> 16)
//     2    2 checksum  XOR of all 18 words is 0
//     4    4 ctime     format time; the volume's identity
//     8    4 flag      0 recyclable, 1 write-once, 2 read-only; >2 invalid
//    12    8 size      data area bytes, multiple of 4 MiB; 0 invalid
//    20    8 head      oldest allocated byte of the ring
//    28    8 tail      next allocation
struct sb_t {
  uint16_t key;
  uint16_t checksum;
  uint32_t ctime;
  uint32_t flag;
  int64_t size;
  int64_t head;
  int64_t tail;
};

// Table header, 16 bytes: the root one at 0x400000, each child table at the start of
// its type-0 entry's region.
//   off size field
//     0    2 key       volume key
//     2    2 checksum  XOR of the 8 words equals the volume key
//     4    8 offset    where this header itself lies
//    12    4 num       entries 0..num-1 follow, 324 bytes each
struct entryX_t {
  uint16_t key;
  uint16_t checksum;
  int64_t offset;
  int32_t num;
};

// Entry, 324 bytes; entry i of the table at X lies at X + 16 + 324 * i.
//   off size field
//     0    2 checksum  XOR of the 162 words equals the volume key
//     2    2 reserved
//     4    8 xoffset   header of the table holding this entry
//    12    4 idx       position in that table
//    16   32 name      NUL-terminated
//    48    2 type      0: the region starts with a child table
//    50    2 reserved
//    52    8 offset    region in the data area
//    60    4 max       bytes allocated, multiple of 4 MiB
//    64    4 size      bytes written (highest end of any write)
//    68    4 time      seconds, set by the recording service
//    72  252 payload   the recording service's summaries
struct entry_t {
  uint16_t checksum;
  uint16_t reserved0;
  int64_t xoffset;
  int32_t idx;
  char name[32];
  uint16_t type;
  uint16_t reserved1;
  int64_t offset;
  int32_t max;
  int32_t size;
  int32_t time;
  unsigned char payload[252];
};

#pragma pack(pop)

static_assert(sizeof(sb_t) == 36, "sb_t is 36 bytes");
static_assert(offsetof(sb_t, key) == 0, "sb_t.key");
static_assert(offsetof(sb_t, checksum) == 2, "sb_t.checksum");
static_assert(offsetof(sb_t, ctime) == 4, "sb_t.ctime");
static_assert(offsetof(sb_t, flag) == 8, "sb_t.flag");
static_assert(offsetof(sb_t, size) == 12, "sb_t.size");
static_assert(offsetof(sb_t, head) == 20, "sb_t.head");
static_assert(offsetof(sb_t, tail) == 28, "sb_t.tail");

static_assert(sizeof(entryX_t) == 16, "entryX_t is 16 bytes");
static_assert(offsetof(entryX_t, key) == 0, "entryX_t.key");
static_assert(offsetof(entryX_t, checksum) == 2, "entryX_t.checksum");
static_assert(offsetof(entryX_t, offset) == 4, "entryX_t.offset");
static_assert(offsetof(entryX_t, num) == 12, "entryX_t.num");

static_assert(sizeof(entry_t) == 324, "entry_t is 324 bytes");
static_assert(offsetof(entry_t, checksum) == 0, "entry_t.checksum");
static_assert(offsetof(entry_t, reserved0) == 2, "entry_t.reserved0");
static_assert(offsetof(entry_t, xoffset) == 4, "entry_t.xoffset");
static_assert(offsetof(entry_t, idx) == 12, "entry_t.idx");
static_assert(offsetof(entry_t, name) == 16, "entry_t.name");
static_assert(offsetof(entry_t, type) == 48, "entry_t.type");
static_assert(offsetof(entry_t, reserved1) == 50, "entry_t.reserved1");
static_assert(offsetof(entry_t, offset) == 52, "entry_t.offset");
static_assert(offsetof(entry_t, max) == 60, "entry_t.max");
static_assert(offsetof(entry_t, size) == 64, "entry_t.size");
static_assert(offsetof(entry_t, time) == 68, "entry_t.time");
static_assert(offsetof(entry_t, payload) == 72, "entry_t.payload");

#pragma pack(push, 1)

// Header of every stored block in a minute entry's data, 288 bytes (72 words). The
// block's data follows, then an 8-byte tail {0xFFFFEDCB, size}, so the next block
// starts 296 + size bytes later and a reader can also walk backwards.
//   off word field
//     0    0 sync      0x1234
//     4    1 magic     time ^ size
//     8    2 type      frame blocks: the capture side's type; 4 motion record,
//                      8 event log, 9 LQ key-frame index, 10 HQ key-frame index
//    12    3 time      seconds
//    16    4 time2     a second time word of the capture side
//    20    5 stream    0/1 both streams, 2 main (HQ), 3 substream (LQ)
//    24    6 size      data bytes after the header
//    28    7 frames    frames in the block (words per channel row in a motion record)
//    32    8 types     bit n: a frame of type n is inside; 0x001|0x800 key frames;
//                      index records 0x4000 (HQ) / 0x2000 (LQ)
//    36    9 w9        capture side
//    40   10 events    event bits (motion record: channels that saw motion)
//    44   11 w11       capture side
//    48   12 w12       capture side
//    52   13 count[59] frames of channel ch in the block, words 13..71
struct head_t {
  uint32_t sync;
  uint32_t magic;
  uint32_t type;
  int32_t time;
  uint32_t time2;
  uint32_t stream;
  int32_t size;
  uint32_t frames;
  uint32_t types;
  uint32_t w9;
  uint32_t events;
  uint32_t w11;
  uint32_t w12;
  int32_t count[59];
};

// Header of one frame inside a frame block, 44 bytes (11 words); the frame's data
// follows and the next frame starts 44 + len bytes later.
//   off word field
//     0    0 type      0 H.264 key, 1 H.264 other, 11 H.265 key, 12 H.265 other,
//                      2 audio; 23 and above invalid
//     4    1 ch        channel
//     8    2 width     video; audio: format (2 = linear PCM, else ADPCM)
//    12    3 height    video; audio: sample rate
//    16    4 fps       video frame rate
//    20    5 w5        capture side
//    24    6 w6        capture side
//    28    7 stream    0/1 either stream, 2 main (HQ), 3 substream (LQ)
//    32    8 w8        capture side
//    36    9 size      data length as handed to exporters
//    40   10 len       data length in bytes
struct frame_head_t {
  uint32_t type;
  uint32_t ch;
  uint32_t width;
  uint32_t height;
  uint32_t fps;
  uint32_t w5;
  uint32_t w6;
  uint32_t stream;
  uint32_t w8;
  uint32_t size;
  uint32_t len;
};

// One key-frame record, 16 bytes; the unit of the key-frame index records.
//   off size field
//     0    8 offset    the block's head in the minute entry's data
//     8    4 events    the block's event bits (head word 10)
//    12    4 time      the block's time (head word 3)
struct frame_info_t {
  int64_t offset;
  uint32_t events;
  int32_t time;
};

// One row of a minute's event log, 96 bytes (24 words): one 5-second slot. Bit n of a
// mask is channel n.
//   off size field
//     0    4 Record    OR of head word 10 of the blocks written in the slot
//     4    4 Vloss     video loss
//     8    4 Motion
//    12    4 Sensor    alarm inputs
//    16   16 mask[4]   four further masks reported by the recorder
//    32   64 zero[16]
struct event_t {
  uint32_t Record;
  uint32_t Vloss;
  uint32_t Motion;
  uint32_t Sensor;
  uint32_t mask[4];
  uint32_t zero[16];
};

#pragma pack(pop)

static_assert(sizeof(head_t) == 288, "head_t is 288 bytes");
static_assert(offsetof(head_t, sync) == 0, "head_t.sync");
static_assert(offsetof(head_t, magic) == 4, "head_t.magic");
static_assert(offsetof(head_t, type) == 8, "head_t.type");
static_assert(offsetof(head_t, time) == 12, "head_t.time");
static_assert(offsetof(head_t, time2) == 16, "head_t.time2");
static_assert(offsetof(head_t, stream) == 20, "head_t.stream");
static_assert(offsetof(head_t, size) == 24, "head_t.size");
static_assert(offsetof(head_t, frames) == 28, "head_t.frames");
static_assert(offsetof(head_t, types) == 32, "head_t.types");
static_assert(offsetof(head_t, w9) == 36, "head_t.w9");
static_assert(offsetof(head_t, events) == 40, "head_t.events");
static_assert(offsetof(head_t, w11) == 44, "head_t.w11");
static_assert(offsetof(head_t, w12) == 48, "head_t.w12");
static_assert(offsetof(head_t, count) == 52, "head_t.count");

static_assert(sizeof(frame_head_t) == 44, "frame_head_t is 44 bytes");
static_assert(offsetof(frame_head_t, type) == 0, "frame_head_t.type");
static_assert(offsetof(frame_head_t, ch) == 4, "frame_head_t.ch");
static_assert(offsetof(frame_head_t, width) == 8, "frame_head_t.width");
static_assert(offsetof(frame_head_t, height) == 12, "frame_head_t.height");
static_assert(offsetof(frame_head_t, fps) == 16, "frame_head_t.fps");
static_assert(offsetof(frame_head_t, w5) == 20, "frame_head_t.w5");
static_assert(offsetof(frame_head_t, w6) == 24, "frame_head_t.w6");
static_assert(offsetof(frame_head_t, stream) == 28, "frame_head_t.stream");
static_assert(offsetof(frame_head_t, w8) == 32, "frame_head_t.w8");
static_assert(offsetof(frame_head_t, size) == 36, "frame_head_t.size");
static_assert(offsetof(frame_head_t, len) == 40, "frame_head_t.len");

static_assert(sizeof(frame_info_t) == 16, "frame_info_t is 16 bytes");
static_assert(offsetof(frame_info_t, offset) == 0, "frame_info_t.offset");
static_assert(offsetof(frame_info_t, events) == 8, "frame_info_t.events");
static_assert(offsetof(frame_info_t, time) == 12, "frame_info_t.time");

static_assert(sizeof(event_t) == 96, "event_t is 96 bytes");
static_assert(offsetof(event_t, Record) == 0, "event_t.Record");
static_assert(offsetof(event_t, Vloss) == 4, "event_t.Vloss");
static_assert(offsetof(event_t, Motion) == 8, "event_t.Motion");
static_assert(offsetof(event_t, Sensor) == 12, "event_t.Sensor");
static_assert(offsetof(event_t, mask) == 16, "event_t.mask");
static_assert(offsetof(event_t, zero) == 32, "event_t.zero");

#pragma pack(push, 1)

// Motion record of one minute, 15656 bytes, a stored block at data offset 0 of the
// minute entry (see block.h).
//   off    size  field
//     0     288  head   type 4, size 15360, word 7 = 20 (W, grid words per channel),
//                       word 8 = 0x10, word 10 = channels that reported motion
//   288   15360  grid   6 snapshots of 10 s x 32 channels x 20 mask words; channel n of
//                       snapshot s at 288 + s*W*128 + n*W*4
// 15648       8  tail   0xFFFFEDCB, 15360
struct motion_rec_t {
  head_t head;
  uint32_t grid[6][32][20];
  uint32_t tail[2];
};

// Event log record of one minute, 1448 bytes, a stored block at data offset 15656.
//   off  size  field
//     0   288  head   type 8, size 1152, word 7 = 6, word 8 = 0x100
//   288  1152  rows   12 slots of 5 s, one event_t each
//  1440     8  tail   0xFFFFEDCB, 1152
struct log_rec_t {
  head_t head;
  event_t rows[12];
  uint32_t tail[2];
};

// Hour record, 16 bytes: an hour entry from its time field on (entry offset 68).
//   off size field
//     0    4 time      first block of the hour entry
//     4    8 mask      bit m: minute m of the hour holds recording
//    12    4 events    OR of the event bits of its minutes
struct hour_rec_t {
  int32_t time;
  uint64_t mask;
  uint32_t events;
};

// Minute record, 144 bytes: a minute entry from its time field on (entry offset 68).
//   off size field
//     0    4 time      first block of the minute
//     4    8 mask      bit s: second s of the minute holds a block
//    12    4 events    OR of word 10 of its blocks
//    16  128 count[32] frames per channel (sum of head word 13 + ch)
struct min_rec_t {
  int32_t time;
  uint64_t mask;
  uint32_t events;
  int32_t count[32];
};

#pragma pack(pop)

static_assert(sizeof(motion_rec_t) == 15656, "motion record is 15656 bytes");
static_assert(offsetof(motion_rec_t, head) == 0, "motion_rec_t.head");
static_assert(offsetof(motion_rec_t, grid) == 288, "motion_rec_t.grid");
static_assert(offsetof(motion_rec_t, tail) == 15648, "motion_rec_t.tail");
static_assert(sizeof(log_rec_t) == 1448, "event log record is 1448 bytes");
static_assert(offsetof(log_rec_t, head) == 0, "log_rec_t.head");
static_assert(offsetof(log_rec_t, rows) == 288, "log_rec_t.rows");
static_assert(offsetof(log_rec_t, tail) == 1440, "log_rec_t.tail");

static_assert(sizeof(hour_rec_t) == 16, "hour record is 16 bytes");
static_assert(offsetof(hour_rec_t, time) == 0, "hour_rec_t.time");
static_assert(offsetof(hour_rec_t, mask) == 4, "hour_rec_t.mask");
static_assert(offsetof(hour_rec_t, events) == 12, "hour_rec_t.events");
static_assert(sizeof(min_rec_t) == 144, "minute record is 144 bytes");
static_assert(offsetof(min_rec_t, time) == 0, "min_rec_t.time");
static_assert(offsetof(min_rec_t, mask) == 4, "min_rec_t.mask");
static_assert(offsetof(min_rec_t, events) == 12, "min_rec_t.events");
static_assert(offsetof(min_rec_t, count) == 16, "min_rec_t.count");
static_assert(sizeof(entry_t) - offsetof(entry_t, time) >= sizeof(min_rec_t),
              "a minute record fits in an entry from its time field on");

#endif
