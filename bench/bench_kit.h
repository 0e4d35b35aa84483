// What the benchmarks share: the monotonic clock in seconds, exact counts of the
// library's positioned reads through the system-call table, a simulated monotonic clock
// for building recordings faster than real time, and the median and spread of runs.
#ifndef RINGREC_BENCH_KIT_H
#define RINGREC_BENCH_KIT_H

#include <time.h>

#include <algorithm>
#include <vector>

namespace bench {

inline double now_s() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Install with `counts().real = fs_sys.pread; fs_sys.pread = counting_pread;`.
struct pread_counts {
  long long reads = 0, bytes = 0;
  long long (*real)(int, void*, int, long long) = nullptr;
};
inline pread_counts& counts() {
  static pread_counts c;
  return c;
}
inline long long counting_pread(int fd, void* b, int n, long long off) {
  pread_counts& c = counts();
  c.reads++;
  c.bytes += n;
  return c.real(fd, b, n, off);
}

// While a recording is built, the monotonic clock follows capture time: the write path
// sizes region growth by how quickly growths follow each other.
inline long long& sim_mono_ms() {
  static long long ms = 0;
  return ms;
}
inline int sim_clock(clockid_t, struct timespec* ts) {
  ts->tv_sec = static_cast<time_t>(sim_mono_ms() / 1000);
  ts->tv_nsec = static_cast<long>(sim_mono_ms() % 1000) * 1000000L;
  return 0;
}

// Timings of interleaved runs: the median and the spread.
struct spread {
  double med, lo, hi;
};
inline spread summary(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}
// The same, collected run by run.
struct stat_t {
  std::vector<double> v;
  double median() const { return summary(v).med; }
  double lo() const { return summary(v).lo; }
  double hi() const { return summary(v).hi; }
};

}  // namespace bench

#endif
