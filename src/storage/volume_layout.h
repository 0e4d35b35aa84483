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

// Offsets and sizes read from a damaged superblock or entry can be anything a sealed
// record lets through; sums of them wrap as the 64-bit words they are instead of
// overflowing (for every value a volume writes itself, this is plain addition).
inline long long add64(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) +
                                static_cast<unsigned long long>(b));
}
inline long long sub64(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) -
                                static_cast<unsigned long long>(b));
}

// Byte offset of entry i of the table whose header lies at xoff.
inline long long entry_pos(long long xoff, long long i) {
  return add64(
      xoff, static_cast<long long>(sizeof(entryX_t)) + static_cast<long long>(sizeof(entry_t)) * i);
}

// How many of a table's `num` entries a walk visits. The count comes from disk and may
// be anything a sealed header lets through; walking it literally could mean two
// billion failing reads, each tried three times. Entries can only lie where a table
// has room: the root table's between its header and the ring (12,945 of them; beyond
// that are region bytes), a child table's inside the ring, and none past the end of
// the device. The walk stops there; on every table the volume itself wrote this is
// `num` unchanged.
int walk_limit(fs_io* io, const sb_t& sb, long long xoff, int num);

// Names are 32-byte fields that a damaged entry may leave without a NUL; they are
// printed with "%.32s" so the printf never reads past the field, and compared with
// name_eq, which treats a full field as a 32-character name.
// Where the ring's live data begins, from the root table: the region of its first entry,
// or the start of the ring (head and tail both) when the table is empty; written to the
// superblock when it moved. Shared by remove and chkdsk, whose messages carry their own
// names and line numbers. 0; -1 when the first or last entry is unreadable; -2 when the
// superblock write failed.
struct bounds_lines {
  const char* fn;
  int empty, first_err, last_err, summary;
};
int ring_bounds(fs_db& db, entryX_t& x, const bounds_lines& l);

bool name_eq(const char* field, const char* name);

}  // namespace vol

#endif
