#include "range_survey.h"

#include <ringrec/ringrec.h>
#include <string.h>

#include "quiet.h"
#include "time_arg.h"
#include "volume_list.h"

namespace tool {

namespace {

// A block larger than this is not one a recorder wrote (a fraction of a second of every
// channel): a size word read from damage.
const int kMaxBlock = 64 << 20;

// The last second the minute's mask marks as recorded.
long long minute_end(const entry_t& m) {
  min_rec_t r;
  memcpy(&r, &m.time, sizeof r);
  uint64_t mask = r.mask;
  int s = 59;
  while (s > 0 && !(mask >> s & 1)) s--;
  return static_cast<long long>(r.time) / 60 * 60 + (mask != 0 ? s : 59);
}

// Walks the blocks of minute m from its first frame block, as the backup reader does:
// head, then the tail that must close it. Returns true when every block reads; else
// fills the span from the last block read to the minute's end.
bool walk_minute(fs_db& db, entry_t m, lost_span* out) {
  long long last_good = m.time;
  int off = MINUTE_FRAMES_OFF;
  while (off + BLOCK_OVERHEAD <= m.size) {
    head_t h;
    uint32_t tail[2];
    bool ok = db.d_read(m, off, BLOCK_HEAD, &h) == 0 && block_head_valid(h) && h.size >= 0 &&
              h.size <= kMaxBlock &&
              off + BLOCK_OVERHEAD + static_cast<long long>(h.size) <= m.size &&
              db.d_read(m, off + BLOCK_HEAD + h.size, BLOCK_TAIL, tail) == 0 &&
              tail[0] == BLOCK_TAIL_SYNC && tail[1] == static_cast<uint32_t>(h.size);
    if (!ok) {
      out->from = last_good;
      out->to = minute_end(m);
      if (out->to < out->from) out->to = out->from;
      out->offset = off;
      return false;
    }
    if (!block_is_record(h.type) && h.time > last_good) last_good = h.time;
    off += BLOCK_OVERHEAD + h.size;
  }
  return true;
}

}  // namespace

range_survey survey_range(volume_set& v, long long beg, long long end, bool blocks) {
  range_survey out;
  fs_app& app = *v.app;
  for (int d = 0; d < app.db_cnt; d++) {
    fs_db* db = app.db_info[d].db;
    entryX_t root;
    if (db == nullptr || db->q_key() == 0 || db->x_read(0, root) != 0) continue;
    std::vector<entry_t> hours = read_table(*db, root, &out.unreadable_tables);
    for (const entry_t& h : hours) {
      if (!is_hour(h) || h.time / 3600 < beg / 3600 || h.time / 3600 > end / 3600) continue;
      entryX_t x;
      if (db->x_read(h.offset, x) != 0) {
        out.unreadable_tables++;
        continue;
      }
      std::vector<entry_t> mins = read_table(*db, x, &out.unreadable_tables);
      for (size_t i = 0; i < mins.size(); i++) {
        const entry_t& m = mins[i];
        if (!is_minute(m) || m.size <= 0 || m.time / 60 < beg / 60 || m.time / 60 > end / 60)
          continue;
        min_rec_t r;
        memcpy(&r, &m.time, sizeof r);
        for (int ch = 0; ch < 32; ch++)
          if (r.count[ch] > 0) out.channels |= 1u << ch;
        for (size_t k = 0; k < i; k++)
          if (is_minute(mins[k]) && mins[k].size > 0 && mins[k].time / 60 == m.time / 60)
            out.twice.push_back({v.name(d), m.time / 60 * 60});
        lost_span s;
        s.disk = v.name(d);
        s.minute.assign(m.name, strnlen(m.name, sizeof m.name));
        if (blocks && !walk_minute(*db, m, &s)) out.lost.push_back(s);
      }
    }
  }
  return out;
}

void warn_empty(const range_survey& s, uint32_t wanted, const std::string& range) {
  for (int ch = 0; ch < 32; ch++)
    if ((wanted >> ch & 1) && !(s.channels >> ch & 1))
      err("warning: channel %d holds nothing %s", ch, range.c_str());
}

std::string describe(const lost_span& s) {
  return fmt_time(s.from).substr(11) + " to " + fmt_time(s.to).substr(11) + " of " +
         fmt_time(s.from).substr(0, 10) + " (" + s.minute + " on " + s.disk +
         ", unreadable from data offset " + std::to_string(s.offset) + ")";
}

}  // namespace tool
