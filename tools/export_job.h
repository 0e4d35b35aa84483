// The state of one `ringrec export` run shared by its writers (cmd_export.cc for MP4,
// export_files.cc for IRF and OEM), and the helpers they share for the files they make.
#ifndef RINGREC_TOOL_EXPORT_JOB_H
#define RINGREC_TOOL_EXPORT_JOB_H

#include <ringrec/fs_app.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

#include "export_progress.h"

namespace tool {

struct export_job {
  fs_app* app;
  std::string dir;
  int beg, end;
  std::vector<int> chans;
  int mask;
  bool sub, audio, single;
  std::string format;
  FILE* out;  // tool's own messages
  progress_reader* prog;
  bool json = false, force = false;
  std::vector<std::string> plan;  // the two-phase plan's lines
  std::vector<std::pair<std::string, long long>> written;
  int files = 0;
  std::string cut;  // the file cut short by a cancel
};

// "ringrec: MSG" among the tool's messages; returns 1.
int say(export_job& j, const std::string& msg);
// A finished file: listed (and kept for the JSON report).
void wrote(export_job& j, const std::string& path, long long bytes);
// A file of that name is there already and may not be replaced: said, and true.
bool taken(export_job& j, const std::string& path);
// Output that could not be written whole: the file goes and the run stops (returns 1).
int write_error(export_job& j, const std::string& path);
// Closes f; true when anything written to it failed.
bool write_failed(FILE* f);
// The file's size, -1 when there is none.
long long size_of(const std::string& p);

// IRF: one file per selected hour holding every chosen channel.
int irf_export(export_job& j);
// OEM frame format: one file per minute, named after its first frame.
int oem_export(export_job& j);

}  // namespace tool

#endif
