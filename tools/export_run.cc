// The MP4 writers of an export (two-phase and single-pass) and the one entry point that
// runs an export of any format, for `ringrec export` and the web viewer's export jobs.
#include <errno.h>
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "export_job.h"

namespace tool {

namespace {

using job = export_job;

// A single-pass file is written before its name is known; the name follows the
// pattern of the planned files, numbered when taken.
std::string free_name(const std::string& dir, int time, int ch, unsigned w, unsigned h,
                      unsigned fps) {
  time_t t = time;
  struct tm tm;
  gmtime_r(&t, &tm);
  char stem[96];
  snprintf(stem, sizeof stem, "%04d%02d%02d_%02dh%02dm%02ds_ch%.2d_%ux%ux%u", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ch + 1, w, h, fps);
  for (int k = 0; k < 1000; k++) {
    std::string n = std::string(stem) + (k ? "_" + std::to_string(k) : "") + ".m4v";
    if (size_of(dir + "/" + n) < 0) return n;
  }
  return std::string(stem) + ".m4v";
}

// Output files are written in large pieces: the writers hand stdio a frame at a time.
FILE* open_out(const std::string& path) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f) setvbuf(f, nullptr, _IOFBF, 1 << 20);
  return f;
}

// Every channel is planned in one walk of each hour, and the files of one hour are
// written together from one walk of it: each stored block is read twice in all (plan
// and write), however many channels are chosen.
int two_phase(job& j) {
  std::vector<char> plan(1 << 20, '\0');
  int n = j.app->bk_phase_one_channels(j.dir.c_str(), j.beg, j.end, j.mask, plan.data(), j.sub);
  if (n <= 0) return say(j, "nothing recorded on those channels between --from and --to");
  if (!j.json && j.prog) {
    std::string text = plan.data();
    if (!text.empty() && text.back() == '\n') text.pop_back();
    j.prog->line(stdout, "plan (name channel bytes item entry offset time):\n" + text);
  }
  // The plan's files, checked before any is written.
  std::vector<std::string> names;
  for (const char* p = plan.data(); *p;) {
    const char* nl = strchr(p, '\n');
    std::string line(p, nl ? static_cast<size_t>(nl - p) : strlen(p));
    p = nl ? nl + 1 : p + line.size();
    char name[128];
    int ch, size, item, entry, off, t;
    if (sscanf(line.c_str(), "%127s %d %d %d %d %d %d", name, &ch, &size, &item, &entry, &off,
               &t) != 7)
      continue;
    names.push_back(name);
    j.plan.push_back(line);
  }
  for (const std::string& name : names)
    if (taken(j, j.dir + "/" + name)) return 1;
  struct planned {
    std::string name, path;
    bk_plan_file_t f;
  };
  std::vector<planned> all;
  for (const char* p = plan.data(); *p;) {
    const char* nl = strchr(p, '\n');
    std::string line(p, nl ? static_cast<size_t>(nl - p) : strlen(p));
    p = nl ? nl + 1 : p + line.size();
    char name[128];
    planned x;
    int t;
    if (sscanf(line.c_str(), "%127s %d %d %d %d %d %d", name, &x.f.ch, &x.f.size, &x.f.item,
               &x.f.entry, &x.f.offset, &t) == 7) {
      x.name = name;
      x.path = j.dir + "/" + name;
      all.push_back(x);
    }
  }
  for (size_t i = 0; i < all.size();) {
    if (j.cancelled()) break;
    size_t k = i;  // the files of one hour: [i, k)
    while (k < all.size() && all[k].f.item == all[i].f.item) k++;
    std::vector<bk_plan_file_t> files;
    for (size_t m = i; m < k; m++) {
      all[m].f.out = open_out(all[m].path);
      if (!all[m].f.out) {
        for (bk_plan_file_t& f : files) fclose(f.out);
        return say(j, "cannot create " + all[m].path + ": " + strerror(errno));
      }
      files.push_back(all[m].f);
    }
    j.app->bk_phase_two_files(files.data(), static_cast<int>(files.size()), j.sub);
    int bad = -1;
    for (size_t m = i; m < k; m++)
      if (write_failed(files[m - i].out) && bad < 0) bad = static_cast<int>(m);
    if (bad >= 0) return write_error(j, all[bad].path);
    int unfinished = -1;
    for (size_t m = i; m < k; m++) {
      if (files[m - i].result > 0) {
        wrote(j, all[m].path, files[m - i].result);
        j.files++;
      } else {
        // A planned file is only valid whole: its mdat size was written first.
        remove(all[m].path.c_str());
        if (unfinished < 0) unfinished = static_cast<int>(m);
      }
    }
    if (unfinished >= 0) {
      if (!j.cancelled())
        return say(j, all[unfinished].name + ": the recording ended before the planned bytes");
      j.cut = all[unfinished].name;
      return 0;
    }
    i = k;
  }
  return 0;
}

