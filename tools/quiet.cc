#include "quiet.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace tool {

namespace {

bool g_verbose = false;
int g_depth = 0;
int g_saved = -1;    // the terminal's stderr while a scope holds descriptor 2
int g_capture = -1;  // the scratch file behind descriptor 2

void write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w <= 0) return;
    p += w;
    n -= static_cast<size_t>(w);
  }
}

}  // namespace

void set_verbose(bool on) { g_verbose = on; }
bool verbose() { return g_verbose; }

quiet::quiet() {
  if (g_depth++ > 0 || g_verbose) return;
  fflush(stderr);
  FILE* f = tmpfile();
  int fd = f != nullptr ? dup(fileno(f)) : open("/dev/null", O_WRONLY);
  if (f != nullptr) fclose(f);  // the dup keeps the unlinked file alive
  if (fd < 0) return;
  g_saved = dup(2);
  if (g_saved < 0) {
    close(fd);
    return;
  }
  fcntl(g_saved, F_SETFD, FD_CLOEXEC);
  dup2(fd, 2);
  g_capture = fd;
}

quiet::~quiet() {
  if (--g_depth > 0 || g_saved < 0) return;
  fflush(stderr);
  dup2(g_saved, 2);
  close(g_saved);
  g_saved = -1;
  close(g_capture);
  g_capture = -1;
}

std::string quiet::captured() {
  std::string out;
  if (g_capture < 0) return out;
  fflush(stderr);
  char buf[4096];
  long long at = 0;
  ssize_t n;
  while ((n = pread(g_capture, buf, sizeof buf, at)) > 0) {
    out.append(buf, static_cast<size_t>(n));
    at += n;
  }
  return out;
}

int quiet::captured_lines() {
  std::string s = captured();
  int n = 0;
  for (char c : s) n += c == '\n';
  return n;
}

int err_fd() { return g_saved >= 0 ? g_saved : 2; }

void err(const char* fmt, ...) {
  char buf[2048];
  int used = snprintf(buf, sizeof buf, "ringrec: ");
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf + used, sizeof buf - static_cast<size_t>(used) - 1, fmt, ap);
  va_end(ap);
  if (n > 0) used += n;
  if (used > static_cast<int>(sizeof buf) - 2) used = static_cast<int>(sizeof buf) - 2;
  buf[used++] = '\n';
  fflush(stderr);
  write_all(err_fd(), buf, static_cast<size_t>(used));
}

int fail(const std::string& msg) {
  err("%s", msg.c_str());
  return 1;
}

}  // namespace tool
