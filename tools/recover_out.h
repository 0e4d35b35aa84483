// What the recover command hands on: the disks it scanned, and the two ways out of
// them (MP4 files, a rebuilt volume).
#ifndef RINGREC_TOOL_RECOVER_OUT_H
#define RINGREC_TOOL_RECOVER_OUT_H

#include <ringrec/ringrec.h>

#include <memory>
#include <string>
#include <vector>

namespace recover {

struct disk {
  std::string name;
  std::unique_ptr<fs_recover> r;
};

struct export_opts {
  std::string dir;
  std::vector<int> chans;
  bool sub = false, audio = false;
};

// Sizes in reports: decimal megabytes, one decimal.
std::string mb(long long b);

// MP4 files of the channels in o, named as export names them, from every block found
// between from and to. Exit status for the tool; no partial file is left on failure.
int run_export(std::vector<disk>& disks, const export_opts& o, int from, int to);
// A new volume image at out (size bytes, or fitted to the blocks when 0) holding every
// frame block found between from and to. Exit status for the tool.
int run_rebuild(std::vector<disk>& disks, const std::string& out, long long size, int from, int to);

}  // namespace recover

#endif
