// Export jobs of the server: one library object of their own, run one at a time in a
// worker thread, since the progress semaphore and the cancel marker are the board's,
// not a job's. Progress is what the library posts to the semaphore; a cancel creates
// the marker the writers look for between minutes. Files go to DIR/job-ID/ and are
// served by job ID and index only.
#include <errno.h>
#include <fcntl.h>
#include <ringrec/app_interface.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "../export_job.h"
#include "serve.h"

namespace serve {

using tool::board_path;
using tool::json_str;

namespace {

union semun_arg {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
};

struct job {
  int id;
  job_spec s;
  std::string state = "queued";  // queued, running, done, failed, cancelled
  std::string message;
  std::vector<std::string> files;
  int progress = 0;
  bool cancel = false;
};

std::mutex g_m;
std::condition_variable g_cv;
std::map<int, job> g_jobs;
int g_next = 1;
bool g_stop = false;
std::string g_dir;
int g_sem = -1;
bool g_sem_made = false;
std::thread g_worker;
tool::volume_set* g_vols = nullptr;

bool cancelled(int id) {
  std::lock_guard<std::mutex> g(g_m);
  return g_jobs[id].cancel;
}

void add_file(int id, const std::string& name) {
  std::lock_guard<std::mutex> g(g_m);
  g_jobs[id].files.push_back(name);
}

// The job runs the tool's own export (the same writers as `ringrec export`): its
// messages are kept, not printed; its files are listed as each one is finished.
std::string run(fs_app& app, const job& k, const std::string& dir) {
  tool::export_job j;
  j.app = &app;
  j.dir = dir;
  j.beg = k.s.beg;
  j.end = k.s.end;
  j.chans = k.s.chans;
  j.mask = 0;
  for (int ch : j.chans) j.mask |= 1 << ch;
  j.sub = k.s.sub;
  j.audio = j.single = false;
  j.format = k.s.format;
  j.json = true;
  // The job's directory is its own: whatever stands there is the job's to write into.
  j.force = true;
  int id = k.id;
  j.on_file = [id, &dir](const std::string& path) { add_file(id, path.substr(dir.size() + 1)); };
  j.stop = [id] { return cancelled(id); };
  return tool::export_run(j) != 0 ? j.said : std::string();
}

void worker() {
  fs_app& app = *g_vols->app;
  for (;;) {
    job j;
    {
      std::unique_lock<std::mutex> g(g_m);
      g_cv.wait(g, [] {
        if (g_stop) return true;
        for (auto& kv : g_jobs)
          if (kv.second.state == "queued") return true;
        return false;
      });
      if (g_stop) return;
      for (auto& kv : g_jobs)
        if (kv.second.state == "queued") {
          kv.second.state = "running";
          j = kv.second;
          break;
        }
    }
    std::string dir = g_dir + "/job-" + std::to_string(j.id);
    mkdir(dir.c_str(), 0755);
    if (g_sem >= 0) {
      semun_arg a;
      a.val = 0;
      semctl(g_sem, 0, SETVAL, a);
      semctl(g_sem, 1, SETVAL, a);
    }
    std::string err = run(app, j, dir);
    // A cancel that comes after this look finds the work complete: the job is done.
    bool cut = cancelled(j.id);
    app.bk_clr();
    std::lock_guard<std::mutex> g(g_m);
    job& k = g_jobs[j.id];
    k.state = cut ? "cancelled" : err.empty() ? "done" : "failed";
    k.message = err;
    if (k.state == "done") k.progress = 100;
    // Under the lock, once the job no longer runs: a cancel racing with the end of the
    // run made its marker before this, so none is left behind to cut the next job short.
    remove(board_path(BK_CANCEL_MARKER).c_str());
  }
}

}  // namespace

int jobs_start(const std::vector<std::string>& disks, const std::string& dir) {
  g_dir = dir;
  g_vols = new tool::volume_set();
  g_vols->app->set(32);
  int rc = g_vols->open(disks);
  if (rc != 0) return rc;
  // The recorder's application creates the progress set; so does the server.
  key_t key = ftok(board_path(BK_SEM_PATH).c_str(), BK_SEM_PROJ);
  if (key != static_cast<key_t>(-1)) {
    g_sem = semget(key, 2, IPC_CREAT | IPC_EXCL | 0600);
    if (g_sem >= 0)
      g_sem_made = true;
    else if (errno == EEXIST)
      g_sem = semget(key, 2, 0);
  }
  g_worker = std::thread(worker);
  return 0;
}

void jobs_stop() {
  {
    std::lock_guard<std::mutex> g(g_m);
    g_stop = true;
    for (auto& kv : g_jobs) kv.second.cancel = true;
  }
  int fd = open(board_path(BK_CANCEL_MARKER).c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd >= 0) close(fd);
  g_cv.notify_all();
  if (g_worker.joinable()) g_worker.join();
  remove(board_path(BK_CANCEL_MARKER).c_str());
  if (g_sem_made) semctl(g_sem, 0, IPC_RMID);
  delete g_vols;
  g_vols = nullptr;
}

reply job_create(const job_spec& s) {
  std::lock_guard<std::mutex> g(g_m);
  int id = g_next++;
  job& j = g_jobs[id];
  j.id = id;
  j.s = s;
  g_cv.notify_all();
  reply r;
  r.status = 202;
  r.body = "{\"id\": " + std::to_string(id) + ", \"state\": \"queued\"}\n";
  return r;
}

reply job_status(int id) {
  std::lock_guard<std::mutex> g(g_m);
  auto it = g_jobs.find(id);
  if (it == g_jobs.end()) return error_reply(404, "no export job " + std::to_string(id));
  job& j = it->second;
  int result = 0;
  if (j.state == "running" && g_sem >= 0) {
    int v = semctl(g_sem, 0, GETVAL);
    result = semctl(g_sem, 1, GETVAL);
    if (v >= 0 && v <= 100) j.progress = v;
  }
  reply r;
  r.body = "{\"id\": " + std::to_string(id) + ", \"state\": \"" + j.state +
           "\", \"progress\": " + std::to_string(j.progress) +
           ", \"result\": " + std::to_string(result) + ", \"format\": \"" + j.s.format +
           "\", \"message\": " + json_str(j.message) + ", \"files\": [";
  for (size_t i = 0; i < j.files.size(); i++) {
    struct stat st;
    std::string p = g_dir + "/job-" + std::to_string(id) + "/" + j.files[i];
    long long size = stat(p.c_str(), &st) == 0 ? st.st_size : 0;
    r.body += (i ? ", " : "") + std::string("{\"name\": ") + json_str(j.files[i]) +
              ", \"bytes\": " + std::to_string(size) + ", \"url\": \"/api/export/" +
              std::to_string(id) + "/file/" + std::to_string(i) + "\"}";
  }
  r.body += "]}\n";
  return r;
}

reply job_cancel(int id) {
  {
    std::lock_guard<std::mutex> g(g_m);
    auto it = g_jobs.find(id);
    if (it == g_jobs.end()) return error_reply(404, "no export job " + std::to_string(id));
    job& j = it->second;
    if (j.state == "queued") j.state = "cancelled";
    if (j.state == "running") {
      j.cancel = true;
      // The writers look for the marker before each minute.
      int fd = open(board_path(BK_CANCEL_MARKER).c_str(), O_WRONLY | O_CREAT, 0644);
      if (fd >= 0) close(fd);
    }
  }
  return job_status(id);
}

std::string job_file(int id, int index, reply* err) {
  std::lock_guard<std::mutex> g(g_m);
  auto it = g_jobs.find(id);
  if (it == g_jobs.end() || index < 0 || index >= static_cast<int>(it->second.files.size())) {
    *err = error_reply(404, "no such export file");
    return "";
  }
  return g_dir + "/job-" + std::to_string(id) + "/" + it->second.files[static_cast<size_t>(index)];
}

}  // namespace serve
