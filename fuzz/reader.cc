// Searching and playing a read-only volume whose tables and first minutes come from the
// fuzzer (laid out as fuzz::lay_volume places them, so the volume target's seeds serve
// here too): the hour and minute lists, the event and motion searches, positioning the
// cursor and stepping through blocks both ways and across minutes. A reader must skip
// what it cannot use: no crash, no hang, no read past a buffer, no write.
#include <ringrec/fs_app.h>
#include <string.h>

#include "image.h"

namespace {


// Steps through blocks from the cursor's position; the walk between minutes is
// circular, so the number of steps is bounded here.
void play(fs_app& app, int dir) {
  static char data[1 << 16];
  for (int step = 0; step < 64; step++) {
    head_t* h = app.r_head();
    if (h != nullptr) app.r_data(data, sizeof data);
    if (app.r_seek(dir) != 0 && app.r_next(dir) != 0) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static std::string path = fuzz::scratch("reader");
  fuzz::quiet_table();
  fuzz::count_writes();
  int fd = fuzz::reset(path);
  fuzz::lay_volume(fd, data, size);
  close(fd);

  // The board's disk table with this one image in it, opened read-only.
  fs_app app;
  db_info_t& row = app.db_info[0];
  memset(&row, 0, sizeof row);
  snprintf(row.dev, sizeof row.dev, "%s", path.c_str());
  row.db = new fs_db();
  app.db_cnt = 1;
  fuzz::writes() = 0;
  if (row.db->open(0, path.c_str(), "r") == 0) {
    const int beg = 0, end = 0x7FFFFFFF;
    int n = 0;
    app.q_hour(beg, end, n);
    min_rec_t* mins = app.q_min(beg, end, n);
    int first = n > 0 ? mins[0].time : 0;
    app.q_log(beg, end, -1, 0xF, n);
    app.q_motion(beg, end, 0, n);
    unsigned int cells[4] = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    app.q_motionMask(beg, end, 0, n, cells, 4);
    int times[2] = {first, first + 61};
    app.q_time(2, times);
    if (app.r_set(first, 0) == 0) {
      play(app, 1);
      play(app, -1);
      app.r_Iseek(1, true, -1, 1);
      app.r_Iseek(-1, false, -1, 1);
    }
  }
  app.db_close();
  if (fuzz::writes() != 0) abort();  // a read-only reader wrote
  return 0;
}
