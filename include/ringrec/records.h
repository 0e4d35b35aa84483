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

#endif
