// ADPCM decoding rate: adpcm2lpcm over recorder audio frames (505 samples each) against
// ffmpeg decoding the same IMA ADPCM blocks from a WAV file, in samples per second.
#include <math.h>
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

double now() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1e6;
}

}  // namespace

int main() {
  const char* tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
  std::string dir = std::string(tmp) + "/bench_adpcm." + std::to_string(getpid());
  std::string raw = dir + "/sig.raw", wav = dir + "/sig.wav";
  if (system(("mkdir -p " + dir).c_str()) != 0) return 1;
  const int kFrames = 64000, kPer = 505;  // over an hour of 8000 Hz audio
  {
    FILE* f = fopen(raw.c_str(), "wb");
    for (long t = 0; t < long(kFrames) * kPer; t++) {
      short v = static_cast<short>(lrint(9000 * sin(t * 0.3457) + 5000 * sin(t * 0.0761)));
      fwrite(&v, 2, 1, f);
    }
    fclose(f);
  }
  std::string enc = "ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i " + raw +
                    " -c:a adpcm_ima_wav -block_size 256 " + wav;
  if (system(enc.c_str()) != 0) {
    fprintf(
        stderr,
        "bench_adpcm_decode: ffmpeg failed to encode; is it installed (apt-get install ffmpeg)?\n");
    return 1;
  }
  // The WAV data chunk: 256-byte blocks, repacked as recorder frames.
  std::string w;
  {
    FILE* f = fopen(wav.c_str(), "rb");
    char b[1 << 16];
    size_t n;
    while ((n = fread(b, 1, sizeof b, f)) > 0) w.append(b, n);
    fclose(f);
  }
  size_t data = w.find("data") + 8;
  std::vector<char> frames;
  int n = 0;
  for (size_t off = data; off + 256 <= w.size(); off += 256, n++) {
    const char hdr[4] = {0, 1, 0x52, 0};
    frames.insert(frames.end(), hdr, hdr + 4);
    frames.insert(frames.end(), w.begin() + off, w.begin() + off + 3);
    frames.push_back(0);
    frames.insert(frames.end(), w.begin() + off + 4, w.begin() + off + 256);
  }

  std::vector<char> out(1010);
  long long samples = 0;
  double t0 = now();
  for (int rep = 0; rep < 5; rep++)
    for (int k = 0; k < n; k++) {
      int len = 0;
      adpcm2lpcm(&frames[size_t(k) * 260], 260, out.data(), len);
      samples += len / 2;
    }
  double ours = samples / (now() - t0);

  t0 = now();
  int rc = system(("ffmpeg -v error -i " + wav + " -f null -").c_str());
  double theirs = double(n) * kPer / (now() - t0);
  system(("rm -rf " + dir).c_str());
  if (rc != 0) return 1;

  printf("adpcm2lpcm: %.1f Msamples/s\n", ours / 1e6);
  printf("ffmpeg adpcm_ima_wav decode: %.1f Msamples/s\n", theirs / 1e6);
  printf("ratio: %.2f\n", ours / theirs);
  return 0;
}
