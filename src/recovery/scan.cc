// The scan of a volume's data area for stored blocks: one pass, large sequential reads,
// each byte read once. A block may straddle two reads: the unread rest of the buffer
// (at most one block, under 4 MiB) moves to its front before the next read, so the
// buffer is one read plus the largest block.
#include <ringrec/fs_db.h>
#include <ringrec/recovery.h>
#include <stdlib.h>
#include <string.h>

#include "storage/volume_layout.h"

namespace {

const int kChunk = 8 << 20;

uint32_t word(const unsigned char* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

// The library's own records carry one of these types together with its word-8 code;
// every other block is taken for a frame block and its frames are checked.
bool is_record(const head_t& h) {
  switch (h.type) {
    case BLOCK_MOTION:
      return h.types == BLOCK_CODE_MOTION;
    case BLOCK_LOG:
      return h.types == BLOCK_CODE_LOG;
    case BLOCK_INDEX_HQ:
      return h.types == BLOCK_CODE_INDEX_HQ || h.types == BLOCK_CODE_OFFS_HQ;
    case BLOCK_INDEX_LQ:
      return h.types == BLOCK_CODE_INDEX_LQ || h.types == BLOCK_CODE_OFFS_LQ;
    default:
      return false;
  }
}

template <class T>
bool grow(T*& v, int& cap, int need) {
  if (need <= cap) return true;
  int n = cap < 64 ? 64 : cap * 2;
  while (n < need) n *= 2;
  T* p = static_cast<T*>(realloc(v, sizeof(T) * static_cast<size_t>(n)));
  if (p == nullptr) return false;
  v = p;
  cap = n;
  return true;
}

int cmp_span(const void* a, const void* b) {
  const rc_span_t& x = *static_cast<const rc_span_t*>(a);
  const rc_span_t& y = *static_cast<const rc_span_t*>(b);
  if (x.ch != y.ch) return x.ch < y.ch ? -1 : 1;
  if (x.sub != y.sub) return x.sub < y.sub ? -1 : 1;
  if (x.t0 != y.t0) return x.t0 < y.t0 ? -1 : 1;
  if (x.reach != y.reach) return x.reach < y.reach ? -1 : 1;
  return 0;
}

const rc_chain_t* g_sort_chains;  // qsort has no context argument
int cmp_chain(const void* a, const void* b) {
  const rc_chain_t& x = g_sort_chains[*static_cast<const int*>(a)];
  const rc_chain_t& y = g_sort_chains[*static_cast<const int*>(b)];
  if (x.t0 != y.t0) return x.t0 < y.t0 ? -1 : 1;
  if (x.beg != y.beg) return x.beg < y.beg ? -1 : 1;
  return 0;
}

const int kSpanCh = RC_SPAN_CHANNELS;

}  // namespace

// The reading window shared by scan and replay: buf holds device bytes
// [base, base + have); next is the first byte not yet read.
struct rc_window {
  fs_recover* r;
  long long base, next, stop;
  int have;
  bool count;  // scan: count bytes read and report progress

