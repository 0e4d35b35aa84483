// ringrec irf FILE [--frames] [--extract CH OUT] [--mp4 OUT.mp4 [--ch CH]]: checks an
// IRF backup file's header, summarises or lists its frame records, and takes one
// channel out as a raw start-code stream or as an MP4 file. Everything is read through
// the library's USB reader, as a recorder playing the file would read it.
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "annexb.h"
#include "cli.h"
#include "command.h"

namespace {

const char* kUsage =
    "irf FILE [--frames] [--extract CH OUT.h264] [--mp4 OUT.mp4 [--ch CH]] [--json]";

struct chan_stats {
  long long keys = 0, video = 0, audio = 0, bytes = 0;
  unsigned w = 0, h = 0, fps = 0;
};

bool parse_ch(const std::string& s, int& ch) {
  char* end = nullptr;
  long v = strtol(s.c_str(), &end, 10);
  if (s.empty() || *end || v < 0 || v > 31) return false;
  ch = static_cast<int>(v);
  return true;
}

const char* kind_name(unsigned kind) {
  return kind == IRF_KIND_KEY     ? "key"
         : kind == IRF_KIND_VIDEO ? "video"
         : kind == IRF_KIND_AUDIO ? "audio"
                                  : "?";
}

// One pass over the records from the first one. fn(offset, record, data) sees each;
// returns false to stop. Returns the number of records and sets *cut when a record
// claims more data than the file holds (a truncated copy).
template <typename Fn>
long long walk(fs_app& app, int size, bool need_data, bool* cut, long long* cut_at, Fn fn) {
  int sz = 0;
  app.usb_reset_irf(sz);
  std::vector<char> data;
  long long n = 0;
  *cut = false;
  for (;;) {
    long pos = app.usb_irf_position();
    irf_frame_rec_t* r = app.usb_read_video_header(0);
    if (r->len == 0 && r->kind == 0) {
      // A zero record before the end of the file is a damaged sync or record.
      if (pos + 4 <= size) {
        *cut = true;
        *cut_at = pos;
      }
      break;
    }
    irf_frame_rec_t rec = *r;
    if (static_cast<long long>(rec.len) > static_cast<long long>(size) - (pos + 68)) {
      *cut = true;
      *cut_at = pos;
      break;
    }
    if (need_data) {
      data.resize(rec.len);
      app.usb_read_video_data(data.data(), static_cast<int>(rec.len));
    } else {
      fseeko(app.usb_f, static_cast<off_t>(pos) + 68 + rec.len, SEEK_SET);
    }
    n++;
    if (!fn(pos, rec, data)) break;
  }
  return n;
}

void print_summary(const std::string& path, int size, long long n, std::map<int, chan_stats>& stats,
                   long long bad_links, bool cut, long long cut_at) {
  printf("%s: IRF, %d bytes, %lld frame records\n", path.c_str(), size, n);
  for (auto& kv : stats) {
    const chan_stats& s = kv.second;
    printf("  channel %d: %lld video frames (%lld key), %lld audio frames, %lld bytes", kv.first,
           s.video, s.keys, s.audio, s.bytes);
    if (s.w) printf(", %ux%u at %u/s", s.w, s.h, s.fps);
    printf("\n");
  }
  if (bad_links) printf("  %lld back links point at no earlier key frame\n", bad_links);
  if (cut)
    printf("  the records end at offset %lld, before the end of the file: damaged or cut short\n",
           cut_at);
}

int run_irf(const std::vector<std::string>& args_in) {
  std::vector<std::string> args = args_in;
  bool list = tool::take_flag(args, "--frames");
  bool as_json = tool::take_flag(args, "--json");
  tool::json j;
  std::string mp4_out, ch_s;
  bool want_mp4 = tool::take_option(args, "--mp4", &mp4_out);
  bool ch_given = tool::take_option(args, "--ch", &ch_s);
  std::string raw_out;
  int ch = -1;
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] != "--extract") continue;
    if (i + 2 >= args.size())
      return tool::usage_error("irf", "--extract wants a channel and a file");
    if (!parse_ch(args[i + 1], ch))
      return tool::usage_error("irf",
                               "--extract wants a channel number 0 to 31, not " + args[i + 1]);
    raw_out = args[i + 2];
    args.erase(args.begin() + i, args.begin() + i + 3);
    break;
  }
  if (ch_given && !parse_ch(ch_s, ch))
    return tool::usage_error("irf", "--ch wants a channel number 0 to 31, not " + ch_s);
  if (args.size() != 1) return tool::usage_error("irf", "give one IRF file");
  const std::string& path = args[0];

  fs_app app;
  if (app.usb_open_irf(path.c_str()) != 1)
    return tool::fail("cannot open " + path + ": check the path and that the stick is mounted");
  if (app.usb_check_irf_header(app.usb_f) != 1) {
    app.usb_close_irf();
    return tool::fail(path +
                      " is not an IRF backup: its first 8 bytes are not \"TOLVEX\", 0, "
                      "version 0 (a file cut short, another format, or a missing header)");
  }
  int size = 0;
  app.usb_reset_irf(size);

  // Pass 1: statistics, the listing, link checks.
  std::map<int, chan_stats> stats;
  std::set<long> keys;
  long long bad_links = 0;
  bool cut = false;
  long long cut_at = 0;
  j.obj().str("file", args[0]).arr("frames");
  if (list && !as_json)
    printf("%10s  %-5s  %2s  %8s  %10s  %-9s  %3s  %10s  %10s\n", "offset", "kind", "ch", "bytes",
           "link", "picture", "fps", "w5", "w6");
  long long n = walk(app, size, false, &cut, &cut_at,
                     [&](long pos, const irf_frame_rec_t& r, const std::vector<char>&) {
                       chan_stats& s = stats[static_cast<int>(r.ch)];
                       if (r.kind == IRF_KIND_KEY) s.keys++;
                       if (r.kind == IRF_KIND_KEY || r.kind == IRF_KIND_VIDEO) s.video++;
                       if (r.kind == IRF_KIND_AUDIO) s.audio++;
                       s.bytes += r.len;
                       if (r.kind == IRF_KIND_KEY && s.w == 0) {
                         s.w = r.w2;
                         s.h = r.w3;
                         s.fps = r.w4;
                       }
                       // A link is 0 (not kept), -1 (no key frame yet) or a key frame
                       // already seen.
                       if (r.link != 0 && r.link != -1 && !keys.count(r.link)) bad_links++;
                       if (r.kind == IRF_KIND_KEY) keys.insert(pos);
                       if (list && as_json)
                         j.obj()
                             .num("offset", pos)
                             .str("kind", kind_name(r.kind))
                             .num("ch", r.ch)
                             .num("bytes", r.len)
                             .num("link", r.link)
                             .num("width", r.w2)
                             .num("height", r.w3)
                             .num("fps", r.w4)
                             .end();
                       if (list && !as_json) {
                         char pic[24] = "";
                         if (r.kind != IRF_KIND_AUDIO)
                           snprintf(pic, sizeof pic, "%ux%u", r.w2, r.w3);
                         printf("%10ld  %-5s  %2u  %8u  %10d  %-9s  %3u  %10u  %10u\n", pos,
                                kind_name(r.kind), r.ch, r.len, r.link, pic,
                                r.kind == IRF_KIND_AUDIO ? 0 : r.w4, r.w5, r.w6);
                       }
                       return true;
                     });
  j.end().num("bytes", size).num("records", n).num("bad_links", bad_links);
  if (cut)
    j.num("cut_at", cut_at);
  else
    j.null("cut_at");
  j.arr("channels");
  for (auto& kv : stats)
    j.obj()
        .num("channel", kv.first)
        .num("video", kv.second.video)
        .num("keys", kv.second.keys)
        .num("audio", kv.second.audio)
        .num("bytes", kv.second.bytes)
        .num("width", kv.second.w)
        .num("height", kv.second.h)
        .num("fps", kv.second.fps)
        .end();
  j.end();
  if (!as_json) print_summary(path, size, n, stats, bad_links, cut, cut_at);
  if (raw_out.empty() && !want_mp4) {
    app.usb_close_irf();
    if (as_json) j.end().print();
    return 0;
  }
  if (ch < 0) {
    for (auto& kv : stats)
      if (kv.second.keys) {
        ch = kv.first;
        break;
      }
    if (ch < 0) return tool::fail(path + " holds no key frame of any channel: nothing to extract");
  }
  if (!stats.count(ch) || stats[ch].keys == 0)
    return tool::fail("channel " + std::to_string(ch) + " has no key frame in " + path +
                      ": see the channel list above");

  // Pass 2: the channel's video frames, the raw stream and the MP4 sample sizes.
  FILE* raw = nullptr;
  if (!raw_out.empty() && !(raw = fopen(raw_out.c_str(), "wb")))
    return tool::fail("cannot create " + raw_out + ": check the directory exists");
  bool hevc = false, decided = false;
  fs_mp4* m = nullptr;
  unsigned mdat = 0;
  long long frames = 0;
  auto kind_of = [&](const irf_frame_rec_t& r) {
    return static_cast<int>(hevc ? (r.kind == IRF_KIND_KEY ? FRAME_H265_KEY : FRAME_H265)
                                 : (r.kind == IRF_KIND_KEY ? FRAME_H264_KEY : FRAME_H264));
  };
  walk(app, size, true, &cut, &cut_at,
       [&](long, const irf_frame_rec_t& r, const std::vector<char>& d) {
         if (static_cast<int>(r.ch) != ch || (r.kind != IRF_KIND_KEY && r.kind != IRF_KIND_VIDEO))
           return true;
         if (!decided) {
           // H.265 key frames open with a VPS (NAL type 32).
           std::string s(d.begin(), d.end());
           auto u = annexb::units(s);
           hevc = !u.empty() && ((static_cast<unsigned char>(s[u[0].first]) >> 1) & 0x3f) == 32;
           decided = true;
           if (want_mp4) {
             m = new fs_mp4(hevc ? "hvc1" : "avc1");
             m->set(static_cast<unsigned short>(stats[ch].w),
                    static_cast<unsigned short>(stats[ch].h), stats[ch].fps ? stats[ch].fps : 25,
                    static_cast<unsigned>(time(nullptr)));
           }
         }
         if (raw) fwrite(d.data(), 1, d.size(), raw);
         if (m) {
           int k = m->scan(kind_of(r), d.data(), static_cast<unsigned>(d.size()));
           if (k > 0) mdat += static_cast<unsigned>(k);
         }
         frames++;
         return true;
       });
  if (raw) {
    bool ok = fclose(raw) == 0;
    if (!ok) return tool::fail("writing " + raw_out + " failed: check the free space");
    if (as_json)
      j.obj("raw")
          .str("path", raw_out)
          .num("channel", ch)
          .num("frames", frames)
          .str("codec", hevc ? "H.265" : "H.264")
          .end();
    else
      printf("%s: channel %d, %lld frames, raw %s stream\n", raw_out.c_str(), ch, frames,
             hevc ? "H.265" : "H.264");
  }
  if (m) {
    FILE* out = fopen(mp4_out.c_str(), "wb");
    if (!out) {
      delete m;
      return tool::fail("cannot create " + mp4_out + ": check the directory exists");
    }
    m->w_box_mdat(out, mdat);
    long long written = 0;
    walk(app, size, true, &cut, &cut_at,
         [&](long, const irf_frame_rec_t& r, const std::vector<char>& d) {
           if (static_cast<int>(r.ch) != ch || (r.kind != IRF_KIND_KEY && r.kind != IRF_KIND_VIDEO))
             return true;
           if (m->add(kind_of(r), d.data(), static_cast<unsigned>(d.size())) > 0) {
             m->w_data(kind_of(r), out, d.data(), static_cast<unsigned>(d.size()));
             written++;
           }
           return true;
         });
    m->w_box_moov(out);
    delete m;
    if (fclose(out) != 0) return tool::fail("writing " + mp4_out + " failed: check the free space");
    if (as_json)
      j.obj("mp4")
          .str("path", mp4_out)
          .num("channel", ch)
          .str("codec", hevc ? "H.265" : "H.264")
          .num("width", stats[ch].w)
          .num("height", stats[ch].h)
          .num("fps", stats[ch].fps)
          .num("frames", written)
          .end();
    else
      printf("%s: channel %d, %s %ux%u at %u/s, %lld frames\n", mp4_out.c_str(), ch,
             hevc ? "H.265" : "H.264", stats[ch].w, stats[ch].h, stats[ch].fps, written);
  }
  app.usb_close_irf();
  if (as_json) j.end().print();
  return 0;
}

bool reg = tool::add_command({"irf", kUsage, run_irf});

}  // namespace
