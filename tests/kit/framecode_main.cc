// framecode W H [CH STREAM FIRST_MS FPS] < gray.raw
//
// Reads the frame code of every picture of a raw gray stream (ffmpeg -f rawvideo
// -pix_fmt gray -) and prints one line a picture: "CH main|sub MS FRAME", or "invalid".
// With the run arguments it prints nothing but checks the pictures form one unbroken run
// (kit::frame_code_run) and says what is wrong; exit status 1 then, or when no picture
// came.
#include <stdio.h>
#include <stdlib.h>

#include "kit/frame_code.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 7) {
    fprintf(stderr, "usage: framecode W H [CH STREAM FIRST_MS FPS] < gray.raw\n");
    return 2;
  }
  std::vector<kit::frame_code> codes = kit::read_frame_codes(stdin, atoi(argv[1]), atoi(argv[2]));
  if (argc == 7) {
    std::string bad =
        kit::frame_code_run(codes, atoi(argv[3]), atoi(argv[4]), atoll(argv[5]), atoi(argv[6]));
    if (!bad.empty() || codes.empty()) {
      fprintf(stderr, "framecode: %s\n", codes.empty() ? "no pictures" : bad.c_str());
      return 1;
    }
    printf("%zu pictures, %lld to %lld ms\n", codes.size(), codes.front().ms, codes.back().ms);
    return 0;
  }
  for (const kit::frame_code& c : codes) {
    if (c.valid)
      printf("%d %s %lld %u\n", c.channel, c.stream == 0 ? "main" : "sub", c.ms, c.frame);
    else
      printf("invalid\n");
  }
  return codes.empty() ? 1 : 0;
}
