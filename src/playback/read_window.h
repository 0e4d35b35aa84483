// One read a stored block: a reader keeps the bytes of one stretch of a minute entry's
// data that it read in one positioned transfer, and serves the blocks inside that
// stretch from memory. A block is served only whole and only after its own tail agrees
// with its head (sync 0xFFFFEDCB, the same size): anything else (a block the writer has
// not finished, damage, a stretch that no longer fits) sends the caller back to its
// ordinary reads, which then behave, message for message, as if no window existed.
// Internal to the library.
#ifndef RINGREC_PLAYBACK_READ_WINDOW_H
#define RINGREC_PLAYBACK_READ_WINDOW_H

#include <ringrec/fs_app.h>

struct fs_read_window {
  fs_db* db = nullptr;    // volume the bytes came from; null when nothing is held
  long long region = 0;   // disk offset of the entry's data region
  int32_t entry_idx = 0;  // the entry's index in its table, with the region its identity
  long long at = 0;       // data offset of buf[0] in the entry
  int len = 0;            // bytes held
  unsigned char* buf = nullptr;
  int cap = 0;
  bool backward = false;  // the cursor last stepped backwards: read stretches ending at it
  long long served = -1;  // the cursor's block that was last served whole, or -1
  long long headed = -1;  // where r_head was last asked: asked again, it reads the disk

  ~fs_read_window();
  void drop() { db = nullptr, len = 0; }          // the bytes held
  void reset() { drop(), served = headed = -1; }  // and what the cursor was served
  bool same_entry(fs_db* d, const entry_t& e) const;
  // True when [from, to) of e's data is held.
  bool holds(fs_db* d, const entry_t& e, long long from, long long to) const;
  const unsigned char* ptr(long long off) const { return buf + (off - at); }
};

// Bytes a window reads at once: several blocks of a few channels (a 4 Mbit/s main stream
// makes about 100 KB every 200 ms; sixteen such channels nearly fill it with one block,
// whose rest then comes in a second read), little enough to keep on a recorder.
const int kReadWindow = 1 << 20;

// Reads [from, to) of e's data into w in one transfer, replacing what it held. The range
// must lie inside e.size (what the entry says is written). No message on failure: a
// read-ahead that fails only means the caller reads as it would have anyway.
int rw_fill(fs_read_window& w, fs_db* db, const entry_t& e, long long from, long long to);

// The whole block at `off` of e (head, data, tail), served from w: read in one transfer
// when w does not hold it (forward from off - lead, or, when back_end is positive, the
// stretch that ends at back_end), the rest read when the block is larger than that
// stretch. Null when the block is not whole inside e.size, its head is not valid or its
// tail does not agree: the caller then reads as before.
const unsigned char* rw_block(fs_read_window& w, fs_db* db, const entry_t& e, int off, int lead,
                              long long back_end);

// The window an fs_app keeps for its backup readers or its cursor, made on first use.
fs_read_window& rw_of(fs_read_window_slot& s);

#endif
