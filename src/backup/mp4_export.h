// MP4 export internals: the file-size limit at which a file is continued in the next,
// and the file names of the plan. Internal to the library (and its tests).
#ifndef RINGREC_BACKUP_MP4_EXPORT_H
#define RINGREC_BACKUP_MP4_EXPORT_H

#include <ringrec/audio.h>
#include <ringrec/block.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "runtime/runtime.h"

// An export file is continued in a new one, at a key frame, once it holds this many
// bytes: 0x7FE00000 (2,145,386,496), just short of 2 GiB so that FAT32 sticks and
// 32-bit offsets in the sample tables both hold.
const unsigned int kMp4FileLimit = 0x7FE00000u;

// The limit in force. Tests lower it to split files without writing 2 GiB; nothing
// else changes it.
extern unsigned int bk_mp4_limit;

// Marker whose existence keeps one file across picture changes and names files ".avi".
extern const char* const kMp4SameFileMarker;

// The name of an export file from the UTC time of its first frame:
//   "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%dx%dx%d.m4v"  (attempt 0)
//   "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%dx%dx%d_%d.m4v"  (attempt 1, 2, ...)
// with ".avi" in place of ".m4v" when avi is set; ch counts from 0 and is printed from 1.
void mp4_file_name(char* out, size_t n, int time, int ch, int width, int height, int fps,
                   int attempt, bool avi);

// What the planning and the single-pass writers share.
inline bool same_file_marker() { return fs_access(kMp4SameFileMarker, F_OK) == 0; }

// The first four bytes of a recorded ADPCM frame.
inline bool adpcm_marker(const char* d, uint32_t n) {
  return n >= 4 && d[0] == 0x00 && d[1] == 0x01 && d[2] == 0x52 && d[3] == 0x00;
}

// The audio format travels in word 4 of an audio frame's head (the frames-per-second
// word of a picture); 2 means linear PCM that needs no conversion.
const uint32_t kAudioPcm = 2;

// A growable malloc'ed scratch buffer for converted audio.
struct scratch {
  char* p = nullptr;
  size_t cap = 0;
  ~scratch() { free(p); }
  bool reserve(size_t n) {
    if (n <= cap) return true;
    void* g = realloc(p, n);
    if (g == nullptr) return false;
    p = static_cast<char*>(g);
    cap = n;
    return true;
  }
};

// ADPCM to PCM into s; returns the PCM bytes (0 when nothing came out). A frame shorter
// than its 8-byte preamble holds no predictor to start from: converting it would read
// past the frame, so it yields nothing.
inline int convert_audio(scratch& s, const char* d, uint32_t n) {
  if (n < 8 || n > 0x1000000) return 0;
  // adpcm2lpcm writes 8 * ((n - 4) / 2) - 14 bytes, at least 2; 4n bounds both.
  if (!s.reserve(4 * static_cast<size_t>(n))) return 0;
  int out = 0;
  adpcm2lpcm(d, static_cast<int>(n), s.p, out);
  return out;
}

inline const char* codec_of(uint32_t key_type) {
  return key_type == FRAME_H265_KEY ? "hvc1" : "avc1";
}

#endif
