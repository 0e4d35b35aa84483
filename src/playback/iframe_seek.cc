// Key-frame seeking: jumps of the playback cursor from key frame to key frame of the
// current minute, through the two key-frame indexes read_Iframe_info loads (slot 0 the
// substream's, slot 1 the main stream's).
#include <limits.h>
#include <ringrec/fs_app.h>

namespace {

// A slot's position and count outlive the minute they were loaded for and its tables
// are only as long as the last load asked; entries are read only below both.
bool in_table(const r_iframe_t& s, int i, bool infos) {
  int cap = infos ? s.infos_cap : s.offs_cap;
  return i >= 0 && i < s.count && i < cap;
}

// Offsets in a table are 64-bit; the cursor's frame offset is 32-bit. An entry beyond
// that range cannot be a block of a minute.
bool to_off(long long v, int& off) {
  if (v < INT_MIN || v > INT_MAX) return false;
  off = static_cast<int>(v);
  return true;
}

}  // namespace

int fs_app::Seek_V2(int pos, frame_info_t* table, int count, int mask, int dir, int step,
                    int last) {
  long long bound = static_cast<long long>(last) + step;
  if (dir >= 0) {
    if (pos >= count) return -1;
    // A stale negative position starts from the first record.
    for (int i = pos < 0 ? 0 : pos; i < count; i++) {
      if ((table[i].events & static_cast<uint32_t>(mask)) == 0) continue;
      if (step == 0 || table[i].time == last || table[i].time > bound) return i;
    }
    return -1;
  }
  if (pos < 0) return -1;
  for (int i = pos < count ? pos : count - 1; i >= 0; i--) {
    if ((table[i].events & static_cast<uint32_t>(mask)) == 0) continue;
    if (step == 0 || table[i].time == last || table[i].time < bound) return i;
  }
  return -1;
}

int fs_app::QuickSync(frame_info_t* table, int count, int mask, int dir) {
  // The offsets compared are always the main-stream slot's, whichever table decides
  // the channels; entries beyond what that slot holds do not qualify.
  const r_iframe_t& hq = r_iframe[1];
  long long cur = r_cur.off;
  if (dir >= 0) {
    for (int i = 0; i < count; i++) {
      if ((table[i].events & static_cast<uint32_t>(mask)) == 0 || !in_table(hq, i, true)) continue;
      long long o = hq.infos[i].offset;
      int to;
      if (o > cur && to_off(o, to)) {
        r_cur.off = to;
        return i + 1;
      }
    }
    return 0;
  }
  if (count == 0) return -1;
  for (int i = count - 1; i >= 0; i--) {
    if ((table[i].events & static_cast<uint32_t>(mask)) == 0 || !in_table(hq, i, true)) continue;
    long long o = hq.infos[i].offset;
    int to;
    if (o < cur && to_off(o, to)) {
      r_cur.off = to;
      return i - 1;
    }
  }
  return count - 1;
}

int fs_app::r_Iseek(int dir, bool second, int mask, int step) {
  r_iframe_t& s = r_iframe[second ? 1 : 0];
  char& stepped = r_cur.stepped[second ? 1 : 0];
  int& off = r_cur.off;
  if (dir >= 0) {
    if (off == r_cur.min.size) return -1;
    if (s.count == 0) {
      long long to = static_cast<long long>(off) + BLOCK_OVERHEAD + r_cur.head.size;
      if (!to_off(to, off)) return -1;
      return 0;
    }
    if (s.pos == s.count - 1) return -1;
    if (iframe_kind_offs(s.kind)) {
      if (!stepped) {
        if (!in_table(s, s.pos, false) || !to_off(s.offs[s.pos], off)) return -1;
        s.pos++;
        return 0;
      }
      for (int i = 0; in_table(s, i, false); i++)
        if (s.offs[i] > off && to_off(s.offs[i], off)) {
          s.pos = i + 1;
          break;
        }
      stepped = 0;
      return 0;
    }
    if (iframe_kind_infos(s.kind)) {
      if (s.count > s.infos_cap) return -1;
      if (stepped) {
        s.pos = QuickSync(s.infos, s.count, mask, dir);
        if (in_table(s, s.pos, true)) s.time = s.infos[s.pos].time;
        stepped = 0;
        return 0;
      }
      int r = Seek_V2(s.pos, s.infos, s.count, mask, dir, step, s.time);
      if (r == -1 || !to_off(s.infos[r].offset, off)) return -1;
      s.time = s.infos[r].time;
      s.pos = r + 1;
      return 0;
    }
    return 0;
  }

  if (off == 0) return -1;
  if (s.count == 0) {
    long long to = static_cast<long long>(off) - BLOCK_OVERHEAD - r_cur.tail[1];
    if (!to_off(to, off)) return -1;
    return 0;
  }
  if (s.pos < 0) return -1;
  if (iframe_kind_offs(s.kind)) {
    if (!stepped) {
      if (!in_table(s, s.pos, false) || !to_off(s.offs[s.pos], off)) return -1;
      s.pos--;
      return 0;
    }
    for (int i = s.count - 1; i >= 0; i--)
      if (in_table(s, i, false) && s.offs[i] < off && to_off(s.offs[i], off)) {
        s.pos = i - 1;
        break;
      }
    stepped = 0;
    return 0;
  }
  if (iframe_kind_infos(s.kind)) {
    if (s.count > s.infos_cap) return -1;
    if (stepped) {
      // The main-stream slot's table here, even when the substream slot is selected.
      // Its records are walked up to the selected slot's count, and no further than
      // that table holds.
      const r_iframe_t& hq = r_iframe[1];
      int n = s.count;
      if (n > hq.count) n = hq.count;
      if (n > hq.infos_cap) n = hq.infos_cap;
      if (n < 0) n = 0;
      s.pos = QuickSync(hq.infos, n, mask, dir);
      if (in_table(s, s.pos, true)) s.time = s.infos[s.pos].time;
      stepped = 0;
      return 0;
    }
    int r = Seek_V2(s.pos, s.infos, s.count, mask, dir, step, s.time);
    if (r == -1 || !to_off(s.infos[r].offset, off)) return -1;
    s.time = s.infos[r].time;
    s.pos = r - 1;
    return 0;
  }
  return 0;
}
