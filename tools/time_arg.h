// Times, days and numbers on the command line, and times in the tool's output.
//
// A TIME is seconds since 1970 ("1700000000") or a UTC date and time
// "YYYY-MM-DD HH:MM[:SS]" (a 'T' may stand for the space). A DATE is "YYYY-MM-DD".
// Recorders stamp their recordings in UTC seconds held in 32 bits, so the arithmetic is
// done here on plain integers: no time_t, which is 32 bits on the ARM boards.
#ifndef RINGREC_TOOL_TIME_ARG_H
#define RINGREC_TOOL_TIME_ARG_H

#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace tool {

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
inline long long days_from_civil(long long y, int m, int d) {
  y -= m <= 2;
  long long era = (y >= 0 ? y : y - 399) / 400;
  long long yoe = y - era * 400;
  long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

inline void civil_from_days(long long z, long long* y, int* m, int* d) {
  z += 719468;
  long long era = (z >= 0 ? z : z - 146096) / 146097;
  long long doe = z - era * 146097;
  long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  long long mp = (5 * doy + 2) / 153;
  *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *y = yoe + era * 400 + (*m <= 2);
}

// A whole number in C notation (42, 0x1F, 017); false on anything else.
inline bool parse_int(const std::string& s, long long* out) {
  if (s.empty()) return false;
  char* end = nullptr;
  long long v = strtoll(s.c_str(), &end, 0);
  if (*end != 0) return false;
  *out = v;
  return true;
}

namespace detail {
// Reads exactly `width` digits (or 1..width when width is negative) at s[*at].
inline bool digits(const std::string& s, size_t* at, int width, int* out) {
  int n = 0, v = 0, max = width < 0 ? -width : width;
  while (*at < s.size() && n < max && s[*at] >= '0' && s[*at] <= '9') {
    v = v * 10 + (s[*at] - '0');
    ++*at;
    n++;
  }
  *out = v;
  return width < 0 ? n > 0 : n == width;
}
inline bool expect(const std::string& s, size_t* at, const char* chars) {
  if (*at >= s.size()) return false;
  for (const char* c = chars; *c; c++)
    if (s[*at] == *c) {
      ++*at;
      return true;
    }
  return false;
}
inline int month_days(long long y, int m) {
  static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : days[m - 1];
}
// "YYYY-MM-DD" at s[*at]: the day's number since 1970.
inline bool date_at(const std::string& s, size_t* at, long long* day) {
  int y, m, d;
  if (!digits(s, at, 4, &y) || !expect(s, at, "-") || !digits(s, at, -2, &m) ||
      !expect(s, at, "-") || !digits(s, at, -2, &d))
    return false;
  if (m < 1 || m > 12 || d < 1 || d > month_days(y, m)) return false;
  *day = days_from_civil(y, m, d);
  return true;
}
}  // namespace detail

// "YYYY-MM-DD" (UTC): the second at which that day begins.
inline bool parse_day(const std::string& s, long long* out) {
  size_t at = 0;
  long long day;
  if (!detail::date_at(s, &at, &day) || at != s.size()) return false;
  *out = day * 86400;
  return true;
}

// Seconds since 1970, or "YYYY-MM-DD HH:MM[:SS]" / "YYYY-MM-DDTHH:MM[:SS]" in UTC.
inline bool parse_time(const std::string& s, long long* out) {
  if (!s.empty() && s.find_first_not_of("0123456789") == std::string::npos) {
    if (s.size() > 12) return false;
    *out = strtoll(s.c_str(), nullptr, 10);
    return true;
  }
  size_t at = 0;
  long long day;
  int h, mi, sec = 0;
  if (!detail::date_at(s, &at, &day) || !detail::expect(s, &at, " T") ||
      !detail::digits(s, &at, -2, &h) || !detail::expect(s, &at, ":") ||
      !detail::digits(s, &at, 2, &mi))
    return false;
  if (at < s.size() && (!detail::expect(s, &at, ":") || !detail::digits(s, &at, 2, &sec)))
    return false;
  if (at != s.size() || h > 23 || mi > 59 || sec > 59) return false;
  *out = day * 86400 + h * 3600 + mi * 60 + sec;
  return true;
}

// "YYYY-MM-DD HH:MM:SS" (UTC).
inline std::string fmt_time(long long t) {
  long long day = t >= 0 ? t / 86400 : -((-t + 86399) / 86400);
  long long s = t - day * 86400;
  long long y;
  int m, d;
  civil_from_days(day, &y, &m, &d);
  char buf[48];
  snprintf(buf, sizeof buf, "%04lld-%02d-%02d %02d:%02d:%02d", y, m, d, static_cast<int>(s / 3600),
           static_cast<int>(s / 60 % 60), static_cast<int>(s % 60));
  return buf;
}

// "YYYY-MM-DD" (UTC).
inline std::string fmt_day(long long t) { return fmt_time(t).substr(0, 10); }

}  // namespace tool

#endif
