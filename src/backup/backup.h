// What the backup readers and writers share. Internal to the library.
#ifndef RINGREC_BACKUP_BACKUP_H
#define RINGREC_BACKUP_BACKUP_H

#include <ringrec/fs_app.h>
#include <stdint.h>

// Ranges the multi-slot selection holds.
const int kBkSlots = 5;

// The read buffer a writer starts its run with.
const int kBkBufSize = 0x80000;

// Set bits of a channel mask (all 32 positions).
int bk_channels(uint32_t mask);

// Progress in percent of done work units over total; a total of -1 gives
// -(done * 100) and a total of 0 (a mask without channels) gives 100.
int bk_percent(int done, int total);

// True while the cancel marker "/tmp/bk_cancel" exists.
bool bk_cancelled();

// Deletes the MP4 writers still held by the first num items and frees the array.
void bk_free_items(bk_item_t*& items, int32_t& cap, int32_t num);

#endif
