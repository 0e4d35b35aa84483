// Muxing throughput: a recorder-shaped H.264 stream of at least 200 MB, held in memory,
// through fs_mp4 into a file, against `ffmpeg -f h264 -i IN -c copy OUT.mp4` on the same
// stream. Throughput is MB of input stream per second.
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "annexb.h"

namespace {

double now() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1e6;
}

std::string slurp(const std::string& path) {
  std::string s;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return s;
  char b[1 << 16];
  size_t n;
  while ((n = fread(b, 1, sizeof b, f)) > 0) s.append(b, n);
  fclose(f);
  return s;
}

}  // namespace

int main() {
  const char* tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
  std::string dir = std::string(tmp) + "/bench_mp4_mux." + std::to_string(getpid());
  std::string one = dir + "/one.h264", in = dir + "/in.h264", out = dir + "/out.mp4",
              ref = dir + "/ref.mp4";
  if (system(("mkdir -p " + dir).c_str()) != 0) return 1;
  // 10 s of 1280x720 at 25/s, high quality: a main stream of about 10 Mbit/s and more.
  std::string enc =
      "ffmpeg -v error -y -f lavfi -i testsrc2=size=1280x720:rate=25 -t 10 "
      "-pix_fmt yuv420p -c:v libx264 -preset ultrafast -crf 14 -bf 0 -g 25 "
      "-x264-params repeat-headers=1:slices=1 -f h264 " +
      one;
  if (system(enc.c_str()) != 0) {
    fprintf(stderr, "bench_mp4_mux: ffmpeg with libx264 is needed (apt-get install ffmpeg)\n");
    return 1;
  }
  // Copies of a stream that opens with a key frame and its parameter sets play on.
  std::string piece = slurp(one), stream;
  while (stream.size() < 200u << 20) stream += piece;
  FILE* f = fopen(in.c_str(), "wb");
  fwrite(stream.data(), 1, stream.size(), f);
  fclose(f);
  std::vector<annexb::frame> frames = annexb::split(stream, false);
  double mb = stream.size() / 1048576.0;
  printf("stream: %.1f MB, %zu frames\n", mb, frames.size());

  double t0 = now();
  {
    fs_mp4 m("avc1");
    m.set(1280, 720, 25, 0);
    unsigned size = 0;
    for (const auto& fr : frames) size += m.scan(fr.kind, fr.data.data(), fr.data.size());
    FILE* o = fopen(out.c_str(), "wb");
    m.w_box_mdat(o, size);
    for (const auto& fr : frames) {
      m.add(fr.kind, fr.data.data(), fr.data.size());
      m.w_data(fr.kind, o, fr.data.data(), fr.data.size());
    }
    m.w_box_moov(o);
    fclose(o);
  }
  double ours = mb / (now() - t0);

  t0 = now();
  std::string cp = "ffmpeg -v error -y -f h264 -i " + in + " -c copy " + ref;
  int rc = system(cp.c_str());
  double theirs = mb / (now() - t0);
  system(("rm -rf " + dir).c_str());
  if (rc != 0) return 1;

  printf("fs_mp4: %.0f MB/s\n", ours);
  printf("ffmpeg -c copy: %.0f MB/s\n", theirs);
  printf("ratio: %.2f\n", ours / theirs);
  return 0;
}
