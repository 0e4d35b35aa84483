// The recording service's use of an entry's 252-byte payload (entry offset 72 on).
//   hour entry                          minute entry
//   off size                            off size
//    72    8 minute mask (bit m)         72    8 second mask (bit s)
//    80    4 event bits of its minutes   80    4 event bits of its blocks
//                                        84  4*n frames per channel, n = ch_num
// Internal to the library.
#ifndef RINGREC_RECORDING_PAYLOAD_H
#define RINGREC_RECORDING_PAYLOAD_H

#include <ringrec/records.h>
#include <stdint.h>
#include <string.h>

// Payload offsets (from entry offset 72).
const int kPayMask = 0;
const int kPayEvents = 8;
const int kPayCounts = 12;

inline uint64_t rec_get_mask(const entry_t& e) {
  uint64_t v;
  memcpy(&v, e.payload + kPayMask, 8);
  return v;
}
inline void rec_set_mask(entry_t& e, uint64_t v) { memcpy(e.payload + kPayMask, &v, 8); }
inline uint32_t rec_get_events(const entry_t& e) {
  uint32_t v;
  memcpy(&v, e.payload + kPayEvents, 4);
  return v;
}
inline void rec_set_events(entry_t& e, uint32_t v) { memcpy(e.payload + kPayEvents, &v, 4); }
inline int32_t rec_get_count(const entry_t& e, int ch) {
  int32_t v;
  memcpy(&v, e.payload + kPayCounts + 4 * ch, 4);
  return v;
}
// Sums wrap like the 32-bit words they are.
inline void rec_add_count(entry_t& e, int ch, int32_t add) {
  uint32_t v = static_cast<uint32_t>(rec_get_count(e, ch)) + static_cast<uint32_t>(add);
  memcpy(e.payload + kPayCounts + 4 * ch, &v, 4);
}

// Bit numbers for the masks: second of the minute and minute of the hour. Times
// before 1970 would give negative remainders, which are folded into range so that a
// shift count is never negative.
inline int second_bit(int t) {
  int s = t % 60;
  return s < 0 ? s + 60 : s;
}
inline int minute_bit(int t) {
  int m = (t % 3600) / 60;
  return m < 0 ? m + 60 : m;
}

// Wall-clock slot of the live records: (time mod 60) / width.
inline int live_slot(long long now, int width) {
  long long s = now % 60;
  if (s < 0) s += 60;
  return static_cast<int>(s) / width;
}

#endif
