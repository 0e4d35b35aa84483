#include "kit/kit.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

namespace kit {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/ringrec-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) abort();
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::string cmd = "rm -rf '" + path_ + "'";
  if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path_.c_str());
}

Board::Board(const std::vector<sim::disk_spec>& disks) {
  std::string err;
  if (sim::board_create(dir_.path(), disks, &err) != 0) {
    ADD_FAILURE() << err;
  }
  setenv("RINGREC_ROOT", dir_.path().c_str(), 1);
}

static std::vector<sim::disk_spec> plain_disks(int n, long long bytes) {
  std::vector<sim::disk_spec> v;
  for (int i = 0; i < n; i++) v.push_back({sim::disk_name(i), bytes, "ST1000DM003-1CH162", false});
  return v;
}

Board::Board(int disks, long long bytes) : Board(plain_disks(disks, bytes)) {}

Board::~Board() { unsetenv("RINGREC_ROOT"); }

void Board::touch(const std::string& logical) const {
  std::string p = root() + logical;
  FILE* f = fopen(p.c_str(), "w");
  if (f == nullptr) {
    ADD_FAILURE() << "cannot create " << p;
    return;
  }
  fclose(f);
}

void Board::unlink(const std::string& logical) const { ::unlink((root() + logical).c_str()); }

void make_image(const std::string& path, long long bytes) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) ADD_FAILURE() << "image " << path;
  if (fd >= 0) ::close(fd);
}

// Present when a sanitizer runtime is linked: where its reports go. They must reach
// the real standard error, not a capture that a crashing test never reads back.
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

StderrCapture::StderrCapture() {
  static bool reports_set = false;
  if (!reports_set && __sanitizer_set_report_fd != nullptr) {
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(dup(2))));
    reports_set = true;
  }
  TempDir* unused = nullptr;
  (void)unused;
  char tmpl[] = "/tmp/ringrec-stderr-XXXXXX";
  int fd = mkstemp(tmpl);
  if (fd < 0) abort();
  file_ = tmpl;
  fflush(stderr);
  saved_ = dup(2);
  dup2(fd, 2);
  ::close(fd);
}

std::string StderrCapture::take() {
  if (!done_) {
    fflush(stderr);
    dup2(saved_, 2);
    ::close(saved_);
    done_ = true;
    FILE* f = fopen(file_.c_str(), "r");
    if (f != nullptr) {
      char buf[4096];
      size_t n;
      while ((n = fread(buf, 1, sizeof buf, f)) > 0) text_.append(buf, n);
      fclose(f);
    }
    ::unlink(file_.c_str());
  }
  return text_;
}

StderrCapture::~StderrCapture() { take(); }

std::string read_file(const std::string& path) {
  std::string s;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return s;
  char b[65536];
  size_t n;
  while ((n = fread(b, 1, sizeof b, f)) > 0) s.append(b, n);
  fclose(f);
  return s;
}

void write_file(const std::string& path, const std::string& bytes) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size())
    ADD_FAILURE() << "cannot write " << path;
  if (f != nullptr) fclose(f);
}

SemSet::SemSet(const std::string& root) {
  key_t key = ftok((root + "/.").c_str(), 66);
  id = semget(key, 2, IPC_CREAT | 0600);  // a set left by a crashed run is reused
}
SemSet::~SemSet() {
  if (id >= 0) semctl(id, 0, IPC_RMID);
}
int SemSet::get(int n) const { return semctl(id, n, GETVAL); }

int count(const std::string& hay, const std::string& needle) {
  int n = 0;
  if (needle.empty()) return 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) n++;
  return n;
}

std::string read_at(const std::string& path, long long off, int n) {
  std::string out(static_cast<size_t>(n), '\0');
  int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0 || pread(fd, &out[0], static_cast<size_t>(n), static_cast<off_t>(off)) != n)
    ADD_FAILURE() << "read_at " << path << " @" << off;
  if (fd >= 0) ::close(fd);
  return out;
}

void write_at(const std::string& path, long long off, const void* data, int n) {
  int fd = ::open(path.c_str(), O_RDWR);
  if (fd < 0 || pwrite(fd, data, static_cast<size_t>(n), static_cast<off_t>(off)) != n)
    ADD_FAILURE() << "write_at " << path << " @" << off;
  if (fd >= 0) ::close(fd);
}

// ---- clocks ----

long long FakeClock::wall = 0;
long long FakeClock::mono_ms = 0;
int FakeClock::sleeps = 0;

static time_t fake_time(time_t* t) {
  time_t v = static_cast<time_t>(FakeClock::wall);
  if (t != nullptr) *t = v;
  return v;
}

static int fake_clock(clockid_t, struct timespec* ts) {
  ts->tv_sec = static_cast<time_t>(FakeClock::mono_ms / 1000);
  ts->tv_nsec = static_cast<long>((FakeClock::mono_ms % 1000) * 1000000);
  return 0;
}

static int fake_usleep(unsigned int) {
  FakeClock::sleeps++;
  return 0;
}

FakeClock::FakeClock(long long w, long long m) {
  wall = w;
  mono_ms = m;
  sleeps = 0;
  fs_sys.time = fake_time;
  fs_sys.clock_gettime = fake_clock;
  fs_sys.usleep = fake_usleep;
}

FakeClock::~FakeClock() {
  fs_sys_t defaults = fs_sys;
  fs_sys_reset();
  // Keep whatever another fixture installed for the transfers.
  fs_sys.pread = defaults.pread;
  fs_sys.pwrite = defaults.pwrite;
  fs_sys.fsync = defaults.fsync;
}

// ---- write recorder ----

