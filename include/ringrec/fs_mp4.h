// fs_mp4: the recorder's MP4 muxer. Turns recorded H.264 / H.265 frames (start-code form)
// and linear PCM audio into one ISO base media file written front to back:
//
//   ftyp (24)  mdat header (8)  samples ...  moov
//
// The mdat size is given up front (learned by a scan pass) or taken from what was added;
// moov is built at the end from the sample tables collected by add().
//
// Driving order for one file: construct, set(), optionally scan() over every sample to
// size mdat, w_box_mdat(), then add() + w_data() per sample, w_box_moov(), g_box().
//
// Sample kinds: 0 H.264 key frame (SPS, PPS, then the picture), 1 H.264 other frame,
// 11 H.265 key frame (VPS, SPS, PPS, then the picture), 12 H.265 other frame, 2 audio.
// Every unit of a frame begins with the 4-byte start code 00 00 00 01; in mdat each
// start code becomes a 4-byte big-endian unit length.
#ifndef RINGREC_FS_MP4_H
#define RINGREC_FS_MP4_H

#include <stdio.h>

// A table of 32-bit values grown 256 entries at a time.
struct mp4_tab_t {
  unsigned int cap;
  unsigned int cnt;
  unsigned int* v;
};

// Two parallel tables sharing one count: (sample count, delta) for time-to-sample,
// (offset, samples per chunk) for chunks.
struct mp4_tab2_t {
  unsigned int cap;
  unsigned int cnt;
  unsigned int* v;
  unsigned int* w;
};

// One track: 0 video, 1 audio.
struct mp4_trk_t {
  unsigned int rate;  // frames per second (video)
  unsigned short width;
  unsigned short height;
  unsigned int ctime;  // creation and modification time, written as given
  unsigned int media_timescale;
  unsigned int movie_timescale;
  unsigned int media_duration;
  unsigned int movie_duration;
  unsigned int track_duration;
  unsigned int data_base;  // file offset of the first mdat data byte
  unsigned int bytes;      // sample bytes in mdat; a track without any is left out of moov
  mp4_tab2_t stts;         // v: sample count, w: sample delta
  // Parameter sets of the first key frame, without start codes (video only).
  unsigned int vps_sz;
  char* vps;
  unsigned int sps_sz;
  char* sps;
  unsigned int pps_sz;
  char* pps;
  mp4_tab_t stsz;   // sample sizes
  mp4_tab2_t stco;  // v: chunk offset within mdat data, w: samples per chunk
  mp4_tab_t stss;   // 1-based numbers of key frames (video only)
};

class fs_mp4 {
 public:
  enum { BUF_CAP = 0x10000, BOX_STEP = 1024, TAB_STEP = 256, PS_MAX = 1024 };

  const char* codec;  // "avc1" or "hvc1"; not owned

  // Output buffer: small units are gathered here so each does not cost a write.
  unsigned int cap;
  unsigned int fill;
  char buf[BUF_CAP];

  // Box buffer: ftyp + mdat header, or moov, serialised before going to the output.
  unsigned int box_cap;
  unsigned int box_len;
  char* box;

  mp4_trk_t trk[2];

  explicit fs_mp4(const char* codec);
  ~fs_mp4();

  const char* Codec();
  void set(unsigned short width, unsigned short height, unsigned int a, unsigned int b);

  int scan(int kind, const char* data, unsigned int len);
  int add(int kind, const char* data, unsigned int len);
  void w_data(int kind, FILE* f, const char* data, unsigned int len);
  int w_box_mdat(FILE* f, unsigned int size);
  int w_box_mdat(FILE* f);
  void w_box_moov(FILE* f);
  void g_box(unsigned int& box, unsigned int& data);
  unsigned int g_size();

  // Unit boundaries in start-code form.
  static unsigned int nal(const char* data, unsigned int len);
  static unsigned int nal_hevc(const char* data, unsigned int len, const char* which);

  // Buffered output.
  void fwrite(const void* p, unsigned int size, unsigned int n, FILE* f);
  void flush(FILE* f);

  // Box buffer appends, big-endian.
  void w_u8(unsigned int v);
  void w_u16(unsigned int v);
  void w_u32(unsigned int v);
  void w_4cc(const char* name);
  void w_nbyte(const void* data, unsigned int n);
  void w_nbyte(unsigned int n);
  void w_box(FILE* f);

  // Box sizes, from the same values their writers write.
  unsigned int ftyp_sz();
  unsigned int mvhd_sz();
  unsigned int tkhd_sz();
  unsigned int mdhd_sz();
  unsigned int hdlr_sz();
  unsigned int vmhd_sz();
  unsigned int smhd_sz();
  unsigned int url_sz();
  unsigned int dref_sz();
  unsigned int dinf_sz();
  unsigned int avcC_sz();
  unsigned int avc1_sz();
  unsigned int hvcC_sz();
  unsigned int hvc1_sz();
  unsigned int sowt_sz();
  unsigned int esds_sz();
  unsigned int mp4a_sz();
  unsigned int stts_sz(int t);
  unsigned int stsc_sz(int t);
  unsigned int stsz_sz(int t);
  unsigned int stco_sz(int t);
  unsigned int stss_sz(int t);
  unsigned int stsd_sz(int t);
  unsigned int stbl_sz(int t);
  unsigned int minf_sz(int t);
  unsigned int mdia_sz(int t);
  unsigned int trak_sz(int t);
  unsigned int moov_sz();
  unsigned int mdat_sz(unsigned int size);

  // Box writers: each appends its box to the box buffer, size first.
  void ftyp();
  void moov();
  void mvhd();
  void trak(int t);
  void tkhd(int t);
  void mdia(int t);
  void mdhd(int t);
  void hdlr(int t);
  void minf(int t);
  void vmhd();
  void smhd();
  void dinf();
  void dref();
  void url();
  void stbl(int t);
  void stsd(int t);
  void avc1(int t);
  void avcC();
  void hvc1(int t);
  void hvcC();
  void visualSampleEntry(int t);
  void sound_entry_head();
  void mp4a();
  void esds();
  void sowt();
  void stts(int t);
  void stsc(int t);
  void stsz(int t);
  void stco(int t);
  void stss(int t);
  void mdat(unsigned int size);

  // Sample entry kinds of a track's stsd.
  enum { ENTRY_VIDEO, ENTRY_MP4A, ENTRY_SOWT };
  int entry_kind(int t);
  bool is_hvc1();
  bool has_pasp();
  bool pcm_table(int t);

  // Owns heap tables: not copied.
  fs_mp4(const fs_mp4&) = delete;
  fs_mp4& operator=(const fs_mp4&) = delete;
};

#endif
