// What search and playback share: reading a whole table, name tests, the hour and
// minute records an entry carries from its time field on, and the result lists.
// Internal to the library.
#ifndef RINGREC_PLAYBACK_TABLE_WALK_H
#define RINGREC_PLAYBACK_TABLE_WALK_H

#include <ringrec/entry_names.h>
#include <ringrec/fs_app.h>
#include <string.h>

#include <vector>

namespace pb {

inline bool is_hour(const entry_t& e) { return entry_is_hour(e.name); }
inline bool is_min(const entry_t& e) { return entry_is_min(e.name); }
// Names are 32-byte fields that a damaged entry may leave unterminated.
inline bool same_name(const entry_t& a, const entry_t& b) {
  return strncmp(a.name, b.name, sizeof a.name) == 0;
}

inline hour_rec_t hour_rec(const entry_t& e) {
  hour_rec_t r;
  memcpy(&r, &e.time, sizeof r);
  return r;
}
inline min_rec_t min_rec(const entry_t& e) {
  min_rec_t r;
  memcpy(&r, &e.time, sizeof r);
  return r;
}

// Bit of the minute mask that holds t's minute of its hour (never a negative shift).
int minute_of_hour(int t);
// Hour and minute spans, inclusive; end 0 means no upper bound.
inline bool hour_in(int time, int beg, int end) {
  int h = time / 3600;
  return beg / 3600 <= h && (end == 0 || h <= end / 3600);
}
inline bool min_in(int time, int beg, int end) {
  int m = time / 60;
  return beg / 60 <= m && (end == 0 || m <= end / 60);
}

// Reads the header of a table and every entry of it in one transfer: the root table
// when `owner` is null, else the child table at the start of owner's region. The count
// comes from the disk: it is cut to the entries that can lie where the table is (the
// root's room before the ring, a child's inside its owner's region), so a damaged count
// never asks for gigabytes or a walk of a million entries. The entries go to the heap
// rather than the stack: a root table of a long-lived disk holds thousands.
// 0; -1 when the header cannot be read; -2 when the entries cannot (or there are none).
int read_table(fs_db* db, const entry_t* owner, entryX_t& x, std::vector<entry_t>& v);
// The entry count to visit one by one with e_read, bounded the same way.
int table_len(fs_db* db, const entryX_t& x, const entry_t* owner);
// The same without an owner: only the room the volume has where the table lies.
inline int table_len(fs_db* db, const entryX_t& x) { return table_len(db, x, nullptr); }

// Appends one record to a result list, growing it by 128 elements; never shrinks.
// When memory runs out the record is dropped rather than written through a null.
void list_add(unsigned char*& buf, int& cap, int& cnt, const void* rec, size_t size);

// Sort of the result lists by their first word, a time. Compared rather than
// subtracted: a difference of two arbitrary times overflows.
void sort_by_time(void* buf, int cnt, size_t size);

// Location of an hour record in the navigation lists: disk-table slot in the high 16
// bits, root index in the low 16.
inline uint32_t loc_make(int slot, int idx) {
  return (static_cast<uint32_t>(slot) << 16) | (static_cast<uint32_t>(idx) & 0xFFFF);
}
inline int loc_slot(uint32_t loc) { return static_cast<int>(loc >> 16); }
inline int loc_idx(uint32_t loc) { return static_cast<int>(loc & 0xFFFF); }

}  // namespace pb

#endif
