// Opening, checking and listing a volume whose tables come from the fuzzer, laid out as
// fuzz::lay_volume places them. Every read path must refuse, repair or skip: no crash,
// no hang, no read past a buffer, and a read-only open that writes nothing.
#include <ringrec/fs_db.h>

#include "image.h"

namespace {


void walk(fs_db& d) {
  d.print();
  d.q_first();
  d.q_last();
  d.q_free();
  entryX_t root;
  if (d.x_read(0, root) != 0) return;
  // Every hour's table and the first block head of every minute; the library bounds
  // the walks itself, this bound only keeps one input short.
  for (int i = 0; i < root.num && i < 64; i++) {
    entry_t h;
    if (d.e_read(root, i, h) != 0) continue;
    entryX_t x;
    if (d.x_read(h.offset, x) != 0) continue;
    for (int j = 0; j < x.num && j < 64; j++) {
      entry_t m;
      if (d.e_read(x, j, m) != 0) continue;
      char head[288];
      d.d_read(m, 0, sizeof head, head);
      entry_t again;
      d.f_open(again, 2, h.name, m.name);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static std::string path = fuzz::scratch("volume");
  fuzz::quiet_table();
  fuzz::count_writes();
  int fd = fuzz::reset(path);
  fuzz::lay_volume(fd, data, size);
  close(fd);

  fs_db d;
  fuzz::writes() = 0;
  if (d.open(0, path.c_str(), "r") == 0) walk(d);
  d.close();
  if (fuzz::writes() != 0) abort();  // a read-only open wrote
  if (d.open(0, path.c_str(), "w") == 0) walk(d);
  d.close();
  return 0;
}
