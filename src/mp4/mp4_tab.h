// Growth of the muxer's 32-bit tables. Internal to src/mp4.
#ifndef RINGREC_MP4_TAB_H
#define RINGREC_MP4_TAB_H

#include <ringrec/fs_mp4.h>
#include <stdlib.h>

// Appends one value, growing the table 256 entries at a time. A failed realloc drops the
// value rather than writing through a null pointer.
inline void tab_push(mp4_tab_t& t, unsigned int v) {
  if (t.cnt == t.cap) {
    unsigned int* p =
        static_cast<unsigned int*>(realloc(t.v, (t.cap + fs_mp4::TAB_STEP) * sizeof(unsigned int)));
    if (!p) return;
    t.v = p;
    t.cap += fs_mp4::TAB_STEP;
  }
  t.v[t.cnt++] = v;
}

inline void tab_push(mp4_tab2_t& t, unsigned int v, unsigned int w) {
  if (t.cnt == t.cap) {
    size_t n = (t.cap + fs_mp4::TAB_STEP) * sizeof(unsigned int);
    unsigned int* pv = static_cast<unsigned int*>(realloc(t.v, n));
    if (pv) t.v = pv;
    unsigned int* pw = static_cast<unsigned int*>(realloc(t.w, n));
    if (pw) t.w = pw;
    if (!pv || !pw) return;
    t.cap += fs_mp4::TAB_STEP;
  }
  t.v[t.cnt] = v;
  t.w[t.cnt] = w;
  t.cnt++;
}

#endif
