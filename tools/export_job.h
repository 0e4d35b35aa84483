// The state of one export run (`ringrec export` or a web export job) shared by its writers
// (cmd_export.cc for MP4, export_files.cc for IRF and OEM), and the helpers they share for the
// files they make.
#ifndef RINGREC_TOOL_EXPORT_JOB_H
#define RINGREC_TOOL_EXPORT_JOB_H

#include <ringrec/fs_app.h>
#include <stdio.h>

#include <functional>
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
  FILE* out = nullptr;  // tool's own messages (none when null)
  // Lines go through it beside a progress bar; without one, messages go to `out` and
  // the plan and the "wrote" lines are not printed.
  progress_reader* prog = nullptr;
  bool json = false, force = false;
  std::vector<std::string> plan;  // the two-phase plan's lines
  std::vector<std::pair<std::string, long long>> written;
  int files = 0;
  std::string cut;   // the file cut short by a cancel
  std::string said;  // the last message, for a caller that shows no stream
  // A finished file, as it is listed; and what stops the run between minutes (Ctrl-C
  // when not set).
  std::function<void(const std::string& path)> on_file;
  std::function<bool()> stop;
  bool cancelled() const { return stop ? stop() : tool::cancelled(); }
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

// The whole export in j.format (mp4 two-phase or single-pass, irf, oem) of every chosen
// channel, each stored block read once per pass; posts completion to the progress
// semaphore when it completed. 0, or 1 after saying why.
int export_run(export_job& j);
// IRF: one file per selected hour holding every chosen channel.
int irf_export(export_job& j);
// OEM frame format: one file per minute, named after its first frame.
int oem_export(export_job& j);

}  // namespace tool

#endif
