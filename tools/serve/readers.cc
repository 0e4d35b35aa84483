// The read-only side of the server: the pool of library objects and the listings a
// page or a script asks for (disks, recorded spans per channel, events).
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "../time_arg.h"
#include "serve.h"

namespace serve {

using tool::json_str;

reply error_reply(int status, const std::string& msg) {
  reply r;
  r.status = status;
  r.body = "{\"error\": " + json_str(msg) + "}\n";
  return r;
}

bool parse_when(const std::string& in, long long* out) {
  std::string s = in;
  // ISO 8601 in UTC: a trailing "Z" or "+00:00" says so; other zones are refused.
  if (!s.empty() && s.back() == 'Z') s.pop_back();
  if (s.size() > 6 && s.compare(s.size() - 6, 6, "+00:00") == 0) s.resize(s.size() - 6);
  return tool::parse_time(s, out) && *out >= 0 && *out <= INT32_MAX;
}

int reader_pool::open(const std::vector<std::string>& disks, int count) {
  for (int i = 0; i < count; i++) {
    std::unique_ptr<tool::volume_set> v(new tool::volume_set());
    v->app->set(32);
    int rc = v->open(disks);
    if (rc != 0) return rc;
    // Clips are built with the cursor; no reader posts backup progress.
    v->app->sem_mode(0);
    free_.push_back(v.get());
    all_.push_back(std::move(v));
  }
  return 0;
}

reader_pool::lease::~lease() {
  std::lock_guard<std::mutex> g(pool->m_);
  pool->free_.push_back(v);
  pool->cv_.notify_one();
}

std::unique_ptr<reader_pool::lease> reader_pool::take() {
  std::unique_lock<std::mutex> g(m_);
  cv_.wait(g, [this] { return !free_.empty(); });
  std::unique_ptr<lease> l(new lease{this, free_.back()});
  free_.pop_back();
  return l;
}

namespace {

std::string utc(long long t) {
  std::string s = tool::fmt_time(t);
  s[10] = 'T';
  return s + "Z";
}

struct span {
  long long from, to, last_minute;
  int minutes;
};

// Contiguous recorded time of one channel (ch < 0: any) from a sorted minute list.
// A minute ends after the last second its mask marks.
std::vector<span> spans_of(const min_rec_t* m, int n, int ch) {
  std::vector<span> out;
  for (int i = 0; i < n; i++) {
    min_rec_t r;
    memcpy(&r, m + i, sizeof r);
    if (ch >= 0 && r.count[ch] <= 0) continue;
    long long minute = r.time / 60;
    uint64_t mask = r.mask;
    int last = 59;
    while (last > 0 && !(mask >> last & 1)) last--;
    long long end = std::max<long long>(minute * 60 + (mask ? last + 1 : 60), r.time + 1);
    if (!out.empty() && minute <= out.back().last_minute + 1) {
      span& s = out.back();
      if (minute > s.last_minute) {
        s.minutes++;
        s.last_minute = minute;
      }
      s.to = std::max(s.to, end);
      continue;
    }
    out.push_back({r.time, end, minute, 1});
  }
  return out;
}

std::string spans_json(const std::vector<span>& sp) {
  std::string o = "[";
  for (size_t i = 0; i < sp.size(); i++) {
    char b[200];
    snprintf(b, sizeof b,
             "%s{\"from\": %lld, \"to\": %lld, \"minutes\": %d, \"from_utc\": \"%s\", "
             "\"to_utc\": \"%s\"}",
             i ? ", " : "", sp[i].from, sp[i].to, sp[i].minutes, utc(sp[i].from).c_str(),
             utc(sp[i].to).c_str());
    o += b;
  }
  return o + "]";
}

}  // namespace

reply api_disks(fs_app& app) {
  reply r;
  r.body = "{\"disks\": [";
  int shown = 0;
  for (int d = 0; d < app.db_cnt; d++) {
    if (app.db_info[d].db == nullptr || app.db_info[d].db->q_key() == 0) continue;
    std::vector<span> sp;
    tool::on_disk(app, d, [&] {
      int n = 0;
      min_rec_t* m = app.q_min(0, 0, n);
      sp = spans_of(m, n, -1);
    });
    char b[400];
    long long from = sp.empty() ? 0 : sp.front().from, to = sp.empty() ? 0 : sp.back().to;
    snprintf(b, sizeof b, "%s\n  {\"device\": %s, \"model\": %s, \"from\": %lld, \"to\": %lld",
             shown ? "," : "", json_str(app.db_info[d].dev).c_str(),
             json_str(app.db_info[d].model).c_str(), from, to);
    r.body += b;
    if (!sp.empty())
      r.body += ", \"from_utc\": \"" + utc(from) + "\", \"to_utc\": \"" + utc(to) + "\"";
    r.body += "}";
    shown++;
  }
  r.body += "\n]}\n";
  return r;
}

reply api_spans(fs_app& app, int beg, int end) {
  int n = 0;
  min_rec_t* m = app.q_min(beg, end, n);
  // Minutes found on several disks come once per disk, sorted by time: the span
  // builder joins them.
  std::vector<min_rec_t> mins(static_cast<size_t>(n));
  if (n > 0) memcpy(mins.data(), m, sizeof(min_rec_t) * static_cast<size_t>(n));
  reply r;
  char b[120];
  snprintf(b, sizeof b, "{\"from\": %d, \"to\": %d, \"channels\": [", beg, end);
  r.body = b;
  int shown = 0;
  for (int ch = 0; ch < 32; ch++) {
    std::vector<span> sp = spans_of(mins.data(), n, ch);
    if (sp.empty()) continue;
    r.body += std::string(shown++ ? "," : "") + "\n  {\"ch\": " + std::to_string(ch) +
              ", \"spans\": " + spans_json(sp) + "}";
  }
  r.body += "\n]}\n";
  return r;
}

reply api_events(fs_app& app, int beg, int end, int type) {
  static const char* kinds[] = {"record", "vloss", "motion", "sensor"};
  // The channels recorded in the span; each is asked for on its own so the page can
  // colour its own row.
  int n = 0;
  min_rec_t* m = app.q_min(beg, end, n);
  unsigned seen = 0;
  for (int i = 0; i < n; i++)
    for (int ch = 0; ch < 32; ch++) {
      int32_t c;
      memcpy(&c, &m[i].count[ch], sizeof c);
      if (c > 0) seen |= 1u << ch;
    }
  reply r;
  char b[120];
  snprintf(b, sizeof b, "{\"from\": %d, \"to\": %d, \"events\": [", beg, end);
  r.body = b;
  int shown = 0;
  for (int k = 1; k < 4; k++) {
    if (type >= 0 && k != type) continue;
    for (int ch = 0; ch < 32; ch++) {
      if (!(seen >> ch & 1)) continue;
      min_rec_t* e = app.q_log(beg, end, static_cast<int>(1u << ch), k, n);
      std::vector<long long> times;
      for (int i = 0; i < n; i++) {
        int32_t t;
        memcpy(&t, &e[i].time, sizeof t);
        times.push_back(t / 60 * 60);
      }
      std::sort(times.begin(), times.end());
      times.erase(std::unique(times.begin(), times.end()), times.end());
      if (times.empty()) continue;
      r.body += std::string(shown++ ? "," : "") + "\n  {\"type\": \"" + kinds[k] +
                "\", \"ch\": " + std::to_string(ch) + ", \"minutes\": [";
      for (size_t i = 0; i < times.size(); i++)
        r.body += (i ? ", " : "") + std::to_string(times[i]);
      r.body += "]}";
    }
  }
  r.body += "\n]}\n";
  return r;
}

}  // namespace serve
