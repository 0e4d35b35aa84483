// The key-frame index of a minute: two stored blocks appended after its last frame
// block, HQ first and LQ last, so that the LQ record ends at the entry's size.
//   record  type  word 8   payload
//   HQ        10  0x4000   frame_info_t of the main stream's key frames
//   LQ         9  0x2000   frame_info_t of the substream's key frames
// Indexes of an earlier layout hold 8-byte offsets and carry 0x400 (HQ) / 0x200 (LQ).
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/runtime.h"

namespace {

const int kOverhead = BLOCK_OVERHEAD;

// Grows a table to hold n entries of `size` bytes; false when memory runs out.
template <typename T>
bool grow(T*& tab, int32_t& cap, int n) {
  if (n <= cap) return true;
  void* p = realloc(tab, static_cast<size_t>(n) * sizeof(T));
  if (p == nullptr) return false;
  tab = static_cast<T*>(p);
  cap = n;
  return true;
}

}  // namespace

int fs_app::writeback_Iframe_info(fs_db* db) {
  pthread_mutex_lock(&iframe_mutex);
  for (int pass = 0; pass < 2; pass++) {
    std::vector<frame_info_t>& v = pass == 0 ? iframe_hq : iframe_lq;
    int n = static_cast<int>(v.size() * sizeof(frame_info_t)) & ~15;
    if (iframe_buf == nullptr || n > iframe_cap) {
      void* p = realloc(iframe_buf, static_cast<size_t>(n + kOverhead));
      if (p == nullptr) {
        pthread_mutex_unlock(&iframe_mutex);
        return -2;
      }
      iframe_buf = static_cast<unsigned char*>(p);
      iframe_cap = n;
    }
    head_t h;
    memset(&h, 0, sizeof h);
    h.type = pass == 0 ? BLOCK_INDEX_HQ : BLOCK_INDEX_LQ;
    h.time = static_cast<int32_t>(fs_time());
    block_seal(h, n);
    h.types = pass == 0 ? BLOCK_CODE_INDEX_HQ : BLOCK_CODE_INDEX_LQ;
    uint32_t tail[2];
    block_tail(tail, n);
    memcpy(iframe_buf, &h, sizeof h);
    if (n > 0) memcpy(iframe_buf + sizeof h, v.data(), static_cast<size_t>(n));
    memcpy(iframe_buf + sizeof h + n, tail, sizeof tail);
    if (db->d_write(min_e, min_e.size, n + kOverhead, iframe_buf) != 0) {
      if (pass == 0)
        fs_log("writeback_Iframe_info", 4876, "Write HQ Data Failed....\n");
      else
        fs_log("writeback_Iframe_info", 4913, "Write LQ Data Failed....\n");
      pthread_mutex_unlock(&iframe_mutex);
      return -2;
    }
    v.clear();
  }
  pthread_mutex_unlock(&iframe_mutex);
  return 0;
}

namespace {

// Reads the tail ending at `end` and the head before it. The sizes come from the disk,
// so a record that would start before the data or extend past `end` is treated as
// unreadable rather than followed.
bool read_record(fs_db* db, entry_t& e, int end, head_t& h, int& size, const char* fn,
                 int tail_line, int head_line) {
  int32_t sz = 0;
  int r = block_read_ending_at(*db, e, end, h, sz);
  size = sz;
  if (r == -1) fs_log(fn, tail_line, "Read tail file fail.\n");
  if (r == -2) fs_log(fn, head_line, "Read head file fail.\n");
  return r == 0;
}

// The two layouts an index record of one stream may have: word 8 marks bare 8-byte
// offsets (the earlier layout) or 16-byte frame_info_t records; each is remembered as
// its kind. A line of 0 means that read failure has no message of its own.
struct index_layouts {
  uint32_t old_mark, new_mark;
  int old_kind, new_kind;
  int old_line, new_line;
};
const index_layouts kLqLayouts = {
    BLOCK_CODE_OFFS_LQ, BLOCK_CODE_INDEX_LQ, IFRAME_OFFS_LQ, IFRAME_INFOS_LQ, 1769, 0};
const index_layouts kHqLayouts = {
    BLOCK_CODE_OFFS_HQ, BLOCK_CODE_INDEX_HQ, IFRAME_OFFS_HQ, IFRAME_INFOS_HQ, 1852, 1876};

// Loads the payload of `size` bytes at `data` into s and places its current entry on
// the last (dir < 0) or the first key frame. 1 loaded; 0 an unknown layout (s is left
// as it was); -1 a read failure.
int load_index(fs_db* db, entry_t& e, int data, int size, uint32_t types, r_iframe_t& s,
               const index_layouts& l, int dir) {
  int n, line;
  bool ok;
  if (types == l.old_mark) {
    n = size / 8;
    line = l.old_line;
    ok = grow(s.offs, s.offs_cap, n) && db->d_read(e, data, n * 8, s.offs) == 0;
    s.kind = l.old_kind;
  } else if (types == l.new_mark) {
    n = size / 16;
    line = l.new_line;
    ok = grow(s.infos, s.infos_cap, n) && db->d_read(e, data, n * 16, s.infos) == 0;
    s.kind = l.new_kind;
  } else {
    return 0;
  }
  if (!ok) {
    if (line != 0)
      fs_log("read_Iframe_info", line,
             l.old_kind == IFRAME_OFFS_LQ ? "Read LQ data fail.\n" : "Read HQ data fail.\n");
    return -1;
  }
  s.count = n;
  s.pos = dir < 0 ? s.count - 1 : 0;
  if (s.kind == l.new_kind && s.count > 0) s.time = s.infos[s.pos].time;
  return 1;
}

}  // namespace

void fs_app::read_Iframe_info(fs_db* db, int dir) {
  r_iframe_t& lq = r_iframe[0];
  r_iframe_t& hq = r_iframe[1];
  if (db == nullptr) {
    lq.count = hq.count = 0;
    return;
  }
  entry_t& e = r_cur.min;
  int S = e.size;
  head_t h;
  int size = 0;
  if (!read_record(db, e, S, h, size, "read_Iframe_info", 1734, 1741)) {
    lq.count = hq.count = 0;
    return;
  }
  // A minute still being written (or closed on a full disk) ends with a frame block:
  // it has no index, and the previous minute's tables must not be used on it.
  if (h.type != BLOCK_INDEX_LQ) {
    lq.count = hq.count = 0;
    return;
  }
  int r = load_index(db, e, S - 8 - size, size, h.types, lq, kLqLayouts, dir);
  if (r < 0) lq.count = hq.count = 0;
  if (r <= 0) return;

  // The HQ record ends where the LQ record begins.
  int hq_end = S - kOverhead - size;
  if (!read_record(db, e, hq_end, h, size, "read_Iframe_info", 1819, 1825) ||
      h.type != BLOCK_INDEX_HQ) {
    hq.count = 0;
    return;
  }
  // Loaded as the LQ record is: a payload that cannot be read clears both streams.
  r = load_index(db, e, hq_end - 8 - size, size, h.types, hq, kHqLayouts, dir);
  if (r < 0) lq.count = hq.count = 0;
  if (r == 0) hq.count = 0;
}
