// Names of the recording service's entries (32-byte name fields, zero-padded):
//
//   root table   "HOUR_<day>:<hh>"         one entry an hour; day = time / 86400,
//                                          hh = (time / 3600) % 24, two digits
//                "HOUR_<day>:<hh>:<mm>"    one entry a minute while /tmp/hdd exists
//   hour table   "MIN_<mm>:<ss>"           minute of the hour and second of its first
//                                          block, two digits each
//                "MIN_<mm>:<ss>-<n>"       the n-th retry when that name is taken
//
// Readers tell hours and minutes apart by the prefix alone.
#ifndef RINGREC_ENTRY_NAMES_H
#define RINGREC_ENTRY_NAMES_H

#include <stdio.h>
#include <string.h>

const char ENTRY_HOUR_PREFIX[] = "HOUR_";
const char ENTRY_MIN_PREFIX[] = "MIN_";

inline bool entry_is_hour(const char* name) {
  return strncmp(name, ENTRY_HOUR_PREFIX, sizeof ENTRY_HOUR_PREFIX - 1) == 0;
}
inline bool entry_is_min(const char* name) {
  return strncmp(name, ENTRY_MIN_PREFIX, sizeof ENTRY_MIN_PREFIX - 1) == 0;
}

// The hour entry of time t; per_minute gives every minute an hour entry of its own.
inline void entry_hour_name(char (&buf)[32], int t, bool per_minute) {
  if (per_minute)
    snprintf(buf, sizeof buf, "HOUR_%d:%.2d:%.2d", t / 86400, (t / 3600) % 24, (t / 60) % 60);
  else
    snprintf(buf, sizeof buf, "HOUR_%d:%.2d", t / 86400, (t / 3600) % 24);
}

// The minute entry of time t; retry > 0 names the retry-th alternative.
inline void entry_min_name(char (&buf)[32], int t, int retry) {
  if (retry > 0)
    snprintf(buf, sizeof buf, "MIN_%.2d:%.2d-%d", (t / 60) % 60, t % 60, retry);
  else
    snprintf(buf, sizeof buf, "MIN_%.2d:%.2d", (t / 60) % 60, t % 60);
}

#endif
