// Recorded audio (IMA ADPCM, 4 bits a sample) to 16-bit linear PCM for MP4 export, and
// the audio settings and staging buffer shared between the application and the exporter.
#ifndef RINGREC_AUDIO_H
#define RINGREC_AUDIO_H

// Converts the data of one recorded audio frame (after its frame header) to PCM.
//
//   offset  size   field
//   0       4      frame marker 00 01 52 00 (checked by the exporter, ignored here)
//   4       2      initial predictor, signed 16-bit little-endian
//   6       2      initial step index, signed 16-bit little-endian (0 to 88)
//   8       n - 8  codes, 4 bits each, read as little-endian 16-bit words, low nibble first
//
// Writes the initial predictor and then four samples per code word, signed 16-bit
// little-endian; a trailing odd byte is ignored. Always returns 0; outlen receives the
// bytes written. The caller's buffer holds at least 8 * ((n - 4) / 2) - 14 bytes (and
// at least 2).
int adpcm2lpcm(char const* in, int n, char* out, int& outlen);

// Converted audio gathered by the multi-slot exporter before it hands it to the MP4
// writer in 8000-byte pieces, and the number of bytes held.
extern char pcm[10000];
extern int pcm_sz;

// Audio type set by the application; the MP4 writer reads it to pick the audio sample
// entry: 1 AAC ("mp4a"), 2 linear PCM ("sowt", one table entry for all sample sizes).
extern int audtype;

#endif
