// MP4 export internals: the file-size limit at which a file is continued in the next,
// and the file names of the plan. Internal to the library (and its tests).
#ifndef RINGREC_BACKUP_MP4_EXPORT_H
#define RINGREC_BACKUP_MP4_EXPORT_H

#include <stddef.h>

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

#endif
