// Recovery: a read-only scan of one volume's data area for every stored block that is
// still whole, whatever its tables say. Blocks describe themselves (sync, magic = time
// XOR size, size, and a tail repeating the size), and the volume key binds only the
// tables, so the scan finds what a torn table, a recycled hour or a new format no
// longer lists, as long as no newer write has gone over it.
//
// The device is read through fs_io only, front to back in large reads, each byte once.
// Memory does not grow with the number of blocks: what is found is kept as runs, both
// the chains of blocks that follow each other on the disk (to read them again later, in
// time order) and the spans of time of each channel (the report).
//
// Plain class, integer status: 0 or a count on success, -1 on failure.
#ifndef RINGREC_RECOVERY_H
#define RINGREC_RECOVERY_H

#include <ringrec/block.h>
#include <ringrec/fs_io.h>
#include <ringrec/records.h>

// Whether the volume's current index reaches a block.
enum {
  RC_LISTED = 0,  // inside the written part of a valid minute entry of its own minute
  RC_REGION = 1,  // inside a region the index allocates, but not as this minute's data
  RC_NONE = 2,    // in no region the index knows: recycled, torn away or re-formatted
  RC_REACHES = 3
};

// Where the data area's bounds and the volume key came from.
enum {
  RC_SB_PRIMARY = 0,    // the superblock at offset 0
  RC_SB_SECONDARY = 1,  // the copy after the ring
  RC_SB_LAYOUT = 2      // neither valid: device size and the fixed layout
};

// The largest block taken: a block is appended with one write and a region grows by
// at least 4 MiB a step, so no stored block reaches 4 MiB.
const int RC_MAX_BLOCK = 0x400000;

// A block found, as a visitor sees it: the whole block (head, data, tail) in the scan's
// buffer, valid only during the call.
struct rc_block_t {
  long long pos;               // device offset of its head
  const unsigned char* bytes;  // len bytes
  int len;                     // 296 + size
  int reach;                   // RC_LISTED, RC_REGION or RC_NONE
  int frame_block;             // 1: frames inside, checked; 0: one of the library's records
};
// Returns 0 to go on, anything else to stop the walk.
typedef int (*rc_visit_fn)(void* ctx, const rc_block_t& b);

// A chain: blocks that follow each other on the disk without a gap, in the order
// written (a minute's records and frames). Replaying chains sorted by t0 gives the
// blocks in time order.
struct rc_chain_t {
  long long beg, end;  // device bytes [beg, end)
  int t0, t1;          // first and last frame-block time (0, 0: records only)
  int blocks;
};

// A span of one channel's stream: blocks of one reach whose times follow each other
// with gaps of at most RC_SPAN_GAP seconds.
const int RC_SPAN_GAP = 10;
const int RC_SPAN_CHANNELS = 32;  // channels reported; frames of others are still taken
struct rc_span_t {
  int ch;
  int sub;    // 0 main stream, 1 substream
  int reach;  // RC_LISTED, RC_REGION, RC_NONE
  int t0, t1;
  int blocks;
  int frames;       // video frames
  long long bytes;  // frame bytes (video and audio, headers included)
};

struct rc_stats_t {
  long long blocks;                // blocks taken
  long long frame_blocks;          // of which frame blocks
  long long record_blocks;         // of which motion, event log and key-frame index records
  long long bytes;                 // bytes of blocks taken
  long long by_reach[RC_REACHES];  // frame-block bytes by reach
  long long no_tail;               // heads whose sync, magic and size held but not the tail
  long long bad_frames;            // blocks whose tail held but whose frames did not
  long long unreadable;            // data-area bytes that could not be read
  long long bytes_read;            // bytes read from the data area
};

class fs_recover {
 public:
  fs_io* io;
  long long dev_size;            // bytes, as seek(0, SEEK_END) reports
  sb_t sb;                       // the superblock used; zero when none validated
  int sb_from;                   // RC_SB_*
  long long ring_beg, ring_end;  // the data area scanned
  int index_ok;                  // 1 when the root table validated under the key
  int minutes;                   // minute entries the index lists (valid ones)
  int bad_entries;               // entries that failed their checksum or place

  rc_stats_t st;
  rc_chain_t* chains;  // in disk order
  int chain_cnt, chain_cap;
  rc_span_t* spans;  // sorted by channel, stream, time
  int span_cnt, span_cap;

  // Progress: called after each read with the bytes scanned and the data area's size.
  void (*progress)(void* ctx, long long done, long long total);
  void* progress_ctx;
  int chunk;  // bytes per read; 8 MiB unless set before scan

  fs_recover();
  ~fs_recover();

  friend struct rc_window;

  // Opens the device read-only and learns the data area and the index. -1 when the
  // device cannot be opened or is too small to hold the fixed layout and one unit.
  int open(const char* path);
  int close();

  // One pass over the data area. Every block whose time lies in [from, to] (frame
  // blocks; records by their own time) is handed to fn when fn is not null; chains,
  // spans and statistics are kept. Returns the number of blocks taken, -1 when nothing
  // could be read.
  int scan(int from, int to, rc_visit_fn fn, void* ctx);

  // Reads chain c again and hands its blocks (checked again, times in [from, to]) to fn.
  // 0; -1 when the chain cannot be read; 1 when fn stopped the walk.
  int replay(const rc_chain_t& c, int from, int to, rc_visit_fn fn, void* ctx);

  // Indexes into chains, sorted by their first time: the order to replay them in.
  // Returns the count; order must hold chain_cnt ints.
  int chain_order(int* order);

  // Heap bytes the object holds: the read buffer, the chains, the spans and the
  // index's regions. None of it grows with the number of blocks.
  long long mem_bytes() const;

  // Whether a block at [pos, pos + len) with head time t is reached by the index.
  int reach_of(long long pos, int len, int t);

  // The frames inside a block checked: each frame head inside the data, a type below
  // 23, its length inside the data, the frames filling the data exactly, and the head's
  // frame count, type bits and per-channel counts matching them. Returns the number of
  // frames, -1 when they do not hold. data holds h.size bytes.
  static int check_frames(const head_t& h, const unsigned char* data);

  // Whether the bytes at p (at least 288 available) begin a plausible head: sync,
  // magic and a size that fits the bounds. Returns the block's length, or 0.
  static int head_len(const unsigned char* p);

 private:
  struct extent_t {
    long long beg, end;  // written part of a minute entry's data (device bytes)
    long long alloc;     // end of its region
    int t0;              // the entry's time
  };
  extent_t* ext;  // minute regions the index lists, sorted by beg
  int ext_cnt, ext_cap;
  unsigned char* buf;
  int buf_cap;
  rc_span_t open_s[RC_SPAN_CHANNELS][2];  // spans still growing during a scan
  unsigned char open_live[RC_SPAN_CHANNELS][2];

  int load_superblock();
  int load_index();
  int add_extent(long long beg, long long end, long long alloc, int t0);
  int take(long long pos, const unsigned char* p, int len, int from, int to, rc_visit_fn fn,
           void* ctx);
  void note_chain(long long pos, int len, int t, int frame_block);
  void note_spans(const unsigned char* p, int reach);
  void finish_spans();
  int push_span(const rc_span_t& s);

  fs_recover(const fs_recover&);
  fs_recover& operator=(const fs_recover&);
};

#endif
