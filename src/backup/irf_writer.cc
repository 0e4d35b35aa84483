// IRF backup files: the application's 4096-byte header, then every kept frame as a sync
// word, a 64-byte frame record and the frame's data (see irf.h).
#include <ringrec/app_interface.h>
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>

#include "backup/backup.h"
#include "playback/table_walk.h"
#include "runtime/runtime.h"

bool bk_next_entry(fs_db* db, const entryX_t& x, entry_t& e) {
  int next = e.idx + 1;
  // The table's count comes from the disk; entries beyond where the table can lie are
  // not visited.
  if (next < 1 || next >= x.num || next >= pb::table_len(db, x, nullptr)) return false;
  entry_t n;
  if (db->e_read(const_cast<entryX_t&>(x), next, n) != 0) return false;
  e = n;
  return true;
}

int fs_app::bk_irf_write_frame(FILE* out, frame_head_t* f, char const* data) {
  return bk_irf_write_frame(out, f, data, 0);
}

int fs_app::bk_irf_write_frame(FILE* out, frame_head_t* f, char const* data, int link) {
  irf_frame_rec_t r;
  memset(&r, 0, sizeof r);
  if (f->type > FRAME_H265) return 0;
  if (frame_is_video(f->type)) {
    r.w2 = f->width;
    r.w3 = f->height;
    r.kind = frame_is_key(f->type) ? IRF_KIND_KEY : IRF_KIND_VIDEO;
    r.w5 = f->w5;
    r.w6 = f->w6;
    r.w4 = f->fps;
  } else if (f->type == FRAME_AUDIO) {
    // Audio's format and sample rate (its words 2 and 3) go where video keeps words 5
    // and 6.
    r.kind = IRF_KIND_AUDIO;
    r.w5 = f->width;
    r.w6 = f->height;
  } else {
    return 0;
  }
  r.len = f->len;
  r.ch = f->ch;
  r.link = link;
  uint32_t sync = IRF_FRAME_SYNC;
  fwrite(&sync, 4, 1, out);
  fwrite(&r, sizeof r, 1, out);
  fwrite(data, 1, f->len, out);
  return static_cast<int>(f->len) + 4 + static_cast<int>(sizeof r);
}

namespace {

// Copies the header file the application prepared, whole, in 4096-byte pieces. A
// missing file writes nothing: the application decides what an IRF header holds.
void copy_header(const char* logical, FILE* out) {
  FILE* in = fs_fopen(logical, "rb");
  if (in == nullptr) return;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, in)) > 0) fwrite(buf, 1, n, out);
  fclose(in);
}

// What differs between the two writers.
struct irf_run {
  const char* fn;
  bool multi;
  uint32_t mask;
  bool audio;
  bk_item_t* it;
  int32_t* done;
  int32_t* total;
  FILE* out;
  int* started;  // the file's reference: 0 until its header is written
  int keypos;    // sync offset of the latest key frame written, -1 when none
};

void copy_item(fs_app& app, irf_run& run, int item) {
  int nch = bk_channels(run.mask);
  entry_t e = run.it->e;
  int off = static_cast<int>(run.it->off);
  fs_db* db = run.it->db;
  *run.done += nch;
  q_t q = {kBkBufSize, static_cast<unsigned char*>(malloc(kBkBufSize))};
  if (q.buf == nullptr) return;
  bool gate[32] = {false};
  head_t h;
  while (!bk_cancelled()) {
    while (off < e.size) {
      const unsigned char* data = nullptr;
      int r = -1;
      if (!run.multi)
        r = bk_read_block(app, "bk_read", app.bk_state.beg, app.bk_state.end, -1, db, e, off, h, &q,
                          &data);
      else if (item < kBkSlots)  // the item is the slot: one beyond the five reads nothing
        r = bk_read_block(app, "bk_multi_read", app.bk_multi_state.beg[item],
                          app.bk_multi_state.end[item], -1, db, e, off, h, &q, &data);
      if (r == -1) break;
      if (r == 0) continue;
      if (block_is_record(h.type)) {
        fs_log(run.fn, run.multi ? 3281 : 3187, "head.type: %d\n", h.type);
      } else {
        int32_t t = bk_block_time(h);
        bk_frames(h, data, [&](frame_head_t& f, const char* fdata) {
          int ch = -1;
          if (app.bk_check(&f, ch) == -1) return false;
          if (ch < 0 || ch >= 32 || !((run.mask >> ch) & 1)) return true;
          if (!gate[ch]) {
            if (!frame_is_key(f.type)) return true;
            gate[ch] = true;
          }
          if (!run.audio && f.type == FRAME_AUDIO) return true;
          if (*run.started == 0) {
            // The reference only marks the file as begun; a block time of 0 still must.
            *run.started = t != 0 ? t : 1;
            copy_header(run.multi ? IRF_HEADER_H264_FILE : IRF_HEADER_FILE, run.out);
          }
          if (!run.multi) {
            app.bk_irf_write_frame(run.out, &f, fdata);
          } else if (!frame_is_key(f.type)) {
            app.bk_irf_write_frame(run.out, &f, fdata, run.keypos);
          } else {
            int pos = static_cast<int>(ftell(run.out));
            app.bk_irf_write_frame(run.out, &f, fdata, run.keypos);
            run.keypos = pos;
            *run.started = pos;
          }
          return true;
        });
      }
      off += BLOCK_OVERHEAD + h.size;
    }
    if (!bk_next_entry(db, run.it->x, e)) break;
    off = 0;
    *run.done += nch;
    int v = bk_percent(*run.done, *run.total);
    if (run.multi)
      app.bk_multi_sem(v, 0);
    else
      app.bk_sem(v, 0);
  }
  free(q.buf);
}

}  // namespace

int fs_app::bk_irf_write(FILE* out, int item, int chbits, int& started) {
  started = 0;
  if (item < 0 || item >= bk_state.num) {
    fs_log("bk_irf_write", 3152, "ERR: item = %d, num = %d\n", item, bk_state.num);
    return -1;
  }
  irf_run run = {"bk_irf_write",
                 false,
                 static_cast<uint32_t>(chbits),
                 true,
                 &bk_state.items[item],
                 &bk_state.done,
                 &bk_state.total,
                 out,
                 &started,
                 0};
  copy_item(*this, run, item);
  return 0;
}

// lastkey is the file's state across calls: 0 for a new file, else the sync offset of
// the last key frame written to it, which the next frame records link back to.
int fs_app::bk_multi_irf_write(FILE* out, int item, int ch, int& lastkey, bool audio) {
  if (item < 0 || item >= bk_multi_state.num || ch < 0 || ch >= 32) {
    fs_log("bk_multi_irf_write", 3238, "ERR: item = %d, num = %d, ch = %d\n", item,
           bk_multi_state.num, ch);
    return -1;
  }
  bk_item_t* it = &bk_multi_state.items[item];
  fs_log("bk_multi_irf_write", 3246, "%.2d: %.32s\n", item, it->e.name);
  irf_run run = {"bk_multi_irf_write",
                 true,
                 1u << ch,
                 audio,
                 it,
                 &bk_multi_state.done,
                 &bk_multi_state.total,
                 out,
                 &lastkey,
                 lastkey == 0 ? -1 : lastkey};
  copy_item(*this, run, item);
  return 0;
}
