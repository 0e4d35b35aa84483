// Loading a damaged minute's key-frame index and event log, as search and playback do
// when they enter a minute. The input is the minute's data (the motion record, the
// event log record, frame blocks, the two index records at the end) and the entry's
// size is the input's length; the volume around it is valid.
#include <ringrec/fs_app.h>

#include "image.h"

namespace {

const size_t kMaxMinute = 1 << 20;

struct Volume {
  std::string path = fuzz::scratch("minute");
  fs_db db;
  entry_t min;
  bool ok = false;
  Volume() {
    fuzz::quiet_table();
    close(fuzz::reset(path));
    db.open(0, path.c_str(), "w");
    ok = db.format() == 0 && db.f_create(0, 1, "HOUR_0:00") == 0 &&
         db.f_create(1, 2, "HOUR_0:00", "MIN_00:00") == 0 &&
         db.f_open(min, 2, "HOUR_0:00", "MIN_00:00") == 0;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static Volume* v = new Volume();
  if (!v->ok) abort();
  if (size > kMaxMinute) size = kMaxMinute;
  entry_t e = v->min;
  if (size > 0 && v->db.d_write(e, 0, static_cast<int>(size), data) != 0) abort();
  e.size = static_cast<int32_t>(size);
  if (v->db.e_flush(e) != 0) abort();

  static fs_app* app = new fs_app();
  app->r_cur.min = e;
  app->read_Log_info(&v->db, 0);
  app->read_Iframe_info(&v->db, 1);
  app->read_Iframe_info(&v->db, -1);
  return 0;
}
