// What the backup readers and writers share. Internal to the library.
#ifndef RINGREC_BACKUP_BACKUP_H
#define RINGREC_BACKUP_BACKUP_H

#include <ringrec/fs_app.h>
#include <stdint.h>
#include <string.h>

// Ranges the multi-slot selection holds.
const int kBkSlots = 5;

// The read buffer a writer starts its run with.
const int kBkBufSize = 0x80000;

// Set bits of a channel mask (all 32 positions).
int bk_channels(uint32_t mask);

// Progress in percent of done work units over total; a total of -1 gives
// -(done * 100) and a total of 0 (a mask without channels) gives 100.
int bk_percent(int done, int total);

// True while the cancel marker exists.
bool bk_cancelled();

// Deletes the MP4 writers still held by the first num items and frees the array.
void bk_free_items(bk_item_t*& items, int32_t& cap, int32_t num);

// The frames of a block, from its data as read (see block_frames).
template <typename Fn>
void bk_frames(const head_t& h, const unsigned char* data, Fn fn) {
  block_frames(h, data, fn);
}

template <typename Fn>
void bk_frames(const head_t& h, const q_t* q, Fn fn) {
  block_frames(h, q->buf, fn);
}

// bk_read and bk_multi_read (fn names the caller in messages; [beg, end] are the bounds
// it stops at), with the block's data left where it was read: *data points at it, inside
// the backup read window or, when the block had to be read as before, inside q->buf. With
// data null the bytes are copied into q->buf, as the public calls give them. Results,
// messages, q's growth and the offset's advance are those of bk_read.
int bk_read_block(fs_app& app, const char* fn, int beg, int end, int ch, fs_db* db, entry_t& e,
                  int& off, head_t& h, q_t* q, const unsigned char** data);

// Block time of a frame block as the writers stamp it: word 3 plus word 4, wrapping as
// the 32-bit words do.
inline int32_t bk_block_time(const head_t& h) {
  return static_cast<int32_t>(static_cast<uint32_t>(h.time) + h.time2);
}

// Opens the entry after e in the hour's table x; false at the end of the hour or when
// it cannot be read.
bool bk_next_entry(fs_db* db, const entryX_t& x, entry_t& e);

#endif
