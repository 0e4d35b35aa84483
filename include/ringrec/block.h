// The stored block: the unit of everything inside a minute entry's data. Frame blocks
// (as the capture side built them), the motion record, the event log record and the two
// key-frame index records all share this framing, so one reader walks them all:
//
//   off          size  field
//     0           288  head_t: word 0 sync 0x1234, word 1 magic = time ^ size,
//                      word 2 type, word 3 time, word 6 size (data bytes)
//   288          size  data: frames (frame_head_t + data, back to back) or a record
//   288 + size      4  tail sync 0xFFFFEDCB
//   292 + size      4  tail size, the same as word 6
//
// The next block starts 296 + size bytes after this one; the tail lets a reader step
// from a block's start to the block before it. Layout of a minute entry's data:
//
//   0        motion record   (type 4,  word 8 = 0x10,   15656 bytes, motion_rec_t)
//   15656    event log       (type 8,  word 8 = 0x100,   1448 bytes, log_rec_t)
//   17104    frame blocks    (the capture side's types), back to back
//   ...      HQ key frames   (type 10, word 8 = 0x4000, or 0x400 in the earlier layout)
//   size     LQ key frames   (type 9,  word 8 = 0x2000, or 0x200), ending at the size
#ifndef RINGREC_BLOCK_H
#define RINGREC_BLOCK_H

#include <ringrec/records.h>
#include <stdint.h>
#include <string.h>

class fs_db;

const uint32_t BLOCK_SYNC = 0x1234;
const uint32_t BLOCK_TAIL_SYNC = 0xFFFFEDCB;  // -4661 as a signed word
const int BLOCK_HEAD = 288;
const int BLOCK_TAIL = 8;
const int BLOCK_OVERHEAD = BLOCK_HEAD + BLOCK_TAIL;  // 296

// Record types (head word 2) of the blocks the library itself writes into a minute.
const uint32_t BLOCK_MOTION = 4;
const uint32_t BLOCK_LOG = 8;
const uint32_t BLOCK_INDEX_LQ = 9;
const uint32_t BLOCK_INDEX_HQ = 10;

// Kinds of a key-frame index as playback holds it (r_iframe_t::kind): the record's type
// plus 4 when it carries frame_info_t records rather than bare offsets.
const int IFRAME_OFFS_LQ = 9;    // type 9, word 8 0x200: 8-byte offsets
const int IFRAME_OFFS_HQ = 10;   // type 10, word 8 0x400
const int IFRAME_INFOS_LQ = 13;  // type 9, word 8 0x2000: frame_info_t records
const int IFRAME_INFOS_HQ = 14;  // type 10, word 8 0x4000
inline bool iframe_kind_offs(int kind) { return kind == IFRAME_OFFS_LQ || kind == IFRAME_OFFS_HQ; }
inline bool iframe_kind_infos(int kind) {
  return kind == IFRAME_INFOS_LQ || kind == IFRAME_INFOS_HQ;
}

// Their word-8 codes. An index record carries 16-byte frame_info_t entries under the
// first pair of codes and bare 8-byte offsets under the earlier pair.
const uint32_t BLOCK_CODE_MOTION = 0x10;
const uint32_t BLOCK_CODE_LOG = 0x100;
const uint32_t BLOCK_CODE_INDEX_HQ = 0x4000;
const uint32_t BLOCK_CODE_INDEX_LQ = 0x2000;
const uint32_t BLOCK_CODE_OFFS_HQ = 0x400;
const uint32_t BLOCK_CODE_OFFS_LQ = 0x200;

// Word 8 of a frame block: bit n set when a frame of type n is inside. A block holding
// a key frame (H.264 type 0 or H.265 type 11) enters the key-frame index.
const uint32_t BLOCK_KEY_BITS = 0x801;

// Word 5 of a frame block: which key-frame index a key block enters.
const uint32_t BLOCK_STREAM_MAIN = 2;  // main stream only (so is any value but 0, 1, 3)
const uint32_t BLOCK_STREAM_SUB = 3;   // substream only; 0 and 1 enter both

// Where the records lie in a minute entry's data.
const int MINUTE_MOTION_OFF = 0;
const int MINUTE_LOG_OFF = static_cast<int>(sizeof(motion_rec_t));                   // 15656
const int MINUTE_LOG_DATA_OFF = MINUTE_LOG_OFF + BLOCK_HEAD;                         // 15944
const int MINUTE_FRAMES_OFF = MINUTE_LOG_OFF + static_cast<int>(sizeof(log_rec_t));  // 17104

// Frame types (frame_head_t word 0).
const uint32_t FRAME_H264_KEY = 0;
const uint32_t FRAME_H264 = 1;
const uint32_t FRAME_AUDIO = 2;
const uint32_t FRAME_H265_KEY = 11;
const uint32_t FRAME_H265 = 12;
const uint32_t FRAME_INVALID = 23;  // this and above: the rest of the block is unusable
const int FRAME_HEAD = static_cast<int>(sizeof(frame_head_t));  // 44

inline bool frame_is_key(uint32_t type) { return type == FRAME_H264_KEY || type == FRAME_H265_KEY; }
inline bool frame_is_video(uint32_t type) {
  return type == FRAME_H264_KEY || type == FRAME_H264 || type == FRAME_H265_KEY ||
         type == FRAME_H265;
}

// Calls fn(f, data) for each frame of a frame block, in stored order: h is the block's
// head, data its `h.size` data bytes. fn returns false to drop the rest of the block.
// The frame count and every length come from the disk: a frame head or data that would
// run past the block's data ends the walk rather than reading beyond it. The head is
// copied out because frames lie at any byte offset.
template <typename Fn>
void block_frames(const head_t& h, const unsigned char* data, Fn fn) {
  const unsigned char* p = data;
  long long left = h.size;
  for (uint32_t i = 0; i < h.frames; i++) {
    if (left < FRAME_HEAD) return;
    frame_head_t f;
    memcpy(&f, p, sizeof f);
    left -= FRAME_HEAD;
    if (f.len > left) return;
    if (!fn(f, reinterpret_cast<const char*>(p + FRAME_HEAD))) return;
    p += FRAME_HEAD + f.len;
    left -= f.len;
  }
}

// A head is valid when its sync is right and its magic matches time and size.
inline bool block_head_valid(const head_t& h) {
  return h.sync == BLOCK_SYNC &&
         h.magic == (static_cast<uint32_t>(h.time) ^ static_cast<uint32_t>(h.size));
}

// The library's own records, which frame readers pass over.
inline bool block_is_record(uint32_t type) {
  return type == BLOCK_MOTION || type == BLOCK_LOG || type == BLOCK_INDEX_LQ ||
         type == BLOCK_INDEX_HQ;
}

// Seals a head for `size` data bytes: sync, size and magic (time must be set).
inline void block_seal(head_t& h, int32_t size) {
  h.sync = BLOCK_SYNC;
  h.size = size;
  h.magic = static_cast<uint32_t>(h.time) ^ static_cast<uint32_t>(size);
}

// The 8-byte tail that closes a block of `size` data bytes.
inline void block_tail(uint32_t tail[2], int32_t size) {
  tail[0] = BLOCK_TAIL_SYNC;
  tail[1] = static_cast<uint32_t>(size);
}

// Reads the block that ends at data offset `end` of entry e: its tail (whose size word
// says where the block starts) and its head. `size` receives the tail's size. Returns 0;
// -1 when the tail cannot be read; -2 when the tail's size would put the block's start
// before the data or the head cannot be read. Neither head nor tail is validated.
int block_read_ending_at(fs_db& db, entry_t& e, int end, head_t& h, int32_t& size);

#endif
