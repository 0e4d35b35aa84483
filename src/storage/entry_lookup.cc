// Creation and lookup of entries by a path of names from the root table.
#include <ringrec/fs_db.h>
#include <stdarg.h>

#include "runtime/runtime.h"

int fs_db::f_create(unsigned short type, int n, ...) {
  if (n < 1) return 0;
  va_list ap;
  va_start(ap, n);
  entryX_t x;
  int r = 0;
  if (x_read(0, x) != 0) {
    fs_log_hdd("f_create", 516, hdd, "ERR");
    r = -1;
  }
  // Every level but the last must already be a table; none is created on the way.
  for (int k = 0; r == 0 && k < n - 1; k++) {
    const char* name = va_arg(ap, const char*);
    entry_t e;
    if (e_open(x, name, e) != 0) {
      r = -1;
    } else {
      long long region = e.offset;
      if (x_read(region, x) != 0) {
        fs_log_hdd("f_create", 516, hdd, "ERR");
        r = -1;
      }
    }
  }
  if (r == 0) r = e_create(x, type, va_arg(ap, const char*));
  va_end(ap);
  return r;
}

int fs_db::f_open(entry_t& e, int n, ...) {
  if (n < 1) return 0;
  va_list ap;
  va_start(ap, n);
  entryX_t x;
  entry_t found;
  int r = 0;
  if (x_read(0, x) != 0) {
    fs_log_hdd("f_open", 545, hdd, "ERR");
    r = -1;
  }
  for (int k = 0; r == 0 && k < n; k++) {
    const char* name = va_arg(ap, const char*);
    if (e_open(x, name, found) != 0) {
      r = -1;
    } else if (k < n - 1) {
      long long region = found.offset;
      if (x_read(region, x) != 0) {
        fs_log_hdd("f_open", 545, hdd, "ERR");
        r = -1;
      }
    }
  }
  va_end(ap);
  if (r == 0) e = found;
  return r;
}
