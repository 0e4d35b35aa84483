// fs_mp4 box serialisation. Every box has a size operation and a writer; the size
// operation adds up exactly the fields its writer appends, so a writer can put its size
// first without going back. All fields are big-endian.
#include <ringrec/audio.h>
#include <ringrec/fs_mp4.h>
#include <stdlib.h>
#include <string.h>

#include "mp4/mp4_box.h"
#include "mp4/mp4_tab.h"

namespace {

const unsigned int kUnity[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

const unsigned int kAudioPer = 321;  // PCM sample frames in one recorded audio chunk

}  // namespace

// ---- box buffer -------------------------------------------------------------------

// Grows by 1024 bytes at a time until n more fit. Every append is at most 1024 bytes
// (parameter sets are capped at that), so this is a single step; the loop only keeps a
// larger append from running past the buffer. A failed realloc drops the append.
void fs_mp4::w_nbyte(const void* data, unsigned int n) {
  if (box_len + n > box_cap) {
    unsigned int c = box_cap;
    while (box_len + n > c) c += BOX_STEP;
    char* p = static_cast<char*>(realloc(box, c));
    if (!p) return;
    box = p;
    box_cap = c;
  }
  if (data)
    memcpy(box + box_len, data, n);
  else
    memset(box + box_len, 0, n);
  box_len += n;
}

void fs_mp4::w_nbyte(unsigned int n) { w_nbyte(nullptr, n); }

void fs_mp4::w_u8(unsigned int v) {
  unsigned char b = static_cast<unsigned char>(v);
  w_nbyte(&b, 1);
}

void fs_mp4::w_u16(unsigned int v) {
  unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  w_nbyte(b, 2);
}

void fs_mp4::w_u32(unsigned int v) {
  unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  w_nbyte(b, 4);
}

void fs_mp4::w_4cc(const char* name) { w_nbyte(name, static_cast<unsigned int>(strlen(name))); }

void fs_mp4::w_box(FILE* f) { fwrite(box, 1, box_len, f); }

// ---- which entry, which table -----------------------------------------------------

bool fs_mp4::is_hvc1() { return strcmp(codec, "hvc1") == 0; }

bool fs_mp4::has_pasp() {
  return (trk[0].width == 960 || trk[0].width == 944) &&
         (trk[0].height == 1080 || trk[0].height == 1088);
}

// The audio track gets mp4a for audtype 1 and sowt for 2; any other audtype, and the
// video track always, get the video entry.
int fs_mp4::entry_kind(int t) {
  if (t == 1 && audtype == 1) return ENTRY_MP4A;
  if (t == 1 && audtype == 2) return ENTRY_SOWT;
  return ENTRY_VIDEO;
}

// PCM audio is described by one sample size for all samples.
bool fs_mp4::pcm_table(int t) { return t == 1 && audtype == 2; }

// ---- sizes --------------------------------------------------------------------------

unsigned int fs_mp4::ftyp_sz() { return kHdr + 4 + 4 + 4 + 4; }
unsigned int fs_mp4::mvhd_sz() { return kFull + 4 + 4 + 4 + 4 + 4 + 2 + 10 + 36 + 24 + 4; }
unsigned int fs_mp4::tkhd_sz() { return kFull + 4 + 4 + 4 + 4 + 4 + 8 + 2 + 2 + 2 + 2 + 36 + 8; }
unsigned int fs_mp4::mdhd_sz() { return kFull + 4 + 4 + 4 + 4 + 2 + 2; }
unsigned int fs_mp4::hdlr_sz() { return kFull + 4 + 4 + 12 + 10; }
unsigned int fs_mp4::vmhd_sz() { return kFull + 8; }
unsigned int fs_mp4::smhd_sz() { return kFull + 4; }
unsigned int fs_mp4::url_sz() { return kFull; }
unsigned int fs_mp4::dref_sz() { return kFull + 4 + url_sz(); }
unsigned int fs_mp4::dinf_sz() { return kHdr + dref_sz(); }
unsigned int fs_mp4::stts_sz(int t) { return kFull + 4 + 8 * trk[t].stts.cnt; }
unsigned int fs_mp4::stsc_sz(int) { return kFull + 4 + 12; }
unsigned int fs_mp4::stsz_sz(int t) { return kFull + 8 + (pcm_table(t) ? 0 : 4 * trk[t].stsz.cnt); }
unsigned int fs_mp4::stco_sz(int t) { return kFull + 4 + 4 * trk[t].stco.cnt; }
unsigned int fs_mp4::stss_sz(int t) { return kFull + 4 + 4 * trk[t].stss.cnt; }
unsigned int fs_mp4::stbl_sz(int t) {
  return kHdr + stsd_sz(t) + stts_sz(t) + stsc_sz(t) + stsz_sz(t) + stco_sz(t) +
         (t == 0 ? stss_sz(t) : 0);
}
unsigned int fs_mp4::minf_sz(int t) {
  return kHdr + (t == 0 ? vmhd_sz() : smhd_sz()) + dinf_sz() + stbl_sz(t);
}
unsigned int fs_mp4::mdia_sz(int t) { return kHdr + mdhd_sz() + hdlr_sz() + minf_sz(t); }
unsigned int fs_mp4::trak_sz(int t) { return kHdr + tkhd_sz() + mdia_sz(t); }
unsigned int fs_mp4::moov_sz() {
  return kHdr + mvhd_sz() + (trk[0].bytes ? trak_sz(0) : 0) + (trk[1].bytes ? trak_sz(1) : 0);
}
unsigned int fs_mp4::mdat_sz(unsigned int size) { return kHdr + size; }

// ---- writers ------------------------------------------------------------------------

void fs_mp4::ftyp() {
  w_u32(ftyp_sz());
  w_4cc("ftyp");
  if (is_hvc1()) {
    w_4cc("iso4");
    w_u32(1);
    w_4cc("iso4");
    w_4cc("hvc1");
  } else {
    w_4cc("isom");
    w_u32(1);
    w_4cc("isom");
    w_4cc("    ");
  }
}

void fs_mp4::mdat(unsigned int size) {
  w_u32(mdat_sz(size));
  w_4cc("mdat");
}

void fs_mp4::moov() {
  w_u32(moov_sz());
  w_4cc("moov");
  mvhd();
  if (trk[0].bytes) trak(0);
  if (trk[1].bytes) trak(1);
}

void fs_mp4::mvhd() {
  w_u32(mvhd_sz());
  w_4cc("mvhd");
  w_u32(0);
  w_u32(trk[0].ctime);
  w_u32(trk[0].ctime);
  w_u32(trk[0].movie_timescale);
  w_u32(trk[0].movie_duration);
  w_u32(0x00010000);  // rate 1.0
  w_u16(0x0100);      // volume 1.0
  w_nbyte(10);
  for (unsigned int m : kUnity) w_u32(m);
  w_nbyte(24);
  w_u32(1 + (trk[0].bytes ? 1 : 0) + (trk[1].bytes ? 1 : 0));  // next track ID
}

void fs_mp4::trak(int t) {
  w_u32(trak_sz(t));
  w_4cc("trak");
  tkhd(t);
  mdia(t);
}

void fs_mp4::tkhd(int t) {
  w_u32(tkhd_sz());
  w_4cc("tkhd");
  w_u32(1);  // version 0, flags 1: enabled
  w_u32(trk[t].ctime);
  w_u32(trk[t].ctime);
  w_u32(t == 0 ? 1 : (trk[0].bytes ? 2 : 1));  // track ID
  w_nbyte(4);
  w_u32(trk[t].track_duration);
  w_nbyte(8);
  w_u16(0);                    // layer
  w_u16(0);                    // alternate group
  w_u16(t == 0 ? 0 : 0x0100);  // volume
  w_nbyte(2);
  for (unsigned int m : kUnity) w_u32(m);
  w_u32(static_cast<unsigned int>(trk[t].width) << 16);  // 16.16 fixed point
  w_u32(static_cast<unsigned int>(trk[t].height) << 16);
}

void fs_mp4::mdia(int t) {
  w_u32(mdia_sz(t));
  w_4cc("mdia");
  mdhd(t);
  hdlr(t);
  minf(t);
}

void fs_mp4::mdhd(int t) {
  w_u32(mdhd_sz());
  w_4cc("mdhd");
  w_u32(0);
  w_u32(trk[t].ctime);
  w_u32(trk[t].ctime);
  w_u32(trk[t].media_timescale);
  w_u32(trk[t].media_duration);
  w_u16(0x15C7);  // "und", three 5-bit letters
  w_nbyte(2);
}

void fs_mp4::hdlr(int t) {
  w_u32(hdlr_sz());
  w_4cc("hdlr");
  w_u32(0);
  w_nbyte(4);
  w_4cc(t == 0 ? "vide" : "soun");
  w_nbyte(12);
  w_nbyte(t == 0 ? "ISO Video" : "ISO Sound", 10);  // with its terminating zero
}

void fs_mp4::minf(int t) {
  w_u32(minf_sz(t));
  w_4cc("minf");
  if (t == 0)
    vmhd();
  else
    smhd();
  dinf();
  stbl(t);
}

void fs_mp4::vmhd() {
  w_u32(vmhd_sz());
  w_4cc("vmhd");
  w_u32(1);
  w_nbyte(8);
}

void fs_mp4::smhd() {
  w_u32(smhd_sz());
  w_4cc("smhd");
  w_u32(0);
  w_nbyte(4);
}

void fs_mp4::dinf() {
  w_u32(dinf_sz());
  w_4cc("dinf");
  dref();
}

void fs_mp4::dref() {
  w_u32(dref_sz());
  w_4cc("dref");
  w_u32(0);
  w_u32(1);
  url();
}

void fs_mp4::url() {
  w_u32(url_sz());
  w_4cc("url ");
  w_u32(1);  // flags 1: the media is in this file
}

void fs_mp4::stbl(int t) {
  w_u32(stbl_sz(t));
  w_4cc("stbl");
  stsd(t);
  stts(t);
  stsc(t);
  stsz(t);
  stco(t);
  if (t == 0) stss(t);
}

void fs_mp4::stts(int t) {
  const mp4_tab2_t& s = trk[t].stts;
  w_u32(stts_sz(t));
  w_4cc("stts");
  w_u32(0);
  w_u32(s.cnt);
  for (unsigned int i = 0; i < s.cnt; i++) {
    w_u32(s.v[i]);
    w_u32(s.w[i]);
  }
}

void fs_mp4::stsc(int t) {
  const mp4_tab2_t& c = trk[t].stco;
  w_u32(stsc_sz(t));
  w_4cc("stsc");
  w_u32(0);
  w_u32(1);
  w_u32(1);                   // first chunk
  w_u32(c.cnt ? c.w[0] : 0);  // samples per chunk: 1 video, 321 audio
  w_u32(1);                   // sample description
}

void fs_mp4::stsz(int t) {
  const mp4_tab_t& s = trk[t].stsz;
  w_u32(stsz_sz(t));
  w_4cc("stsz");
  w_u32(0);
  if (pcm_table(t)) {
    w_u32(1);
    w_u32(s.cnt * kAudioPer);
    return;
  }
  w_u32(0);
  w_u32(s.cnt);
  for (unsigned int i = 0; i < s.cnt; i++) w_u32(s.v[i]);
}

void fs_mp4::stco(int t) {
  const mp4_tab2_t& c = trk[t].stco;
  w_u32(stco_sz(t));
  w_4cc("stco");
  w_u32(0);
  w_u32(c.cnt);
  for (unsigned int i = 0; i < c.cnt; i++) w_u32(c.v[i] + trk[t].data_base);
}

void fs_mp4::stss(int t) {
  const mp4_tab_t& s = trk[t].stss;
  w_u32(stss_sz(t));
  w_4cc("stss");
  w_u32(0);
  w_u32(s.cnt);
  for (unsigned int i = 0; i < s.cnt; i++) w_u32(s.v[i]);
}

// ---- file start and end -------------------------------------------------------------

namespace {
void box_reset(fs_mp4& m) {
  free(m.box);
  m.box = nullptr;
  m.box_cap = 0;
  m.box_len = 0;
}
}  // namespace

int fs_mp4::w_box_mdat(FILE* f, unsigned int size) {
  box_reset(*this);
  ftyp();
  mdat(size);
  w_box(f);
  return static_cast<int>(box_len);
}

int fs_mp4::w_box_mdat(FILE* f) { return w_box_mdat(f, trk[0].bytes + trk[1].bytes); }

void fs_mp4::w_box_moov(FILE* f) {
  box_reset(*this);
  mp4_trk_t& v = trk[0];
  mp4_trk_t& a = trk[1];
  if (v.stsz.cnt == 0) return;  // no video: no moov, and what is buffered stays there

  // Every video frame lasts 100 ticks of rate * 100 per second.
  tab_push(v.stts, v.stsz.cnt, 100);
  v.media_timescale = v.movie_timescale = v.rate * 100;
  v.media_duration = v.movie_duration = v.track_duration = v.stsz.cnt * 100;

  // Each audio chunk carries 321 sample frames at 8000 Hz.
  unsigned int delta = audtype == 1 ? 1024 : audtype == 2 ? 1 : 100;
  tab_push(a.stts, a.stsz.cnt * kAudioPer, delta);
  a.media_timescale = 8000;
  a.media_duration = a.track_duration = a.stco.cnt * kAudioPer;
  a.movie_timescale = 3000;
  a.movie_duration = v.movie_duration;

  v.data_base = a.data_base = ftyp_sz() + kHdr;

  moov();
  w_box(f);
  flush(f);
}