  // Moves buf[at, have) to the front and reads on. false when nothing is left to read.
  bool refill(int& at) {
    if (next >= stop) return false;
    int keep = have - at;
    if (keep > 0 && at > 0) memmove(r->buf, r->buf + at, static_cast<size_t>(keep));
    base += at;
    have = keep;
    at = 0;
    long long left = stop - next;
    int n = r->buf_cap - have;
    if (n > r->chunk) n = r->chunk;
    if (left < n) n = static_cast<int>(left);
    if (r->io->read(r->buf + have, n, next) != 0) {
      // A bad stretch of the disk: zeros read as no block, the scan goes on past it.
      memset(r->buf + have, 0, static_cast<size_t>(n));
      if (count) r->st.unreadable += n;
    }
    if (count) r->st.bytes_read += n;
    have += n;
    next += n;
    if (count && r->progress)
      r->progress(r->progress_ctx, next - r->ring_beg, r->ring_end - r->ring_beg);
    return true;
  }
};

int fs_recover::head_len(const unsigned char* p) {
  head_t h;
  memcpy(&h, p, sizeof h);
  if (!block_head_valid(h)) return 0;
  if (h.size < 0 || h.size > RC_MAX_BLOCK - BLOCK_OVERHEAD) return 0;
  return h.size + BLOCK_OVERHEAD;
}

int fs_recover::check_frames(const head_t& h, const unsigned char* data) {
  // Beside each frame's own bounds, the head's summary of its frames must agree: the
  // frame count (word 7), the type bits (word 8) and the per-channel counts.
  int32_t counts[59];
  memset(counts, 0, sizeof counts);
  uint32_t types = 0;
  int off = 0, size = h.size;
  uint32_t n = 0;
  while (off < size) {
    // Lengths come from the disk: compared in 64 bits, so no sum wraps.
    if (size - off < FRAME_HEAD) return -1;
    frame_head_t f;
    memcpy(&f, data + off, sizeof f);
    if (f.type >= FRAME_INVALID) return -1;
    if (static_cast<long long>(f.len) > static_cast<long long>(size - off - FRAME_HEAD)) return -1;
    off += FRAME_HEAD + static_cast<int>(f.len);
    types |= 1u << f.type;
    if (f.ch < 59) counts[f.ch]++;
    n++;
  }
  if (n != h.frames || types != h.types) return -1;
  for (int ch = 0; ch < 59; ch++)
    if (counts[ch] != h.count[ch]) return -1;
  return static_cast<int>(n);
}

int fs_recover::push_span(const rc_span_t& s) {
  if (!grow(spans, span_cap, span_cnt + 1)) return -1;
  spans[span_cnt++] = s;
  return 0;
}

void fs_recover::note_chain(long long pos, int len, int t, int frame_block) {
  (void)frame_block;
  if (chain_cnt > 0 && chains[chain_cnt - 1].end == pos) {
    rc_chain_t& c = chains[chain_cnt - 1];
    c.end = pos + len;
    if (t < c.t0) c.t0 = t;
    if (t > c.t1) c.t1 = t;
    c.blocks++;
    return;
  }
  if (!grow(chains, chain_cap, chain_cnt + 1)) return;
  rc_chain_t c = {pos, pos + len, t, t, 1};
  chains[chain_cnt++] = c;
}

void fs_recover::note_spans(const unsigned char* p, int reach) {
  head_t h;
  memcpy(&h, p, sizeof h);
  const unsigned char* d = p + BLOCK_HEAD;
  int frames[kSpanCh][2];
  long long bytes[kSpanCh][2];
  memset(frames, 0, sizeof frames);
  memset(bytes, 0, sizeof bytes);
  uint64_t touched = 0;
  // The block's frames were checked to fill it exactly before it was taken; the walker
  // bounds every frame by the block all the same.
  block_frames(h, d, [&](const frame_head_t& f, const char*) {
    int sub = f.stream == BLOCK_STREAM_SUB || (f.stream < 2 && h.stream == BLOCK_STREAM_SUB);
    if (f.ch < static_cast<uint32_t>(kSpanCh)) {
      if (frame_is_video(f.type)) frames[f.ch][sub]++;
      bytes[f.ch][sub] += FRAME_HEAD + static_cast<long long>(f.len);
      touched |= 1ULL << (f.ch * 2 + sub);
    }
    return true;
  });
  for (int ch = 0; ch < kSpanCh; ch++) {
    for (int sub = 0; sub < 2; sub++) {
      if (!(touched & (1ULL << (ch * 2 + sub)))) continue;
      rc_span_t& s = open_s[ch][sub];
      unsigned char& live = open_live[ch][sub];
      if (live &&
          (s.reach != reach || h.time < s.t0 - RC_SPAN_GAP || h.time > s.t1 + RC_SPAN_GAP)) {
        push_span(s);
        live = 0;
      }
      if (!live) {
        rc_span_t n = {ch, sub, reach, h.time, h.time, 0, 0, 0};
        s = n;
        live = 1;
      }
      if (h.time < s.t0) s.t0 = h.time;
      if (h.time > s.t1) s.t1 = h.time;
      s.blocks++;
      s.frames += frames[ch][sub];
      s.bytes += bytes[ch][sub];
    }
  }
}

// Spans closed during the scan come in disk order; sorted, the pieces of one run
// (split where the ring wrapped or a minute's region ended) join again.
void fs_recover::finish_spans() {
  for (int ch = 0; ch < kSpanCh; ch++)
    for (int sub = 0; sub < 2; sub++)
      if (open_live[ch][sub]) push_span(open_s[ch][sub]);
  if (span_cnt == 0) return;
  qsort(spans, static_cast<size_t>(span_cnt), sizeof *spans, cmp_span);
  int w = 0;
  for (int i = 1; i < span_cnt; i++) {
    rc_span_t& a = spans[w];
    const rc_span_t& b = spans[i];
    if (a.ch == b.ch && a.sub == b.sub && a.reach == b.reach && b.t0 <= a.t1 + RC_SPAN_GAP) {
      if (b.t1 > a.t1) a.t1 = b.t1;
      a.blocks += b.blocks;
      a.frames += b.frames;
      a.bytes += b.bytes;
    } else {
      spans[++w] = b;
    }
  }
  span_cnt = w + 1;
}

// A block whose head and tail hold, at device offset pos.
int fs_recover::take(long long pos, const unsigned char* p, int len, int from, int to,
                     rc_visit_fn fn, void* ctx) {
  head_t h;
  memcpy(&h, p, sizeof h);
  bool record = is_record(h);
  if (!record && check_frames(h, p + BLOCK_HEAD) < 0) {
    st.bad_frames++;
    return 0;
  }
  if (h.time < from || h.time > to) return 0;
  rc_block_t b = {pos, p, len, reach_of(pos, len, h.time), record ? 0 : 1};
  st.blocks++;
  st.bytes += len;
  if (record) {
    st.record_blocks++;
  } else {
    st.frame_blocks++;
    st.by_reach[b.reach] += len;
    note_spans(p, b.reach);
  }
  note_chain(pos, len, h.time, b.frame_block);
  return fn != nullptr ? fn(ctx, b) : 0;
}

int fs_recover::scan(int from, int to, rc_visit_fn fn, void* ctx) {
  if (io == nullptr || ring_end <= ring_beg) return -1;
  if (buf == nullptr) {
    if (chunk <= 0) chunk = kChunk;
    buf_cap = chunk + RC_MAX_BLOCK;
    buf = static_cast<unsigned char*>(malloc(static_cast<size_t>(buf_cap)));
    if (buf == nullptr) return -1;
  }
  memset(&st, 0, sizeof st);
  chain_cnt = span_cnt = 0;
  memset(open_live, 0, sizeof open_live);
  rc_window w = {this, ring_beg, ring_beg, ring_end, 0, true};
  int at = 0;
  bool stopped = false;
  while (!stopped) {
    // The next place where the sync word's four bytes (34 12 00 00) begin.
    const unsigned char* p = buf + at;
    const unsigned char* end = buf + w.have;
    const unsigned char* hit = nullptr;
    while (end - p >= 4) {
      p = static_cast<const unsigned char*>(memchr(p, 0x34, static_cast<size_t>(end - p - 3)));
      if (p == nullptr) break;
      if (word(p) == BLOCK_SYNC) {
        hit = p;
        break;
      }
      p++;
    }
    if (hit == nullptr) {
      // Up to three bytes at the end may begin a sync word that the next read completes.
      if (w.have - at > 3) at = w.have - 3;
      if (!w.refill(at)) break;
      continue;
    }
    at = static_cast<int>(hit - buf);
    if (w.have - at < BLOCK_HEAD) {
      if (!w.refill(at)) break;
      continue;
    }
    long long pos = w.base + at;
    int len = head_len(buf + at);
    if (len == 0 || len > ring_end - pos) {
      at++;
      continue;
    }
    if (len > w.have - at) {
      if (!w.refill(at)) break;
      continue;
    }
    const unsigned char* t = buf + at + len - BLOCK_TAIL;
    if (word(t) != BLOCK_TAIL_SYNC || word(t + 4) != static_cast<uint32_t>(len - BLOCK_OVERHEAD)) {
      st.no_tail++;
      at++;
      continue;
    }
    if (take(pos, buf + at, len, from, to, fn, ctx) != 0) stopped = true;
    at += len;
  }
  finish_spans();
  if (st.bytes_read == 0 || st.bytes_read == st.unreadable) return -1;
  return static_cast<int>(st.blocks > 0x7FFFFFFF ? 0x7FFFFFFF : st.blocks);
}

int fs_recover::replay(const rc_chain_t& c, int from, int to, rc_visit_fn fn, void* ctx) {
  if (io == nullptr || buf == nullptr || c.beg < ring_beg || c.end > ring_end || c.end < c.beg)
    return -1;
  rc_window w = {this, c.beg, c.beg, c.end, 0, false};
  int at = 0;
  while (w.base + at < c.end) {
    if (w.have - at < BLOCK_HEAD && !w.refill(at)) return -1;
    if (w.have - at < BLOCK_HEAD) continue;
    int len = head_len(buf + at);
    if (len == 0) return -1;  // the disk changed under the scan
    while (len > w.have - at)
      if (!w.refill(at)) return -1;
    const unsigned char* t = buf + at + len - BLOCK_TAIL;
    if (word(t) != BLOCK_TAIL_SYNC || word(t + 4) != static_cast<uint32_t>(len - BLOCK_OVERHEAD))
      return -1;
    head_t h;
    memcpy(&h, buf + at, sizeof h);
    bool record = is_record(h);
    if ((record || check_frames(h, buf + at + BLOCK_HEAD) >= 0) && h.time >= from && h.time <= to) {
      long long pos = w.base + at;
      rc_block_t b = {pos, buf + at, len, reach_of(pos, len, h.time), record ? 0 : 1};
      if (fn(ctx, b) != 0) return 1;
    }
    at += len;
  }
  return 0;
}

int fs_recover::chain_order(int* order) {
  for (int i = 0; i < chain_cnt; i++) order[i] = i;
  g_sort_chains = chains;
  if (chain_cnt > 1) qsort(order, static_cast<size_t>(chain_cnt), sizeof *order, cmp_chain);
  return chain_cnt;
}
