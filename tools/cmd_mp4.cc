// ringrec mp4 IN OUT.mp4 [--fps N] [--codec h264|h265]: muxes a raw start-code stream
// through the library's MP4 writer, the way export does, so the muxer can be checked on
// a camera's own stream.
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "annexb.h"
#include "command.h"

namespace {

bool read_all(const std::string& path, std::string& out) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return false;
  char b[1 << 16];
  size_t n;
  while ((n = fread(b, 1, sizeof b, f)) > 0) out.append(b, n);
  bool ok = !ferror(f);
  fclose(f);
  return ok;
}

// The first unit of the given HEVC / H.264 type in a frame, without its start code.
std::string first_unit(const std::string& frame, bool hevc, int type) {
  for (const auto& u : annexb::units(frame)) {
    unsigned char h = static_cast<unsigned char>(frame[u.first]);
    if ((hevc ? (h >> 1) & 0x3f : h & 0x1f) == type) return frame.substr(u.first, u.second);
  }
  return std::string();
}

int run_mp4(const std::vector<std::string>& args_in) {
  std::vector<std::string> args = args_in;
  std::string fps_s = "25", codec_s;
  tool::take_option(args, "--fps", &fps_s);
  bool given = tool::take_option(args, "--codec", &codec_s);
  if (args.size() != 2)
    return tool::usage_error("mp4", "give one input stream and one output file");
  char* end = nullptr;
  long fps = strtol(fps_s.c_str(), &end, 10);
  if (*end || fps < 1 || fps > 240)
    return tool::usage_error("mp4", "--fps wants a whole number of frames per second, 1 to 240");
  if (given && codec_s != "h264" && codec_s != "h265")
    return tool::usage_error("mp4", "--codec is h264 or h265");

  std::string es;
  if (!read_all(args[0], es)) return tool::fail("cannot read " + args[0] + ": check the path");
  if (!given) {
    // Guess from the first unit: an H.265 stream opens with a VPS (type 32).
    auto u = annexb::units(es);
    bool hevc = !u.empty() && ((static_cast<unsigned char>(es[u[0].first]) >> 1) & 0x3f) == 32;
    codec_s = hevc ? "h265" : "h264";
  }
  bool hevc = codec_s == "h265";
  std::vector<annexb::frame> frames = annexb::split(es, hevc);
  size_t first = 0;
  while (first < frames.size() && frames[first].kind != (hevc ? 11 : 0)) first++;
  if (first == frames.size())
    return tool::fail("no " + codec_s + " key frame with parameter sets in " + args[0] +
                      ": is it a raw start-code stream of that codec (see --codec)?");

  unsigned w = 0, h = 0;
  std::string sps = first_unit(frames[first].data, hevc, hevc ? 33 : 7);
  if (!(hevc ? annexb::hevc_size(sps, w, h) : annexb::avc_size(sps, w, h)) || w > 65535 ||
      h > 65535)
    w = h = 0;

  fs_mp4 m(hevc ? "hvc1" : "avc1");
  m.set(static_cast<unsigned short>(w), static_cast<unsigned short>(h), static_cast<unsigned>(fps),
        static_cast<unsigned>(time(nullptr)));
  unsigned size = 0;
  for (size_t i = first; i < frames.size(); i++) {
    int n = m.scan(frames[i].kind, frames[i].data.data(), frames[i].data.size());
    if (n > 0) size += n;
  }
  FILE* out = fopen(args[1].c_str(), "wb");
  if (!out) return tool::fail("cannot create " + args[1] + ": check the directory exists");
  m.w_box_mdat(out, size);
  size_t refused = 0;
  for (size_t i = first; i < frames.size(); i++) {
    const annexb::frame& f = frames[i];
    if (m.add(f.kind, f.data.data(), f.data.size()) > 0)
      m.w_data(f.kind, out, f.data.data(), f.data.size());
    else
      refused++;
    tool::progress("mp4", i + 1, frames.size());
  }
  tool::progress_end();
  m.w_box_moov(out);
  unsigned box, data;
  m.g_box(box, data);
  bool ok = fclose(out) == 0;
  if (!ok) return tool::fail("writing " + args[1] + " failed: check the free space");
  printf("%s: %s %ux%u at %ld/s, %zu frames", args[1].c_str(), codec_s.c_str(), w, h, fps,
         frames.size() - first - refused);
  if (first) printf(", %zu before the first key frame left out", first);
  if (refused) printf(", %zu refused", refused);
  printf("\n");
  return 0;
}

bool reg = tool::add_command({"mp4", "mp4 IN OUT.mp4 [--fps N] [--codec h264|h265]", run_mp4});

}  // namespace
