// ringrec export --format irf and --format oem: the writers of the recorder's own backup
// formats, and the file helpers every export format shares.
#include <errno.h>
#include <ringrec/ringrec.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "cli.h"
#include "export_job.h"

namespace tool {

bool write_failed(FILE* f) {
  bool bad = fflush(f) != 0 || ferror(f) != 0;
  return fclose(f) != 0 || bad;
}

long long size_of(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

int say(export_job& j, const std::string& msg) {
  j.said = msg;
  if (j.prog)
    j.prog->line(j.out, "ringrec: " + msg);
  else if (j.out)
    fprintf(j.out, "ringrec: %s\n", msg.c_str());
  return 1;
}

void wrote(export_job& j, const std::string& path, long long bytes) {
  j.written.push_back({path, bytes});
  if (j.on_file) j.on_file(path);
  if (!j.json && j.prog)
    j.prog->line(stdout, "wrote " + path + " (" + std::to_string(bytes) + " bytes)");
}

// A file of that name is there already and may not be replaced: said, and true.
bool taken(export_job& j, const std::string& path) {
  if (j.force || access(path.c_str(), F_OK) != 0) return false;
  say(j, path + " exists: --force replaces it, or export into an empty directory");
  return true;
}

// Output that could not be written whole (a full or failing USB stick): an MP4 file
// without its closing boxes, or a scratch file not yet named, is of no use to anyone,
// so it goes, and the run stops there.
int write_error(export_job& j, const std::string& path) {
  remove(path.c_str());
  return say(
      j, "writing into " + j.dir + " failed (is the disk full?); the unfinished file was removed");
}

namespace {

std::string stamp(int time, const char* ext) {
  time_t t = time;
  struct tm tm;
  gmtime_r(&t, &tm);
  char b[64];
  snprintf(b, sizeof b, "%04d%02d%02d_%02dh%02dm%02ds.%s", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ext);
  return b;
}

// The application prepares the IRF file header: "TOLVEX", a zero, version 0, the rest
// zero to 4096 bytes. The tool makes one when the board has none, and removes it after.
bool irf_header(std::string* made) {
  std::string path = board_path(IRF_HEADER_FILE);
  if (access(path.c_str(), R_OK) == 0) return true;
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return false;
  std::vector<char> h(4096, 0);
  memcpy(h.data(), "TOLVEX", 6);
  fwrite(h.data(), 1, h.size(), f);
  fclose(f);
  *made = path;
  return true;
}

}  // namespace

int irf_export(export_job& j) {
  std::string made;
  if (!irf_header(&made)) return say(j, "cannot prepare the IRF header in /tmp");
  int items = j.app->bk_set(j.beg, j.end, j.mask);
  int rc = 0;
  for (int item = 0; item < items && !j.cancelled(); item++) {
    std::string name = stamp(std::max(j.beg, j.app->bk_state.items[item].e.time), "irf");
    std::string path = j.dir + "/" + name;
    if (taken(j, path)) {
      rc = 1;
      break;
    }
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) {
      rc = say(j, "cannot create " + path + ": " + strerror(errno));
      break;
    }
    int started = 0;
    j.app->bk_irf_write(f, item, j.mask, started);
    if (write_failed(f)) {
      rc = say(j, "writing " + path + " failed (is the disk full?)");
      break;
    }
    if (!started) {
      remove(path.c_str());
      continue;
    }
    wrote(j, path, size_of(path));
    j.files++;
    if (j.cancelled()) j.cut = name;
  }
  if (!made.empty()) remove(made.c_str());
  if (rc == 0 && j.files == 0 && !j.cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return rc;
}

int oem_export(export_job& j) {
  int items = j.app->bk_set(j.beg, j.end, j.mask);
  std::string tmp = j.dir + "/.export.part";
  for (int item = 0; item < items && !j.cancelled(); item++) {
    for (;;) {
      FILE* f = fopen(tmp.c_str(), "wb");
      if (!f) return say(j, "cannot create " + tmp + ": " + strerror(errno));
      int ftime = 0;
      int r = j.app->bk_kesto_write(f, item, j.mask, ftime);
      if (write_failed(f)) return write_error(j, tmp);
      if (ftime == 0 || size_of(tmp) <= 0) {
        remove(tmp.c_str());
      } else {
        std::string name = stamp(ftime, "oem");
        std::string path = j.dir + "/" + name;
        if (taken(j, path)) {
          remove(tmp.c_str());
          return 1;
        }
        if (rename(tmp.c_str(), path.c_str()) != 0) return say(j, "cannot name " + path);
        wrote(j, path, size_of(path));
        // A file holds one minute and the writer looks for the marker only between
        // minutes, so a cancel never cuts one short: none is named.
        j.files++;
      }
      if (r != 1) break;
    }
  }
  if (j.files == 0 && !j.cancelled())
    return say(j, "nothing recorded on those channels between --from and --to");
  return 0;
}

// Every span the readers could not read, named; the files end there.

}  // namespace tool
