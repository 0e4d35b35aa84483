// What the library and its application share outside the function calls: the
// semaphore set that carries backup progress, and the files whose mere existence
// switches a behaviour or that the application prepares. Every path is logical:
// the library reaches it through its root resolver.
#ifndef RINGREC_APP_INTERFACE_H
#define RINGREC_APP_INTERFACE_H

// Backup progress: a System V set of two semaphores, created by the application,
// keyed by ftok(BK_SEM_PATH, BK_SEM_PROJ).
const char BK_SEM_PATH[] = "/.";
const int BK_SEM_PROJ = 66;

// Backup: cancels a running backup while it exists.
const char BK_CANCEL_MARKER[] = "/tmp/bk_cancel";
// IRF file headers the application prepares: single and multi-slot writers.
const char IRF_HEADER_FILE[] = "/tmp/header.irf";
const char IRF_HEADER_H264_FILE[] = "/tmp/header.h264";

// Recording: every minute gets its own hour entry while this exists.
const char HDD_PER_MINUTE_MARKER[] = "/tmp/hdd";
// Test mode: a formatted volume is 3 GiB, and the write path logs every block.
const char TEST_MODE_MARKER[] = "/zconf/rd/fs/test";
// Every loaded event row is printed while this exists.
const char FS_DEBUG_MARKER[] = "/tmp/fs_debug";

#endif
