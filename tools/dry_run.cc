#include "dry_run.h"

#include <ringrec/fs_io.h>
#include <string.h>

#include <string>
#include <vector>

namespace tool {

namespace {

struct patch {
  int fd;
  long long off;
  std::string data;
};

std::vector<patch> g_patches;
fs_sys_t g_saved;
int g_changed_writes = 0;
long long g_changed_bytes = 0;

long long overlay_pread(int fd, void* buf, int n, long long off) {
  long long r = g_saved.pread(fd, buf, n, off);
  if (r < 0) return r;
  // Later patches lie over earlier ones, as later writes would.
  char* out = static_cast<char*>(buf);
  for (const patch& p : g_patches) {
    long long end = p.off + static_cast<long long>(p.data.size());
    if (p.fd != fd || end <= off || p.off >= off + n) continue;
    long long from = p.off > off ? p.off : off;
    long long to = end < off + n ? end : off + n;
    memcpy(out + (from - off), p.data.data() + (from - p.off), static_cast<size_t>(to - from));
    if (to - off > r) r = to - off;
  }
  return r;
}

long long overlay_pwrite(int fd, const void* buf, int n, long long off) {
  if (n < 0) return -1;
  std::string now(static_cast<size_t>(n), '\0');
  long long got = overlay_pread(fd, &now[0], n, off);
  const char* in = static_cast<const char*>(buf);
  long long differ = 0;
  for (int i = 0; i < n; i++)
    if (i >= got || now[static_cast<size_t>(i)] != in[i]) differ++;
  if (differ > 0) {
    g_changed_writes++;
    g_changed_bytes += differ;
  }
  g_patches.push_back({fd, off, std::string(in, static_cast<size_t>(n))});
  return n;
}

int overlay_fsync(int) { return 0; }

}  // namespace

dry_run::dry_run() {
  g_saved = fs_sys;
  g_patches.clear();
  g_changed_writes = 0;
  g_changed_bytes = 0;
  fs_sys.pread = overlay_pread;
  fs_sys.pwrite = overlay_pwrite;
  fs_sys.fsync = overlay_fsync;
}

dry_run::~dry_run() {
  fs_sys = g_saved;
  g_patches.clear();
}

int dry_run::changed_writes() const { return g_changed_writes; }
long long dry_run::changed_bytes() const { return g_changed_bytes; }

}  // namespace tool
