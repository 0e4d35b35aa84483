// Clips: MP4 files made by the library's own MP4 writer from frames the playback cursor
// reads, a forward clip from the first key frame at or before a time, or a reverse clip
// of the key frames before a time in reverse order. Each is built once into an unlinked
// scratch file and kept in a small cache bounded in bytes; a response holds the file
// open while it sends it, so memory stays flat however many clients read at once.
#include <ringrec/audio.h>
#include <ringrec/block.h>
#include <ringrec/fs_mp4.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <future>
#include <list>

#include "../player.h"
#include "serve.h"

namespace serve {

namespace {

// A recorder's block holds a fraction of a second of every channel, a few MB at most;
// a larger size from a damaged head is passed over rather than given a buffer.
const int kMaxBlock = 64 << 20;
// How far back a forward clip looks for its key frame, and a clip's largest span.
const int kLookBack = 300;
const int kMaxSpan = 3600;
const long long kMaxClipBytes = 1LL << 30;

bool want_stream(const frame_head_t& f, bool sub) {
  return sub ? f.stream != BLOCK_STREAM_MAIN : f.stream != BLOCK_STREAM_SUB;
}

// Calls fn(frame head, data, length) for each frame of the block in buf, up to an
// invalid frame type (the rest of the block is unusable); the length is the one the
// exporters hand the MP4 writer.
template <typename F>
void frames_of(const head_t& h, const std::vector<char>& buf, F fn) {
  block_frames(h, reinterpret_cast<const unsigned char*>(buf.data()),
               [&](const frame_head_t& f, const char* d) {
                 return f.type < FRAME_INVALID && fn(f, d, f.size < f.len ? f.size : f.len);
               });
}

bool read_block(fs_app& app, const head_t& h, std::vector<char>& buf) {
  if (h.size <= 0 || h.size > kMaxBlock) return false;
  buf.resize(static_cast<size_t>(h.size));
  return app.r_data(buf.data(), h.size) == 0;
}

// Does the block under the cursor hold a key frame of ch in the wanted stream?
bool has_key(fs_app& app, const head_t& h, int ch, bool sub, std::vector<char>& buf) {
  if (!(h.types & BLOCK_KEY_BITS) || ch >= 59 || h.count[ch] <= 0 || !read_block(app, h, buf))
    return false;
  bool found = false;
  frames_of(h, buf, [&](const frame_head_t& f, const char*, uint32_t) {
    found = frame_is_key(f.type) && static_cast<int>(f.ch) == ch && want_stream(f, sub);
    return !found;
  });
  return found;
}

// The MP4 being written into a scratch file.
struct mp4_out {
  FILE* f = tmpfile();
  fs_mp4* mp4 = nullptr;
  std::shared_ptr<clip> c = std::make_shared<clip>();
  ~mp4_out() {
    delete mp4;
    if (f) fclose(f);
  }
  bool start(const frame_head_t& k, int fps, int time) {
    if (!f) return false;
    mp4 = new fs_mp4(k.type == FRAME_H265_KEY ? "hvc1" : "avc1");
    mp4->set(static_cast<unsigned short>(k.width), static_cast<unsigned short>(k.height),
             static_cast<unsigned>(fps), static_cast<unsigned>(time));
    mp4->w_box_mdat(f);
    c->start = c->end = time;
    c->fps = fps;
    return true;
  }
  bool put(const frame_head_t& fh, const char* d, uint32_t len, int time) {
    int n = mp4->add(static_cast<int>(fh.type), d, len);
    if (n <= 0) return false;
    mp4->w_data(static_cast<int>(fh.type), f, d, len);
    if (fh.type == FRAME_AUDIO) return true;
    if (frame_is_key(fh.type)) c->keys.push_back(c->frames);
    c->frames++;
    if (c->seconds.empty() || c->seconds.back().first != time) c->seconds.push_back({time, 0});
    c->seconds.back().second++;
    c->end = time;
    return true;
  }
  // Closes the file: moov, then the mdat size (ftyp is 24 bytes, the mdat header's
  // size word follows) now that the data is known.
  clip_ptr finish() {
    mp4->w_box_moov(f);
    unsigned box = 0, data = 0;
    mp4->g_box(box, data);
    unsigned v = data + 8;
    unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    if (fflush(f) != 0 || pwrite(fileno(f), b, 4, 24) != 4) return nullptr;
    c->size = ftell(f);
    c->fd = dup(fileno(f));
    return c->fd < 0 ? nullptr : c;
  }
};

clip_ptr build_forward(fs_app& app, const clip_request& r, reply* err) {
  if (app.r_set(r.from, 0) != 0) {
    *err = error_reply(404, "nothing recorded at or after the start");
    return nullptr;
  }
  // Backwards from `from` to the channel's last key frame at or before it; when there
  // is none near, forwards to its first one after it.
  std::vector<char> buf;
  int start = -1;
  tool::player back(app, -1, false, 0, 0);
  head_t* h;
  for (h = back.start(r.from); h != nullptr && h->time >= r.from - kLookBack; h = back.next())
    if (has_key(app, *h, r.ch, r.sub, buf)) {
      start = h->time;
      break;
    }
  if (start < 0 && app.r_set(r.from, 0) == 0) {
    tool::player fw(app, 1, false, 0, 0);
    for (h = fw.start(r.from); h != nullptr && h->time <= r.to; h = fw.next())
      if (has_key(app, *h, r.ch, r.sub, buf)) {
        start = h->time;
        break;
      }
  }
  if (start < 0) {
    *err = error_reply(404, "no key frame of channel " + std::to_string(r.ch) + " in the range");
    return nullptr;
  }
  app.r_set(start, 0);
  tool::player fw(app, 1, false, 0, 0);
  mp4_out out;
  std::vector<char> pcmbuf;
  bool stop = false;
  for (h = fw.start(start); !stop && h != nullptr && h->time <= r.to; h = fw.next()) {
    if (h->count[r.ch < 59 ? r.ch : 0] <= 0) continue;
    head_t head = *h;
    if (!read_block(app, head, buf)) continue;
    frames_of(head, buf, [&](const frame_head_t& f, const char* d, uint32_t len) {
      if (static_cast<int>(f.ch) != r.ch) return true;
      if (f.type == FRAME_AUDIO) {
        if (!r.audio || out.mp4 == nullptr) return true;
        if (f.fps == 2) return out.put(f, d, len, head.time) || true;
        // IMA ADPCM behind its 4-byte marker, as the exporter takes it.
        if (len < 8 || memcmp(d, "\x00\x01\x52\x00", 4) != 0) return true;
        pcmbuf.resize(8 * len + 16);
        int pl = 0;
        adpcm2lpcm(d, static_cast<int>(len), pcmbuf.data(), pl);
        if (pl > 0) out.put(f, pcmbuf.data(), static_cast<uint32_t>(pl), head.time);
        return true;
      }
      if (!frame_is_video(f.type) || !want_stream(f, r.sub)) return true;
      if (out.mp4 == nullptr) {
        if (!frame_is_key(f.type)) return true;
        if (!out.start(f, f.fps ? static_cast<int>(f.fps) : 25, head.time))
          return stop = true, false;
      } else if (frame_is_key(f.type) &&
                 ((f.type == FRAME_H265_KEY) != (strcmp(out.mp4->codec, "hvc1") == 0) ||
                  f.width != out.mp4->trk[0].width || f.height != out.mp4->trk[0].height)) {
        // A new picture size or codec needs a new file: the clip ends here.
        return stop = true, false;
      }
      out.put(f, d, len, head.time);
      if (out.mp4->g_size() > kMaxClipBytes) stop = true;
      return !stop;
    });
  }
  if (out.mp4 == nullptr) {
    *err = error_reply(404, "no key frame of channel " + std::to_string(r.ch) + " in the range");
    return nullptr;
  }
  clip_ptr c = out.finish();
  if (!c) *err = error_reply(500, "cannot write the clip's scratch file");
  return c;
}

struct key_frame {
  frame_head_t f;
  std::string data;
  int time;
};

clip_ptr build_reverse(fs_app& app, const clip_request& r, reply* err) {
  int at = r.from, count = r.to;
  std::vector<key_frame> keys;
  if (app.r_set(at, 0) != 0) {
    *err = error_reply(404, "nothing recorded at or after that time to go back from");
    return nullptr;
  }
  tool::player back(app, -1, false, 0, 0);
  std::vector<char> buf;
  head_t* h;
  for (h = back.start(at);
       static_cast<int>(keys.size()) < count && h != nullptr && at - h->time <= 86400;
       h = back.next()) {
    head_t head = *h;
    if (!has_key(app, head, r.ch, r.sub, buf)) continue;
    frames_of(head, buf, [&](const frame_head_t& f, const char* d, uint32_t len) {
      if (!frame_is_key(f.type) || static_cast<int>(f.ch) != r.ch || !want_stream(f, r.sub))
        return true;
      keys.push_back({f, std::string(d, len), head.time});
      return false;
    });
  }
  if (keys.empty()) {
    *err =
        error_reply(404, "no key frame of channel " + std::to_string(r.ch) + " before that time");
    return nullptr;
  }
  // One sample per key frame, shown for as long as the recording took between them.
  int span = keys.front().time - keys.back().time;
  int rate = span > 0 ? static_cast<int>((keys.size() - 1 + span / 2) / span) : 1;
  if (rate < 1) rate = 1;
  mp4_out out;
  if (!out.start(keys.front().f, rate, keys.front().time)) {
    *err = error_reply(500, "cannot write the clip's scratch file");
    return nullptr;
  }
  for (const key_frame& k : keys) {
    if (k.f.type != keys.front().f.type || k.f.width != keys.front().f.width ||
        k.f.height != keys.front().f.height)
      break;
    if (out.put(k.f, k.data.data(), static_cast<uint32_t>(k.data.size()), k.time))
      out.c->times.push_back(k.time);
  }
  if (out.c->times.empty()) {
    *err = error_reply(404, "the key frames of channel " + std::to_string(r.ch) + " do not read");
    return nullptr;
  }
  out.c->end = out.c->times.back();
  clip_ptr c = out.finish();
  if (!c) *err = error_reply(500, "cannot write the clip's scratch file");
  return c;
}

// The cache: finished clips by request, least recently used first out; a build under
// way is shared by the requests that ask for it meanwhile.
std::mutex g_m;
long long g_bound = 256LL << 20, g_bytes = 0;
std::list<std::pair<std::string, clip_ptr>> g_lru;
std::map<std::string, std::shared_future<std::pair<clip_ptr, reply>>> g_building;

}  // namespace

clip::~clip() {
  if (fd >= 0) close(fd);
}

std::string clip_request::key() const {
  char b[96];
  snprintf(b, sizeof b, "%d/%d/%d/%d/%d/%d", reverse, ch, from, to, sub, audio);
  return b;
}

void set_clip_cache(long long bytes) { g_bound = bytes; }

clip_ptr get_clip(reader_pool& pool, const clip_request& r, reply* err) {
  if (r.ch < 0 || r.ch >= pool.channels()) {
    *err = error_reply(400, "ch: a channel number, 0 to " + std::to_string(pool.channels() - 1));
    return nullptr;
  }
  if (!r.reverse && r.to < r.from) {
    *err = error_reply(400, "'to' lies before 'from'");
    return nullptr;
  }
  if (!r.reverse && r.to - r.from > kMaxSpan) {
    *err = error_reply(400, "a clip spans at most " + std::to_string(kMaxSpan) + " s");
    return nullptr;
  }
  if (r.reverse && (r.to < 1 || r.to > 600)) {
    *err = error_reply(400, "count: 1 to 600 key frames");
    return nullptr;
  }
  std::string key = r.key();
  std::promise<std::pair<clip_ptr, reply>> mine;
  std::shared_future<std::pair<clip_ptr, reply>> wait;
  {
    std::lock_guard<std::mutex> g(g_m);
    for (auto it = g_lru.begin(); it != g_lru.end(); ++it)
      if (it->first == key) {
        g_lru.splice(g_lru.end(), g_lru, it);
        return g_lru.back().second;
      }
    auto b = g_building.find(key);
    if (b != g_building.end()) {
      wait = b->second;
    } else {
      g_building[key] = mine.get_future().share();
    }
  }
  if (wait.valid()) {
    std::pair<clip_ptr, reply> got = wait.get();
    if (!got.first) *err = got.second;
    return got.first;
  }
  reply e;
  clip_ptr c;
  {
    std::unique_ptr<reader_pool::lease> l = pool.take();
    c = r.reverse ? build_reverse(l->app(), r, &e) : build_forward(l->app(), r, &e);
  }
  std::lock_guard<std::mutex> g(g_m);
  mine.set_value({c, e});
  g_building.erase(key);
  if (!c) {
    *err = e;
    return nullptr;
  }
  g_lru.push_back({key, c});
  g_bytes += c->size;
  while (g_bytes > g_bound && !g_lru.empty()) {
    g_bytes -= g_lru.front().second->size;
    g_lru.pop_front();
  }
  return c;
}

std::string clip_json(const clip& c) {
  std::string o = "{\"start\": " + std::to_string(c.start) + ", \"end\": " + std::to_string(c.end) +
                  ", \"fps\": " + std::to_string(c.fps) +
                  ", \"frames\": " + std::to_string(c.frames) +
                  ", \"bytes\": " + std::to_string(c.size) + ", \"seconds\": [";
  for (size_t i = 0; i < c.seconds.size(); i++)
    o += (i ? ", [" : "[") + std::to_string(c.seconds[i].first) + ", " +
         std::to_string(c.seconds[i].second) + "]";
  o += "], \"keys\": [";
  for (size_t i = 0; i < c.keys.size(); i++) o += (i ? ", " : "") + std::to_string(c.keys[i]);
  o += "], \"times\": [";
  for (size_t i = 0; i < c.times.size(); i++) o += (i ? ", " : "") + std::to_string(c.times[i]);
  return o + "]}\n";
}

// Synchronised key-frame seeking: the next (dir > 0) or previous key-frame block after
// or before `at` that carries any channel of mask, by the main stream's key-frame index.
reply api_keyframe(fs_app& app, unsigned mask, int at, int dir) {
  if (app.r_set(at, 0) != 0) return error_reply(404, "nothing recorded there");
  tool::player p(app, dir, true, mask, 0);
  head_t* h = p.start(at);
  while (h != nullptr && h->time == at) h = p.next();
  if (h == nullptr || (dir > 0 ? h->time - at : at - h->time) > 7200)
    return error_reply(404, "no key frame with those channels within two hours");
  reply r;
  r.body = "{\"time\": " + std::to_string(h->time) + "}\n";
  return r;
}

}  // namespace serve
