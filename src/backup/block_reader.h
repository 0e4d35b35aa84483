// The reader the backup writers walk a selected hour with: a minute entry of the hour,
// the offset of its next stored block, and the frames of one channel handed on in stored
// order. Internal to the library.
#ifndef RINGREC_BACKUP_BLOCK_READER_H
#define RINGREC_BACKUP_BLOCK_READER_H

#include <ringrec/fs_app.h>
#include <stdint.h>

#include "backup/backup.h"
#include "playback/table_walk.h"
#include "runtime/runtime.h"

// One frame as the frame loop hands it on.
struct bk_frame {
  frame_head_t f;    // aligned copy of its head
  const char* data;  // its bytes inside the block as read
  uint32_t len;      // head word 9, bounded by the block
  int block_time;    // head word 3 + word 4 of its block
};

// The frame f whose bytes start at data inside the block h, whose data ends at end.
// Word 9 is the length handed to the muxer; it cannot be more than the bytes that
// follow the frame's head inside the block.
inline bk_frame bk_frame_in(const head_t& h, const frame_head_t& f, const char* data,
                            const char* end) {
  bk_frame fr;
  fr.f = f;
  fr.data = data;
  uint32_t room = static_cast<uint32_t>(end - data);
  fr.len = f.size < room ? f.size : room;
  fr.block_time = bk_block_time(h);
  return fr;
}

// Where a writer reads: one selected hour, an entry of its minute table and the offset
// of the next block in that entry.
struct bk_reader {
  fs_app* app;
  bk_item_t* it;
  bool multi;  // bk_multi_read on `slot`, else bk_read
  int slot;
  bool lq;  // classify with bk_check_LQ (substream), else bk_check
  int ch;
  const char* fn;  // writer's name for the head.type message
  int nent;        // entries of the hour's minute table
  int j;           // current entry
  entry_t e;
  int off;
  head_t h;
  q_t q;  // as a bk_read caller's buffer: its size decides the "q->max" messages
  const unsigned char* data;  // the data of the block last read

  bk_reader(fs_app* a, bk_item_t* item, int channel, bool sub, const char* name);
  ~bk_reader();
  bk_reader(const bk_reader&) = delete;
  bk_reader& operator=(const bk_reader&) = delete;

  // Loads minute entry k of the hour; false past the table or on a failed read.
  bool load(int k);
  // At the end of the entry as last read, the entry is read again: a minute still
  // being recorded has grown since, and its new blocks belong to the export.
  bool grown();
  // bk_read (or bk_multi_read) of the block at off, its data left at `data`.
  int read();
};

enum { kGoOn = 0, kStop = 1 };

// Hands every frame of the reader's channel (every channel when ch is -1) in the current
// entry, from r.off on, to fn. Returns 0 at the end of the entry (or of the range), 1
// when fn returned kStop; r.off then still holds the offset of the block of that frame.
template <class Fn>
int bk_walk_entry(bk_reader& r, Fn&& fn) {
  for (;;) {
    if (static_cast<long long>(r.off) + BLOCK_HEAD > r.e.size && !r.grown()) return 0;
    int got = r.read();
    if (got < 0) return 0;
    if (got == 0) continue;
    int size = r.h.size;  // bk_read bounded it by the entry's region
    int next = r.off + BLOCK_OVERHEAD + size;
    if (block_is_record(r.h.type)) {
      fs_log(r.fn, 3105, "head.type: %d\n", static_cast<int>(r.h.type));
      r.off = next;
      continue;
    }
    bool stop = false;
    const char* end_of_data = reinterpret_cast<const char*>(r.data) + size;
    bk_frames(r.h, r.data, [&](frame_head_t& f, const char* data) {
      int c = -1;
      if ((r.lq ? r.app->bk_check_LQ(&f, c) : r.app->bk_check(&f, c)) < 0) return false;
      if (r.ch >= 0 ? c != r.ch : c < 0) return true;
      bk_frame fr = bk_frame_in(r.h, f, data, end_of_data);
      if (fn(fr) == kStop) stop = true;
      return !stop;
    });
    if (stop) return 1;
    r.off = next;
  }
}

#endif
