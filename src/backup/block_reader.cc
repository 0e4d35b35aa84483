// Reading stored blocks back for a backup: bk_read and bk_multi_read, and the reader the
// writers walk an hour with. Each block is read from the disk once: the backup read
// window (read_window.h) brings head, data and tail in one transfer, often with the
// blocks that follow, and a block is served from it only once its tail agrees with its
// head. Otherwise the block is read as it always was, head first, then data.
#include "backup/block_reader.h"

#include <stdlib.h>
#include <string.h>

#include "playback/read_window.h"
#include "runtime/runtime.h"

int bk_read_block(fs_app& app, const char* fn, int beg, int end, int ch, fs_db* db, entry_t& e,
                  int& off, head_t& h, q_t* q, const unsigned char** data) {
  if (db == nullptr || off < 0) return -1;
  const unsigned char* held = rw_block(rw_of(app.bk_window), db, e, off, 0, -1);
  if (held != nullptr) {
    memcpy(&h, held, sizeof h);
  } else {
    if (db->d_read(e, off, BLOCK_HEAD, &h) != 0) return -1;
    if (!block_head_valid(h)) {
      fs_log(fn, 2664, "ERR: HEAD: %d, SYNC=0x%.4X, MAGIC=0x%.4X\n", off, h.sync, h.magic);
      return -1;
    }
  }
  // A size that is negative, or whose block would run past the entry's region, cannot
  // be a block the writer stored; taken as it stands it would move the offset
  // backwards or ask for a buffer of up to 2 GiB. It ends the entry like a bad head.
  long long next = static_cast<long long>(off) + BLOCK_OVERHEAD + h.size;
  if (h.size < 0 || next > e.max || next > 0x7FFFFFFFLL) return -1;
  if (h.time > end) return -1;
  // The head counts frames of channels 0 to 58 only: a higher channel has none here.
  if (h.time < beg || (ch >= 0 && (ch >= 59 || h.count[ch] < 1))) {
    off = static_cast<int>(next);
    return 0;
  }
  if (h.size > q->max) {
    q->max = ((h.size >> 12) + 1) << 12;
    fs_log(fn, 2688, "q->max = %d\n", q->max);
    free(q->buf);
    q->buf = static_cast<unsigned char*>(malloc(static_cast<size_t>(q->max)));
    if (q->buf == nullptr) {
      q->max = 0;
      return -1;
    }
  }
  if (held != nullptr) {
    if (data != nullptr)
      *data = held + BLOCK_HEAD;
    else if (h.size > 0)
      memcpy(q->buf, held + BLOCK_HEAD, static_cast<size_t>(h.size));
    return 1;
  }
  if (h.size > 0 && db->d_read(e, off + BLOCK_HEAD, h.size, q->buf) != 0) return -1;
  if (data != nullptr) *data = q->buf;
  return 1;
}

int fs_app::bk_read(int ch, fs_db* db, entry_t& e, int& off, head_t& h, q_t* q) {
  return bk_read_block(*this, "bk_read", bk_state.beg, bk_state.end, ch, db, e, off, h, q, nullptr);
}

// The slot's bounds. The writers pass their item number as the slot, so an item beyond
// the five slots has no bounds of its own: it reads nothing.
int fs_app::bk_multi_read(int ch, int slot, fs_db* db, entry_t& e, int& off, head_t& h, q_t* q) {
  if (slot < 0 || slot >= kBkSlots) return -1;
  return bk_read_block(*this, "bk_multi_read", bk_multi_state.beg[slot], bk_multi_state.end[slot],
                       ch, db, e, off, h, q, nullptr);
}

bk_reader::bk_reader(fs_app* a, bk_item_t* item, int channel, bool sub, const char* name)
    : app(a),
      it(item),
      multi(false),
      slot(0),
      lq(sub),
      ch(channel),
      fn(name),
      j(0),
      off(0),
      data(nullptr) {
  nent = pb::table_len(it->db, it->x, nullptr);
  memset(&e, 0, sizeof e);
  memset(&h, 0, sizeof h);
  q.max = kBkBufSize;
  q.buf = static_cast<unsigned char*>(malloc(kBkBufSize));
  if (q.buf == nullptr) q.max = 0;
}

bk_reader::~bk_reader() { free(q.buf); }

bool bk_reader::load(int k) {
  if (k < 0 || k >= nent) return false;
  if (it->db->e_read(it->x, k, e) != 0) return false;
  j = k;
  off = 0;
  return true;
}

bool bk_reader::grown() {
  entry_t fresh;
  if (it->db->e_read(it->x, j, fresh) != 0 || !pb::same_name(fresh, e) || fresh.size <= e.size)
    return false;
  e = fresh;
  return true;
}

int bk_reader::read() {
  if (multi) {
    if (slot < 0 || slot >= kBkSlots) return -1;
    const bk_multi_state_t& s = app->bk_multi_state;
    return bk_read_block(*app, "bk_multi_read", s.beg[slot], s.end[slot], ch, it->db, e, off, h, &q,
                         &data);
  }
  return bk_read_block(*app, "bk_read", app->bk_state.beg, app->bk_state.end, ch, it->db, e, off, h,
                       &q, &data);
}
