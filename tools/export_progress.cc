#include "export_progress.h"

#include <errno.h>
#include <fcntl.h>
#include <ringrec/app_interface.h>
#include <signal.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "cli.h"

namespace tool {

namespace {

std::string g_cancel_path;
volatile sig_atomic_t g_cancelled = 0;
struct sigaction g_old;

void on_sigint(int) {
  g_cancelled = 1;
  int fd = ::open(g_cancel_path.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd >= 0) close(fd);
}

union semun_arg {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
};

}  // namespace

void cancel_arm() {
  g_cancel_path = board_path(BK_CANCEL_MARKER);
  remove(g_cancel_path.c_str());
  g_cancelled = 0;
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_sigint;
  sigaction(SIGINT, &sa, &g_old);
}

void cancel_disarm() {
  sigaction(SIGINT, &g_old, nullptr);
  if (g_cancelled) remove(g_cancel_path.c_str());
}

bool cancelled() { return g_cancelled != 0; }

progress_reader::progress_reader(FILE* out, bool tty) : out_(out), tty_(tty) {}

progress_reader::~progress_reader() { finish(); }

bool progress_reader::open() {
  std::string dot = board_path(BK_SEM_PATH);
  key_t key = ftok(dot.c_str(), BK_SEM_PROJ);
  if (key == static_cast<key_t>(-1)) return false;
  id_ = semget(key, 2, IPC_CREAT | IPC_EXCL | 0600);
  if (id_ >= 0)
    created_ = true;
  else if (errno == EEXIST)
    id_ = semget(key, 2, 0);
  if (id_ < 0) return false;
  semun_arg a;
  a.val = 0;
  semctl(id_, 0, SETVAL, a);
  semctl(id_, 1, SETVAL, a);
  return true;
}

void progress_reader::show(int v) {
  if (v < 0) v = 0;
  if (v > 100) v = 100;
  if (tty_) {
    if (v != shown_ || !drawn_) {
      int fill = v * 40 / 100;
      fprintf(out_, "\rexport       [%.*s%*s] %3d%%", fill,
              "########################################", 40 - fill, "", v);
      fflush(out_);
      drawn_ = true;
    }
  } else {
    // Every 10 % step passed since the last look, even when several passed at once.
    for (int k = shown_ < 0 ? 0 : shown_ / 10 + 1; k <= v / 10; k++)
      fprintf(out_, "export: %d%%\n", k * 10);
    fflush(out_);
  }
  shown_ = v;
}

void progress_reader::poll() {
  if (id_ < 0) return;
  pthread_mutex_lock(&mutex_);
  show(semctl(id_, 0, GETVAL));
  pthread_mutex_unlock(&mutex_);
}

void progress_reader::line(FILE* to, const std::string& text) {
  pthread_mutex_lock(&mutex_);
  if (drawn_) {
    fprintf(out_, "\r%60s\r", "");
    fflush(out_);
    drawn_ = false;  // drawn again at the next look
  }
  fprintf(to, "%s\n", text.c_str());
  fflush(to);
  pthread_mutex_unlock(&mutex_);
}

void* progress_reader::loop(void* p) {
  progress_reader* r = static_cast<progress_reader*>(p);
  while (!r->stop_.load()) {
    r->poll();
    usleep(100000);
  }
  return nullptr;
}

void progress_reader::start() {
  if (id_ >= 0 && pthread_create(&th_, nullptr, loop, this) == 0) running_ = true;
}

void progress_reader::finish() {
  stop_.store(true);
  if (running_) pthread_join(th_, nullptr);
  running_ = false;
  if (id_ < 0) return;
  poll();
  if (drawn_) fprintf(out_, "\n");
  drawn_ = false;
  if (created_) semctl(id_, 0, IPC_RMID);
  id_ = -1;
}

}  // namespace tool
