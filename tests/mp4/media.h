// Running ffmpeg and ffprobe from tests. Tests that need them fail, never pass, when
// they are missing.
#ifndef RINGREC_TEST_MEDIA_H
#define RINGREC_TEST_MEDIA_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace media {

inline bool have_ffmpeg() {
  return system("command -v ffmpeg >/dev/null 2>&1 && command -v ffprobe >/dev/null 2>&1") == 0;
}

#define REQUIRE_FFMPEG()                                                                  \
  ASSERT_TRUE(media::have_ffmpeg()) << "ffmpeg and ffprobe are needed for this test and " \
                                       "are not on PATH: install them (apt-get install ffmpeg)"

// Runs a shell command; returns its standard output, *status its exit status.
inline std::string run(const std::string& cmd, int* status = nullptr) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char b[65536];
  size_t n;
  while ((n = fread(b, 1, sizeof b, p)) > 0) out.append(b, n);
  int st = pclose(p);
  if (status) *status = st;
  return out;
}

}  // namespace media

#endif