// Each hour of every chosen channel comes from one walk of the hour; the files are
// named as they end.
struct hour_run {
  explicit hour_run(job& jb) : j(&jb) {
    size_t n = jb.chans.size();
    for (size_t k = 0; k < n; k++) tmp.push_back(jb.dir + "/.export.part" + std::to_string(k));
    times.resize(n);
    results.resize(n);
    w.resize(n);
    h.resize(n);
    fps.resize(n);
  }
  // A scratch file for each channel; false (said, none left open) when one fails.
  bool open_all(std::vector<FILE*>* outs) {
    for (const std::string& t : tmp) {
      outs->push_back(open_out(t));
      if (!outs->back()) {
        outs->pop_back();
        for (FILE* f : *outs) fclose(f);
        say(*j, "cannot create " + t + ": " + strerror(errno));
        return false;
      }
    }
    return true;
  }
  job* j;
  std::vector<std::string> tmp;
  std::vector<int> times, results;
  std::vector<unsigned> w, h, fps;
  int err = 0;
};

FILE* hour_file_done(void* ctx, int k, FILE* f, unsigned pos, unsigned size, bool more) {
  (void)pos;
  hour_run& r = *static_cast<hour_run*>(ctx);
  job& j = *r.j;
  fs_app::bk_set_mdat_size(f, size);
  const std::string& tmp = r.tmp[k];
  if (write_failed(f)) {
    if (!r.err) r.err = write_error(j, tmp);
    return nullptr;
  }
  if (size == 0) {
    remove(tmp.c_str());
  } else {
    std::string name = free_name(j.dir, r.times[k], j.chans[k], r.w[k], r.h[k], r.fps[k]);
    std::string path = j.dir + "/" + name;
    if (rename(tmp.c_str(), path.c_str()) != 0) {
      if (!r.err) r.err = say(j, "cannot name " + path);
      return nullptr;
    }
    wrote(j, path, size_of(path));
    j.files++;
    if (j.cancelled()) j.cut = name;
  }
  if (!more || r.err) return nullptr;
  FILE* next = open_out(tmp);
  if (!next) r.err = say(j, "cannot create " + tmp + ": " + strerror(errno));
  return next;
}

int single_pass_hours(job& j) {
  size_t n = j.chans.size();
  hour_run r(j);
  int items = j.app->bk_set(j.beg, j.end, j.mask);
  for (int item = 0; item < items && !j.cancelled() && !r.err; item++) {
    std::vector<FILE*> outs;
    if (!r.open_all(&outs)) return 1;
    j.app->bk_write_channels(item, static_cast<int>(n), j.chans.data(), outs.data(), r.times.data(),
                             r.w.data(), r.h.data(), r.fps.data(), r.results.data(), hour_file_done,
                             &r);
    for (size_t k = 0; k < n; k++)
      if (r.results[k] < 0)
        say(j, "channel " + std::to_string(j.chans[k]) + ": video loss, the file ends there");
  }
  j.app->bk_clr();
  if (r.err) return 1;
  if (j.files == 0 && !j.cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return 0;
}

// Single pass writes as it reads. Without sound the multi-slot writer runs each chosen
// channel's file on across the hours until the picture changes, every channel from one
// walk of each hour (bk_multi_m4v_write_channels). With sound each hour is written by the
// per-hour writer, which hands the converted sound to the file frame by frame; the
// multi-slot writer gathers it into 8000-byte pieces that the file's fixed sound chunk
// table does not describe, so players would play that sound at the wrong pace.
int single_pass(job& j) {
  if (j.audio) return single_pass_hours(j);
  size_t n = j.chans.size();
  hour_run r(j);
  std::vector<FILE*> outs;
  std::vector<fs_mp4*> writers(n, nullptr);
  if (!r.open_all(&outs)) return 1;
  int b = j.beg, e = j.end, m = j.mask;
  int items = j.app->bk_multi_set(&b, &e, &m, 1);
  int c = static_cast<int>(n);
  for (int item = 0; item < items && !j.cancelled() && !r.err; item++) {
    j.app->bk_multi_m4v_write_channels(item, c, j.chans.data(), outs.data(), writers.data(),
                                       r.times.data(), r.w.data(), r.h.data(), r.fps.data(),
                                       r.results.data(), hour_file_done, &r);
    for (size_t k = 0; k < n; k++)
      if (r.results[k] < 0)
        say(j, "channel " + std::to_string(j.chans[k]) + ": video loss, the file ends there");
  }
  // Past the last item: every file still open is finished.
  j.app->bk_multi_m4v_write_channels(-1, c, j.chans.data(), outs.data(), writers.data(),
                                     r.times.data(), r.w.data(), r.h.data(), r.fps.data(),
                                     r.results.data(), hour_file_done, &r);
  // The multi selection has no clear of its own and a new selection zeroes its fields
  // without freeing: the array goes back here (its writers are closed above).
  free(j.app->bk_multi_state.items);
  memset(&j.app->bk_multi_state, 0, sizeof j.app->bk_multi_state);
  if (r.err) return 1;
  if (j.files == 0 && !j.cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return 0;
}

}  // namespace

int export_run(export_job& j) {
  // The recorder stores sound as IMA ADPCM; MP4 export converts it to 16-bit PCM,
  // which the "sowt" sample entry describes.
  audtype = 2;
  int rc = j.format == "irf"   ? irf_export(j)
           : j.format == "oem" ? oem_export(j)
           : j.single          ? single_pass(j)
                               : two_phase(j);
  // Completion (100 %, result 1) is posted only for a run that completed: a recorder's
  // interface reading the semaphore must not show a cancelled or failed backup as done.
  if (rc == 0 && !j.cancelled()) j.app->bk_over();
  return rc;
}

}  // namespace tool
