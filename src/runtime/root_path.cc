#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "runtime/runtime.h"

namespace {

std::string board_root() {
  const char* root = getenv("RINGREC_ROOT");
  if (root == nullptr || root[0] == '\0') return std::string();
  std::string r(root);
  while (r.size() > 1 && r.back() == '/') r.pop_back();
  return r == "/" ? std::string() : r;
}

}  // namespace

std::string fs_path(const char* logical) {
  if (logical == nullptr) return std::string();
  if (logical[0] != '/') return logical;
  return board_root() + logical;
}

int fs_access(const char* logical, int mode) { return access(fs_path(logical).c_str(), mode); }

FILE* fs_fopen(const char* logical, const char* mode) {
  return fopen(fs_path(logical).c_str(), mode);
}

bool fs_realpath(const char* logical, std::string& out) {
  char buf[PATH_MAX];
  if (realpath(fs_path(logical).c_str(), buf) == nullptr) return false;
  out = buf;
  // The board's own links are absolute within the board (sys/block/sda/device ->
  // ../../devices/...), so the target lies below the root; strip it back off.
  std::string root = board_root();
  if (!root.empty()) {
    char rbuf[PATH_MAX];
    if (realpath(root.c_str(), rbuf) != nullptr) {
      size_t n = strlen(rbuf);
      if (out.compare(0, n, rbuf) == 0 && (out.size() == n || out[n] == '/'))
        out = out.size() == n ? std::string("/") : out.substr(n);
    }
  }
  return true;
}
