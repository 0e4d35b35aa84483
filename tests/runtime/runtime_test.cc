#include <stdlib.h>

#include <gtest/gtest.h>

#include "kit/kit.h"
#include "runtime/runtime.h"

TEST(PathResolver, PrefixesAbsolutePathsWithTheBoardRootReadAtEachCall) {
  unsetenv("RINGREC_ROOT");
  EXPECT_EQ(fs_path("/proc/partitions"), "/proc/partitions");
  setenv("RINGREC_ROOT", "/tmp/board/", 1);
  EXPECT_EQ(fs_path("/proc/partitions"), "/tmp/board/proc/partitions");
  EXPECT_EQ(fs_path("relative/x"), "relative/x");
  setenv("RINGREC_ROOT", "", 1);
  EXPECT_EQ(fs_path("/dev/sda"), "/dev/sda");
  unsetenv("RINGREC_ROOT");
}

TEST(Diagnostics, EachCallIsOneWholeLineWithItsPrefix) {
  kit::StderrCapture cap;
  fs_log("read", 54, "ERROR: READ\n");
  fs_log_hdd("x_read", 576, 3, "ERR %d, READ", 1);
  fs_log_raw("E_%.3d: %s", 7, "HOUR_1:02");
  EXPECT_EQ(cap.take(), "read[54]: ERROR: READ\nx_read[576]: HDD3: ERR 1, READ\nE_007: HOUR_1:02\n");
}
