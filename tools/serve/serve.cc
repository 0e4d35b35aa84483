// ringrec serve: the recordings of a board, or of disk images pulled from a recorder,
// in a browser. Read-only; listens on loopback unless told otherwise, and then only
// with a token that every request must carry.
//
//   ringrec serve [DISK...] [--listen ADDR:PORT] [--token T] [--export-dir DIR]
//                 [--cache-mb N]
//
// The HTTP side is cpp-httplib (Debian's libcpp-httplib); the routes are in
// docs/http.md. No path of a request reaches the file system but export downloads,
// and those by job ID and file index only.
#include "serve.h"

#include <fcntl.h>
#include <httplib.h>
#include <ringrec/audio.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "../command.h"
#include "../time_arg.h"
#include "serve_page.h"

namespace serve {

namespace {

using httplib::Request;
using httplib::Response;

const char kUsage[] =
    "serve [DISK...] [--listen ADDR:PORT] [--token T] [--export-dir DIR] [--cache-mb N]";

reader_pool g_pool;

void send(Response& res, const reply& r) {
  res.status = r.status;
  res.set_content(r.body, "application/json");
}

// A time parameter; false (with the reply set) when missing or malformed.
bool when(const Request& req, const char* name, int* out, Response& res, bool need = true,
          int fallback = 0) {
  if (!req.has_param(name)) {
    if (!need) {
      *out = fallback;
      return true;
    }
    send(res, error_reply(400, std::string("missing '") + name + "'"));
    return false;
  }
  long long t;
  if (!parse_when(req.get_param_value(name), &t)) {
    send(res, error_reply(400, std::string("'") + name +
                                   "': epoch seconds or ISO 8601 like 2024-05-01T10:58:00Z"));
    return false;
  }
  *out = static_cast<int>(t);
  return true;
}

bool number(const Request& req, const char* name, long long lo, long long hi, long long* out,
            Response& res) {
  long long v;
  if (!req.has_param(name) || !tool::parse_int(req.get_param_value(name), &v) || v < lo || v > hi) {
    send(res, error_reply(400, std::string("'") + name + "': a number from " + std::to_string(lo) +
                                   " to " + std::to_string(hi)));
    return false;
  }
  *out = v;
  return true;
}

bool flag(const Request& req, const char* name) {
  return req.has_param(name) && req.get_param_value(name) != "0";
}

// Sends bytes [0, size) of fd, or the one byte range asked for (206); a range that
// starts past the end is refused (416). The range header is parsed by the HTTP
// library; several ranges at once are answered with the whole file, as HTTP allows.
void send_file(const Request& req, Response& res, int fd, long long size,
               std::shared_ptr<const void> hold, const char* type) {
  long long from = 0, len = size;
  if (req.ranges.size() == 1) {
    long long a = req.ranges[0].first, b = req.ranges[0].second;
    // The library would apply the range again to what we send.
    const_cast<Request&>(req).ranges.clear();
    if (a < 0) {  // "bytes=-N": the last N bytes
      a = b >= size ? 0 : size - b;
      b = size - 1;
    }
    if (b < 0 || b >= size) b = size - 1;
    if (a >= size || b < a) {
      res.status = 416;
      res.set_header("Content-Range", "bytes */" + std::to_string(size));
      res.set_content("{\"error\": \"the range lies past the end\"}\n", "application/json");
      return;
    }
    from = a;
    len = b - a + 1;
    res.status = 206;
    res.set_header("Content-Range", "bytes " + std::to_string(a) + "-" + std::to_string(b) + "/" +
                                        std::to_string(size));
  } else {
    const_cast<Request&>(req).ranges.clear();
  }
  res.set_header("Accept-Ranges", "bytes");
  res.set_content_provider(static_cast<size_t>(len), type,
                           [fd, from, hold](size_t off, size_t n, httplib::DataSink& sink) {
                             char buf[65536];
                             size_t want = n < sizeof buf ? n : sizeof buf;
                             ssize_t got = pread(fd, buf, want, from + static_cast<long long>(off));
                             return got > 0 && sink.write(buf, static_cast<size_t>(got));
                           });
}

bool clip_params(const Request& req, Response& res, bool reverse, clip_request* c) {
  long long ch, count = 0;
  c->reverse = reverse;
  if (!number(req, "ch", 0, 31, &ch, res)) return false;
  c->ch = static_cast<int>(ch);
  c->sub = flag(req, "substream");
  c->audio = flag(req, "audio");
  if (reverse) {
    if (!when(req, "at", &c->from, res)) return false;
    if (req.has_param("count") && !number(req, "count", 1, 600, &count, res)) return false;
    c->to = req.has_param("count") ? static_cast<int>(count) : 30;
    return true;
  }
  if (!when(req, "from", &c->from, res)) return false;
  return when(req, "to", &c->to, res, false, c->from + 60);
}

void clip_route(const Request& req, Response& res, bool reverse, bool json) {
  clip_request c;
  if (!clip_params(req, res, reverse, &c)) return;
  reply err;
  clip_ptr p = get_clip(g_pool, c, &err);
  if (!p) return send(res, err);
  if (json) {
    reply r;
    r.body = clip_json(*p);
    return send(res, r);
  }
  res.set_header("X-Recording-Start", std::to_string(p->start));
  res.set_header("X-Recording-End", std::to_string(p->end));
  res.set_header("Cache-Control", "no-cache");
  send_file(req, res, p->fd, p->size, p, "video/mp4");
}

bool span(const Request& req, Response& res, int* beg, int* end) {
  if (!when(req, "from", beg, res) || !when(req, "to", end, res)) return false;
  if (*end < *beg) {
    send(res, error_reply(400, "'to' lies before 'from'"));
    return false;
  }
  if (*end - *beg > 31 * 86400) {
    send(res, error_reply(400, "a listing spans at most 31 days"));
    return false;
  }
  return true;
}

void routes(httplib::Server& s) {
  s.Get("/",
        [](const Request&, Response& res) { res.set_content(kPage, "text/html; charset=utf-8"); });
  s.Get("/api/disks", [](const Request&, Response& res) {
    std::unique_ptr<reader_pool::lease> l = g_pool.take();
    send(res, api_disks(l->app()));
  });
  s.Get("/api/spans", [](const Request& req, Response& res) {
    int b, e;
    if (!span(req, res, &b, &e)) return;
    std::unique_ptr<reader_pool::lease> l = g_pool.take();
    send(res, api_spans(l->app(), b, e));
  });
  s.Get("/api/events", [](const Request& req, Response& res) {
    int b, e, type = -1;
    if (!span(req, res, &b, &e)) return;
    if (req.has_param("type")) {
      static const char* kinds[] = {"record", "vloss", "motion", "sensor"};
      for (int k = 1; k < 4; k++)
        if (req.get_param_value("type") == kinds[k]) type = k;
      if (type < 0) return send(res, error_reply(400, "'type': vloss, motion or sensor"));
    }
    std::unique_ptr<reader_pool::lease> l = g_pool.take();
    send(res, api_events(l->app(), b, e, type));
  });
  s.Get("/api/keyframe", [](const Request& req, Response& res) {
    int at;
    long long mask, dir;
    if (!when(req, "at", &at, res) || !number(req, "mask", 1, 0xFFFFFFFFLL, &mask, res) ||
        !number(req, "dir", -1, 1, &dir, res))
      return;
    std::unique_ptr<reader_pool::lease> l = g_pool.take();
    send(res, api_keyframe(l->app(), static_cast<unsigned>(mask), at, dir < 0 ? -1 : 1));
  });
  s.Get("/clip.mp4", [](const Request& q, Response& r) { clip_route(q, r, false, false); });
  s.Get("/api/clip", [](const Request& q, Response& r) { clip_route(q, r, false, true); });
  s.Get("/reverse.mp4", [](const Request& q, Response& r) { clip_route(q, r, true, false); });
  s.Get("/api/reverse", [](const Request& q, Response& r) { clip_route(q, r, true, true); });

  s.Post("/api/export", [](const Request& req, Response& res) {
    job_spec j;
    if (!when(req, "from", &j.beg, res) || !when(req, "to", &j.end, res)) return;
    if (j.end < j.beg) return send(res, error_reply(400, "'to' lies before 'from'"));
    uint32_t mask = 0;
    if (!tool::parse_channels(req.get_param_value("ch"), &mask, &j.chans))
      return send(res, error_reply(400, "'ch': channel numbers 0 to 31, separated by commas"));
    if (req.has_param("format")) j.format = req.get_param_value("format");
    if (j.format != "mp4" && j.format != "irf" && j.format != "oem")
      return send(res, error_reply(400, "'format': mp4, irf or oem"));
    j.sub = flag(req, "substream");
    send(res, job_create(j));
  });
  s.Get(R"(/api/export/(\d{1,9}))", [](const Request& req, Response& res) {
    send(res, job_status(atoi(req.matches[1].str().c_str())));
  });
  s.Delete(R"(/api/export/(\d{1,9}))", [](const Request& req, Response& res) {
    send(res, job_cancel(atoi(req.matches[1].str().c_str())));
  });
  s.Get(R"(/api/export/(\d{1,9})/file/(\d{1,4}))", [](const Request& req, Response& res) {
    reply err;
    std::string path =
        job_file(atoi(req.matches[1].str().c_str()), atoi(req.matches[2].str().c_str()), &err);
    int fd = path.empty() ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
      if (fd >= 0) close(fd);
      return send(res, path.empty() ? err : error_reply(404, "the export file is gone"));
    }
    std::shared_ptr<int> hold(new int(fd), [](int* p) {
      close(*p);
      delete p;
    });
    res.set_header("Content-Disposition",
                   "attachment; filename=\"" + path.substr(path.rfind('/') + 1) + "\"");
    send_file(req, res, fd, st.st_size, hold, "application/octet-stream");
  });
}

bool loopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.compare(0, 4, "127.") == 0;
}

