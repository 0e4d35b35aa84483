// `ringrec serve` on bench_playback's seven days of recording on two disks: the time to
// the first byte and to the whole response of a 10 s clip at random instants (each one
// built by the server on request), and the throughput of 20 clients at once against a
// static file server (python3 -m http.server) serving the same clips from files, both
// measured in the same run. Medians of interleaved runs, with their spread.
//
//   bench_serve [DIR] [RUNS]
//
// DIR (default out/bench-playback) is bench_playback's board; it is built by running
// bench_playback first when it is not there.
#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_kit.h"

namespace {

const int kStart = 1699920000;  // bench_playback's recording: 7 days from here
const int kEnd = kStart + 7 * 86400;
const int kClients = 20, kPerClient = 50, kClips = 40, kLatency = 60;

using bench::now_s;

// A port nothing listens on now: bound to port 0 and let go.
int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a;
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
    port = ntohs(a.sin_port);
  close(fd);
  return port;
}

pid_t spawn(const std::vector<std::string>& argv) {
  pid_t p = fork();
  if (p == 0) {
    std::vector<char*> a;
    for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execvp(a[0], a.data());
    _exit(127);
  }
  return p;
}

bool wait_up(int port) {
  httplib::Client c("127.0.0.1", port);
  c.set_connection_timeout(1);
  for (int i = 0; i < 200; i++) {
    if (c.Get("/")) return true;
    usleep(50000);
  }
  return false;
}

std::string clip_path(int t) {
  return "/clip.mp4?ch=" + std::to_string(t % 2) + "&from=" + std::to_string(t) +
         "&to=" + std::to_string(t + 9);
}

// One GET: seconds to the first body byte and to the end; bytes received.
bool timed_get(httplib::Client& c, const std::string& path, double* first, double* all,
               long long* bytes) {
  double t0 = now_s();
  *first = -1;
  *bytes = 0;
  auto r = c.Get(path.c_str(), [&](const char*, size_t n) {
    if (*first < 0) *first = now_s() - t0;
    *bytes += static_cast<long long>(n);
    return true;
  });
  *all = now_s() - t0;
  return r && r->status == 200 && *bytes > 0;
}

// 20 clients, each fetching kPerClient of the paths in turn: MB/s.
double throughput(int port, const std::vector<std::string>& paths, long long* failed) {
  std::atomic<long long> bytes{0}, bad{0};
  double t0 = now_s();
  std::vector<std::thread> th;
  for (int k = 0; k < kClients; k++)
    th.emplace_back([&, k] {
      httplib::Client c("127.0.0.1", port);
      for (int i = 0; i < kPerClient; i++) {
        double a, b;
        long long n;
        if (timed_get(c, paths[static_cast<size_t>(k * 7 + i) % paths.size()], &a, &b, &n))
          bytes += n;
        else
          bad++;
      }
    });
  for (std::thread& t : th) t.join();
  *failed += bad;
  return static_cast<double>(bytes) / (now_s() - t0) / 1e6;
}

