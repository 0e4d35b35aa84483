#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "runtime/runtime.h"

namespace {

// Lines longer than this are cut; no message of the library comes near it.
const int kLine = 2048;

void emit(char* buf, int used) {
  if (used < 0) return;
  if (used > kLine - 2) used = kLine - 2;
  if (used == 0 || buf[used - 1] != '\n') buf[used++] = '\n';
  const char* p = buf;
  while (used > 0) {
    ssize_t w = ::write(2, p, static_cast<size_t>(used));
    if (w <= 0) return;
    p += w;
    used -= static_cast<int>(w);
  }
}

int append(char* buf, int used, const char* fmt, va_list ap) {
  if (used >= kLine - 1) return used;
  int n = vsnprintf(buf + used, static_cast<size_t>(kLine - 1 - used), fmt, ap);
  if (n < 0) return used;
  return used + n > kLine - 2 ? kLine - 2 : used + n;
}

}  // namespace

void fs_log(const char* fn, int line, const char* fmt, ...) {
  char buf[kLine];
  int used = snprintf(buf, sizeof buf, "%s[%d]: ", fn, line);
  va_list ap;
  va_start(ap, fmt);
  used = append(buf, used, fmt, ap);
  va_end(ap);
  emit(buf, used);
}

void fs_log_hdd(const char* fn, int line, int hdd, const char* fmt, ...) {
  char buf[kLine];
  int used = snprintf(buf, sizeof buf, "%s[%d]: HDD%d: ", fn, line, hdd);
  va_list ap;
  va_start(ap, fmt);
  used = append(buf, used, fmt, ap);
  va_end(ap);
  emit(buf, used);
}

void fs_log_raw(const char* fmt, ...) {
  char buf[kLine];
  va_list ap;
  va_start(ap, fmt);
  int used = append(buf, 0, fmt, ap);
  va_end(ap);
  emit(buf, used);
}
