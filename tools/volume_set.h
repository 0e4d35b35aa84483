// The volumes a read-side command works on: the disks, images or devices named on the
// command line (a disk pulled from a recorder), or the board's internal disks when none
// are named. Every volume is opened read-only: no check runs, nothing is repaired.
#ifndef RINGREC_TOOL_VOLUME_SET_H
#define RINGREC_TOOL_VOLUME_SET_H

#include <ringrec/fs_app.h>

#include <string>
#include <vector>

namespace tool {

struct volume_set {
  fs_app* app = new fs_app();
  volume_set() = default;
  volume_set(const volume_set&) = delete;
  volume_set& operator=(const volume_set&) = delete;
  ~volume_set();
  // Fills the disk table; 0 when at least one volume can be read, else the tool's
  // failure status after saying what was wrong.
  int open(const std::vector<std::string>& disks);
  const char* name(int i) const { return app->db_info[i].dev; }
};

}  // namespace tool

#endif