typedef bench::spread stat_t;
using bench::summary;
double pct(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : "out/bench-playback";
  int runs = std::max(5, argc > 2 ? atoi(argv[2]) : 5);
  char abs[4096];
  if (realpath(".", abs) == nullptr) return 1;
  if (dir[0] != '/') dir = std::string(abs) + "/" + dir;
  struct stat st;
  if (stat((dir + "/complete").c_str(), &st) != 0) {
    printf("building the recording with bench_playback\n");
    fflush(stdout);
    std::string self = argv[0];
    std::string cmd = self.substr(0, self.rfind('/') + 1) + "bench_playback '" + dir + "' 5";
    if (system(cmd.c_str()) != 0) return 1;
  }
  std::string clips = dir + "-clips";
  mkdir(clips.c_str(), 0755);

  int sport = free_port(), fport = free_port();
  pid_t server = spawn({RINGREC_TOOL_PATH, "--root", dir, "serve", "--listen",
                        "127.0.0.1:" + std::to_string(sport), "--cache-mb", "64"});
  pid_t files = spawn({"python3", "-m", "http.server", "--bind", "127.0.0.1", "--directory", clips,
                       std::to_string(fport)});
  if (!wait_up(sport) || !wait_up(fport)) {
    fprintf(stderr, "bench_serve: the servers did not come up\n");
    return 1;
  }
  // The clips both servers serve: fetched once here, and written out for the file server.
  std::mt19937 rnd(7);
  std::uniform_int_distribution<int> at(kStart, kEnd - 10);
  std::vector<std::string> ours, theirs;
  httplib::Client c("127.0.0.1", sport);
  for (int i = 0; i < kClips; i++) {
    int t = at(rnd);
    auto r = c.Get(clip_path(t).c_str());
    if (!r || r->status != 200) {
      fprintf(stderr, "bench_serve: %s: no clip\n", clip_path(t).c_str());
      return 1;
    }
    std::string name = "clip" + std::to_string(i) + ".mp4";
    FILE* f = fopen((clips + "/" + name).c_str(), "wb");
    if (f == nullptr) return 1;
    fwrite(r->body.data(), 1, r->body.size(), f);
    fclose(f);
    ours.push_back(clip_path(t));
    theirs.push_back("/" + name);
  }

  std::vector<double> first_all, total_all, first_med, total_med, ours_mb, theirs_mb, ratio;
  long long failed = 0, bytes = 0;
  for (int run = 0; run < runs; run++) {
    // Latency: clips at instants not asked for before, so each is built on request.
    std::vector<double> first, total;
    httplib::Client one("127.0.0.1", sport);
    for (int i = 0; i < kLatency; i++) {
      double a, b;
      long long n;
      if (!timed_get(one, clip_path(at(rnd)), &a, &b, &n)) {
        failed++;
        continue;
      }
      first.push_back(a * 1000);
      total.push_back(b * 1000);
      bytes += n;
    }
    first_all.insert(first_all.end(), first.begin(), first.end());
    total_all.insert(total_all.end(), total.begin(), total.end());
    first_med.push_back(summary(first).med);
    total_med.push_back(summary(total).med);
    // Throughput, the two servers in alternating order.
    double a, b;
    if (run % 2 == 0) {
      a = throughput(sport, ours, &failed);
      b = throughput(fport, theirs, &failed);
    } else {
      b = throughput(fport, theirs, &failed);
      a = throughput(sport, ours, &failed);
    }
    ours_mb.push_back(a);
    theirs_mb.push_back(b);
    ratio.push_back(a / b);
  }
  kill(server, SIGTERM);
  kill(files, SIGTERM);
  waitpid(server, nullptr, 0);
  waitpid(files, nullptr, 0);

  stat_t f = summary(first_med), t = summary(total_med), o = summary(ours_mb),
         s = summary(theirs_mb), r = summary(ratio);
  printf("clips: 10 s of one channel at random instants of 7 days, %lld bytes in %zu answers\n",
         bytes, first_all.size());
  printf("first byte: %.2f ms median (runs %.2f .. %.2f), p99 %.2f ms\n", f.med, f.lo, f.hi,
         pct(first_all, 0.99));
  printf("whole clip: %.2f ms median (runs %.2f .. %.2f), p99 %.2f ms\n", t.med, t.lo, t.hi,
         pct(total_all, 0.99));
  printf("serve, %d clients: %.2f MB/s (runs %.2f .. %.2f)\n", kClients, o.med, o.lo, o.hi);
  printf("python3 -m http.server, same clips from files: %.2f MB/s (runs %.2f .. %.2f)\n", s.med,
         s.lo, s.hi);
  printf("ratio: %.2f (serve / static files; runs %.2f .. %.2f), %d runs, %lld failed requests\n",
         r.med, r.lo, r.hi, runs, failed);
  return failed == 0 ? 0 : 1;
}