namespace {
std::mutex rec_mutex;
WriteRecorder* rec_active = nullptr;

std::string fd_path(int fd) {
  char link[64], buf[PATH_MAX];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, buf, sizeof buf - 1);
  if (n < 0) return std::string();
  buf[n] = '\0';
  return buf;
}

long long recording_pwrite(int fd, const void* buf, int n, long long off) {
  WriteRecorder* r0 = rec_active;
  long long r = r0->next_pwrite_(fd, buf, n, off);
  if (r > 0) {
    std::lock_guard<std::mutex> g(rec_mutex);
    if (rec_active != nullptr)
      rec_active->ops_.push_back(
          {fd_path(fd), off, std::string(static_cast<const char*>(buf), static_cast<size_t>(r))});
  }
  return r;
}

int recording_fsync(int fd) {
  WriteRecorder* r0 = rec_active;
  int r = r0->next_fsync_(fd);
  std::lock_guard<std::mutex> g(rec_mutex);
  if (rec_active != nullptr) rec_active->syncs_.push_back({fd_path(fd), rec_active->ops_.size()});
  return r;
}
}  // namespace

WriteRecorder::WriteRecorder() {
  std::lock_guard<std::mutex> g(rec_mutex);
  prev_ = rec_active;
  next_pwrite_ = fs_sys.pwrite;
  next_fsync_ = fs_sys.fsync;
  fs_sys.pwrite = recording_pwrite;
  fs_sys.fsync = recording_fsync;
  rec_active = this;
  live_ = true;
}

// Recorders stop in the reverse order of their start (the kit only nests them).
void WriteRecorder::stop() {
  if (!live_) return;
  std::lock_guard<std::mutex> g(rec_mutex);
  fs_sys.pwrite = next_pwrite_;
  fs_sys.fsync = next_fsync_;
  rec_active = prev_;
  live_ = false;
}

WriteRecorder::~WriteRecorder() { stop(); }

static std::string canonical(const std::string& p) {
  char buf[PATH_MAX];
  return realpath(p.c_str(), buf) ? std::string(buf) : p;
}

std::vector<size_t> WriteRecorder::writes_to(const std::string& path) const {
  std::string want = canonical(path);
  std::vector<size_t> v;
  for (size_t i = 0; i < ops_.size(); i++)
    if (ops_[i].path == want) v.push_back(i);
  return v;
}

std::vector<size_t> WriteRecorder::syncs_of(const std::string& path) const {
  std::string want = canonical(path);
  std::vector<size_t> v;
  size_t writes = 0, seen = 0;
  for (const auto& s : syncs_) {
    for (; seen < s.second; seen++)
      if (ops_[seen].path == want) writes++;
    if (s.first == want) v.push_back(writes);
  }
  return v;
}

void copy_image(const std::string& base, const std::string& dst, long long bytes) {
  int out = ::open(dst.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (out < 0 || ftruncate(out, static_cast<off_t>(bytes)) != 0) {
    ADD_FAILURE() << "image " << dst;
    if (out >= 0) ::close(out);
    return;
  }
  if (!base.empty()) {
    int in = ::open(base.c_str(), O_RDONLY);
    if (in < 0) ADD_FAILURE() << "image " << base;
    std::vector<char> buf(1 << 20);
    off_t pos = 0;
    while (in >= 0 && (pos = lseek(in, pos, SEEK_DATA)) >= 0) {
      off_t end = lseek(in, pos, SEEK_HOLE);
      if (end < 0) end = static_cast<off_t>(bytes);
      while (pos < end) {
        size_t n = static_cast<size_t>(std::min<off_t>(end - pos, static_cast<off_t>(buf.size())));
        ssize_t got = pread(in, buf.data(), n, pos);
        if (got <= 0 || pwrite(out, buf.data(), static_cast<size_t>(got), pos) != got) {
          ADD_FAILURE() << "copy " << base << " @" << pos;
          end = pos;
          break;
        }
        pos += got;
      }
    }
    if (in >= 0) ::close(in);
  }
  ::close(out);
}

void WriteRecorder::replay(const std::string& path, const std::string& base, const std::string& dst,
                           long long bytes, size_t k) const {
  copy_image(base, dst, bytes);
  int fd = ::open(dst.c_str(), O_RDWR);
  if (fd < 0) {
    ADD_FAILURE() << "replay " << dst;
    return;
  }
  std::vector<size_t> idx = writes_to(path);
  for (size_t j = 0; j < k && j < idx.size(); j++) {
    const Op& op = ops_[idx[j]];
    if (pwrite(fd, op.bytes.data(), op.bytes.size(), static_cast<off_t>(op.off)) !=
        static_cast<ssize_t>(op.bytes.size()))
      ADD_FAILURE() << "replay write " << j;
  }
  ::close(fd);
}

// ---- injected write failures ----

namespace {
long long fail_after = 0;
long long fail_seen = 0;
std::string fail_substr;
long long (*fail_next)(int, const void*, int, long long) = nullptr;

long long failing_pwrite(int fd, const void* buf, int n, long long off) {
  if (fail_substr.empty() || fd_path(fd).find(fail_substr) != std::string::npos) {
    if (fail_seen++ >= fail_after) return -1;
  }
  return fail_next(fd, buf, n, off);
}
}  // namespace

FailWrites::FailWrites(long long after, const std::string& path_substr) {
  fail_after = after;
  fail_seen = 0;
  fail_substr = path_substr;
  fail_next = fs_sys.pwrite;
  fs_sys.pwrite = failing_pwrite;
}

FailWrites::~FailWrites() { fs_sys.pwrite = fail_next; }

}  // namespace kit
