// fs_mp4 sample descriptions: the stsd box and the sample entries in it (avc1 with
// avcC, hvc1 with hvcC, mp4a with esds, sowt), each size beside its writer's fields.
#include <ringrec/audio.h>
#include <ringrec/fs_mp4.h>
#include <string.h>

#include "mp4/mp4_box.h"

namespace {

// Elementary stream descriptor of AAC-LC, 8000 Hz, one channel, 128000 bit/s, decoder
// buffer 6144 bytes.
const unsigned char kEsds[27] = {0x03, 0x19, 0x00, 0x00, 0x00, 0x04, 0x11, 0x40, 0x15,
                                 0x00, 0x18, 0x00, 0x00, 0x01, 0xF4, 0x00, 0x00, 0x01,
                                 0xF4, 0x00, 0x05, 0x02, 0x15, 0x88, 0x06, 0x01, 0x02};

}  // namespace

unsigned int fs_mp4::avcC_sz() {
  return kHdr + 1 + 3 + 1 + 1 + 2 + trk[0].sps_sz + 1 + 2 + trk[0].pps_sz;
}
unsigned int fs_mp4::avc1_sz() { return kHdr + kVisual + avcC_sz() + (has_pasp() ? kPasp : 0); }
unsigned int fs_mp4::hvcC_sz() {
  return kHdr + 23 + 3 * (1 + 2 + 2) + trk[0].vps_sz + trk[0].sps_sz + trk[0].pps_sz;
}
unsigned int fs_mp4::hvc1_sz() { return kHdr + kVisual + hvcC_sz(); }
unsigned int fs_mp4::sowt_sz() { return kHdr + 6 + 2 + 2 + 6 + 2 + 2 + 2 + 4 + 16 + 2 + 24; }
unsigned int fs_mp4::esds_sz() { return kFull + sizeof kEsds; }
unsigned int fs_mp4::mp4a_sz() { return kHdr + 6 + 2 + 2 + 6 + 2 + 2 + 2 + 4 + 2 + esds_sz(); }
unsigned int fs_mp4::stsd_sz(int t) {
  unsigned int entry;
  switch (entry_kind(t)) {
    case ENTRY_MP4A:
      entry = mp4a_sz();
      break;
    case ENTRY_SOWT:
      entry = sowt_sz();
      break;
    default:
      entry = is_hvc1() ? hvc1_sz() : avc1_sz();
  }
  return kFull + 4 + entry;
}
void fs_mp4::stsd(int t) {
  w_u32(stsd_sz(t));
  w_4cc("stsd");
  w_u32(0);
  w_u32(1);
  switch (entry_kind(t)) {
    case ENTRY_MP4A:
      mp4a();
      break;
    case ENTRY_SOWT:
      sowt();
      break;
    default:
      if (is_hvc1())
        hvc1(t);
      else
        avc1(t);
  }
}

void fs_mp4::visualSampleEntry(int t) {
  w_nbyte(6);
  w_u16(1);  // data reference index
  w_nbyte(2 + 2 + 12);
  w_u16(trk[t].width);
  w_u16(trk[t].height);
  w_u32(0x00480000);  // 72 dpi
  w_u32(0x00480000);
  w_nbyte(4);
  w_u16(1);     // frames per sample
  w_nbyte(32);  // compressor name
  w_u16(24);    // depth
  w_u16(0xFFFF);
}

void fs_mp4::avc1(int t) {
  w_u32(avc1_sz());
  w_4cc("avc1");
  visualSampleEntry(t);
  avcC();
  if (has_pasp()) {
    // 960 or 944 wide pictures are shown stretched to 1920 x 1080.
    w_u32(kPasp);
    w_4cc("pasp");
    w_u32(1920);
    w_u32(1080);
  }
}

// Profile, compatibility and level come from SPS bytes 1 to 3. An SPS shorter than that
// (a file without a usable key frame) gives zeros instead of bytes past the copy.
void fs_mp4::avcC() {
  const mp4_trk_t& v = trk[0];
  w_u32(avcC_sz());
  w_4cc("avcC");
  w_u8(1);
  for (unsigned int i = 1; i <= 3; i++)
    w_u8(i < v.sps_sz ? static_cast<unsigned char>(v.sps[i]) : 0);
  w_u8(0xFF);  // 4-byte unit lengths
  w_u8(0xE1);  // one SPS
  w_u16(v.sps_sz);
  w_nbyte(v.sps, v.sps_sz);
  w_u8(1);
  w_u16(v.pps_sz);
  w_nbyte(v.pps, v.pps_sz);
}

void fs_mp4::hvc1(int t) {
  w_u32(hvc1_sz());
  w_4cc("hvc1");
  visualSampleEntry(t);
  hvcC();
}

// The general profile fields are the stored SPS's bytes 1 to 12 taken as they stand; an
// SPS shorter than 13 bytes gives zeros for the missing ones.
void fs_mp4::hvcC() {
  const mp4_trk_t& v = trk[0];
  w_u32(hvcC_sz());
  w_4cc("hvcC");
  w_u8(1);
  for (unsigned int i = 1; i <= 12; i++)
    w_u8(i < v.sps_sz ? static_cast<unsigned char>(v.sps[i]) : 0);
  w_u16(0xF000);
  w_u8(0xFC);
  w_u8(0xFC);
  w_u8(0xF8);
  w_u8(0xF8);
  w_u16(0);
  w_u8(0x0F);  // one temporal layer, nested, 4-byte unit lengths
  w_u8(3);
  const unsigned int type[3] = {0xA0, 0xA1, 0xA2};
  const unsigned int sz[3] = {v.vps_sz, v.sps_sz, v.pps_sz};
  const char* unit[3] = {v.vps, v.sps, v.pps};
  for (int k = 0; k < 3; k++) {
    w_u8(type[k]);
    w_u16(1);
    w_u16(sz[k]);
    w_nbyte(unit[k], sz[k]);
  }
}

// The start of both sound sample entries: reserved bytes, data reference 1, version 0,
// mono 16-bit.
void fs_mp4::sound_entry_head() {
  w_nbyte(6);
  w_u16(1);  // data reference index
  w_u16(0);  // version
  w_nbyte(6);
  w_u16(1);   // channels
  w_u16(16);  // bits per sample
  w_u16(0);
}

void fs_mp4::mp4a() {
  w_u32(mp4a_sz());
  w_4cc("mp4a");
  sound_entry_head();
  w_u32(8000);  // with the next two bytes: 8000.0 as 16.16
  w_nbyte(2);
  esds();
}

void fs_mp4::esds() {
  w_u32(esds_sz());
  w_4cc("esds");
  w_u32(0);
  w_nbyte(kEsds, sizeof kEsds);
}

void fs_mp4::sowt() {
  w_u32(sowt_sz());
  w_4cc("sowt");
  sound_entry_head();
  w_u32(8000);
  w_nbyte(16);
  w_u16(2);
  // Channel layout: mono.
  w_u32(24);
  w_4cc("chan");
  w_u32(0);
  w_u32(0x00640001);
  w_u32(0);
  w_u32(0);
}