int run_serve(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string listen = "127.0.0.1:8080", token, dir, cache;
  tool::take_option(args, "--listen", &listen);
  tool::take_option(args, "--token", &token);
  bool own_dir = !tool::take_option(args, "--export-dir", &dir);
  if (tool::take_option(args, "--cache-mb", &cache)) {
    long long mb;
    if (!tool::parse_int(cache, &mb) || mb < 0 || mb > 1 << 20)
      return tool::usage_error("serve", "--cache-mb: megabytes of clips to keep, 0 or more");
    set_clip_cache(mb << 20);
  }
  for (const std::string& a : args)
    if (a.compare(0, 2, "--") == 0) return tool::usage_error("serve", "unknown option '" + a + "'");
  size_t colon = listen.rfind(':');
  long long port;
  if (colon == std::string::npos || !tool::parse_int(listen.substr(colon + 1), &port) || port < 0 ||
      port > 65535)
    return tool::usage_error("serve", "--listen ADDR:PORT, like 127.0.0.1:8080");
  std::string host = listen.substr(0, colon);
  if (host.size() > 2 && host[0] == '[') host = host.substr(1, host.size() - 2);
  if (!loopback(host) && token.empty())
    return tool::usage_error("serve", "listening beyond loopback needs --token T");
  if (own_dir) {
    char tmpl[] = "/tmp/ringrec-serve-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return tool::fail("cannot make a directory for exports in /tmp");
    dir = tmpl;
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || access(dir.c_str(), W_OK) != 0)
    return tool::fail("--export-dir " + dir + ": not a directory this user can write into");
  // Clip builds print the library's lines by the thousand; a server keeps none of
  // them unless -v asked for them.
  if (!tool::verbose()) {
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 2), close(null);
  }
  audtype = 2;  // recorded ADPCM goes into clips as 16-bit PCM ("sowt")
  // Signals go to one thread that stops the server; the others, started from here on,
  // never see them.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  int rc = g_pool.open(args, 4);
  if (rc == 0) rc = jobs_start(args, dir);
  if (rc != 0) return rc;
  httplib::Server s;
  // One thread per client for 32 clients at once; a keep-alive connection holds one.
  s.new_task_queue = [] { return new httplib::ThreadPool(32); };
  s.set_pre_routing_handler([token](const Request& req, Response& res) {
    if (req.path.find("..") != std::string::npos) {
      send(res, error_reply(400, "'..' has no place in a path here"));
      return httplib::Server::HandlerResponse::Handled;
    }
    if (!token.empty() && req.get_param_value("token") != token &&
        req.get_header_value("Authorization") != "Bearer " + token) {
      send(res, error_reply(401, "a token is needed: ?token=T or Authorization: Bearer T"));
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  s.set_error_handler([](const Request& req, Response& res) {
    if (res.body.empty())
      send(res, error_reply(res.status == 404 ? 404 : res.status,
                            res.status == 404 ? "no such route: " + req.method + " " + req.path
                                              : "bad request"));
  });
  routes(s);
  int bound =
      port == 0
          ? s.bind_to_any_port(host.c_str())
          : (s.bind_to_port(host.c_str(), static_cast<int>(port)) ? static_cast<int>(port) : -1);
  if (bound < 0) {
    jobs_stop();
    return tool::fail("cannot listen on " + listen + ": is the port taken?");
  }
  std::atomic<bool> signalled{false};
  std::thread stopper([&s, &signalled, set] {
    int sig = 0;
    sigwait(&set, &sig);
    signalled = true;
    s.stop();
  });
  std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  printf("ringrec serve: http://%s:%d/%s\nexports go to %s\n", shown.c_str(), bound,
         token.empty() ? "" : ("?token=" + token).c_str(), dir.c_str());
  fflush(stdout);
  s.listen_after_bind();
  // Stopped by a signal, or the listening failed: the waiting thread is freed then.
  if (!signalled) pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  jobs_stop();
  if (own_dir) {
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) tool::err("could not remove %s", dir.c_str());
  }
  printf("ringrec serve: stopped\n");
  return 0;
}

bool registered = tool::add_command({"serve", kUsage, run_serve});

}  // namespace

}  // namespace serve
