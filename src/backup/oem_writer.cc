// The OEM frame format: one file per recorded minute, each frame a 24-byte record head
// and its data, every head carrying the length of the one before it (see oem.h).
#include <ringrec/fs_app.h>
#include <ringrec/oem.h>
#include <stdlib.h>
#include <string.h>

#include "backup/backup.h"
#include "runtime/runtime.h"

int fs_app::bk_kesto_write_frame(FILE* out, frame_head_t* f, char const* data, int time,
                                 int prevlen) {
  oem_frame_head_t r;
  memset(&r, 0, sizeof r);
  if (frame_is_video(f->type)) {
    r.vtype = frame_is_key(f->type) ? OEM_VTYPE_KEY : OEM_VTYPE_OTHER;
  } else if (f->type == FRAME_AUDIO) {
    r.audio = 1;
  } else {
    fs_log("bk_kesto_write_frame", 4127, "Unknown Frame Type: %d\n", f->type);
    return 0;
  }
  r.magic = OEM_MAGIC;
  r.len = f->len + OEM_HEAD_SIZE;
  r.time = time;
  r.prev = static_cast<uint32_t>(prevlen);
  r.ch = static_cast<uint8_t>(f->ch);
  fwrite(&r, sizeof r, 1, out);
  fwrite(data, 1, f->len, out);
  return static_cast<int>(r.len);
}

int fs_app::bk_kesto_write(FILE* out, int item, int chbits, int& ftime) {
  if (item < 0 || item >= bk_state.num) {
    fs_log("bk_kesto_write", 4163, "ERR: item = %d, num = %d\n", item, bk_state.num);
    return 0;
  }
  bk_item_t& it = bk_state.items[item];
  uint32_t mask = static_cast<uint32_t>(chbits);
  int nch = bk_channels(mask);
  entry_t e = it.e;
  int off = static_cast<int>(it.off);
  if (it.resume) {
    e = it.resume_e;
    off = it.resume_off;
    it.resume = 0;
  }
  q_t q = {kBkBufSize, static_cast<unsigned char*>(malloc(kBkBufSize))};
  if (q.buf == nullptr) return 0;
  // Each file starts at its channel's first H.264 key frame; H.265 key frames (type 11)
  // do not open the gate, the format having no place for them.
  bool gate[32] = {false};
  int prevlen = 0;
  head_t h;
  while (!bk_cancelled()) {
    while (off < e.size) {
      const unsigned char* data = nullptr;
      int r = bk_read_block(*this, "bk_read", bk_state.beg, bk_state.end, -1, it.db, e, off, h, &q,
                            &data);
      if (r == -1) break;
      if (r == 0) continue;
      if (!block_is_record(h.type)) {
        int32_t t = bk_block_time(h);
        if (ftime != 0 && t / 60 != ftime / 60) {
          // A new minute: the caller opens the next file and calls again, which resumes
          // at this block.
          it.resume_e = e;
          it.resume_off = off;
          it.resume = 1;
          fs_log("bk_kesto_write", 4201, "ftime = %d, head.tim = %d\n", ftime, t);
          free(q.buf);
          return 1;
        }
        bk_frames(h, data, [&](frame_head_t& f, const char* fdata) {
          int ch = -1;
          if (bk_check(&f, ch) == -1) return false;
          if (ch < 0 || ch >= 32 || !((mask >> ch) & 1)) return true;
          if (!gate[ch]) {
            if (f.type != FRAME_H264_KEY) return true;
            gate[ch] = true;
          }
          prevlen = bk_kesto_write_frame(out, &f, fdata, t, prevlen);
          if (ftime == 0) ftime = t;
          return true;
        });
      }
      off += BLOCK_OVERHEAD + h.size;
    }
    bk_state.done += nch;
    bk_sem(bk_percent(bk_state.done, bk_state.total), 0);
    if (!bk_next_entry(it.db, it.x, e)) break;
    off = 0;
  }
  free(q.buf);
  return 0;
}
