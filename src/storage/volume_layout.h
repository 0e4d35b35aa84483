// Constants of the volume layout and small helpers shared by the fs_db sources.
// Byte tables of the records are in include/ringrec/records.h and docs/format.md.
#ifndef RINGREC_STORAGE_VOLUME_LAYOUT_H
#define RINGREC_STORAGE_VOLUME_LAYOUT_H

#include <ringrec/fs_db.h>

namespace vol {

const long long kRootHeader = 0x400000;     // root table header; entries follow at +16
const long long kRingStart = 0x800000;      // first byte of the data area
const long long kOutside = 0xC00000;        // bytes of a device that lie outside the ring
const long long kUnit = 0x400000;           // allocation unit: 4 MiB
const long long kSecondaryBack = 0x400000;  // secondary superblock looked for at D - this
const int kSbWords = sizeof(sb_t) / 2;
const int kHeaderWords = sizeof(entryX_t) / 2;
const int kEntryWords = sizeof(entry_t) / 2;
const unsigned kRetryPause = 100000;  // microseconds between read attempts

// Byte offset of entry i of the table whose header lies at xoff.
inline long long entry_pos(long long xoff, long long i) {
  return xoff + static_cast<long long>(sizeof(entryX_t)) +
         static_cast<long long>(sizeof(entry_t)) * i;
}

// How many of a table's `num` entries can be visited. A count read from disk can be
// anything its checksum lets through; entries that would lie past the end of the
// device cannot be read at all, so walks stop there instead of failing (with retries
// and pauses) up to two billion times. On any table whose entries lie on the device
// this is `num` itself.
int walk_limit(fs_io* io, long long xoff, int num);

// Names are 32-byte fields that a damaged entry may leave without a NUL; they are
// printed with "%.32s" so the printf never reads past the field, and compared with
// name_eq, which treats a full field as a 32-character name.
bool name_eq(const char* field, const char* name);

}  // namespace vol

#endif
