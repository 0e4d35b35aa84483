// Command-line times: the epochs below were computed with `date -u -d ... +%s`.
#include "time_arg.h"

#include <gtest/gtest.h>

namespace {

long long t(const std::string& s) {
  long long v = -1;
  return tool::parse_time(s, &v) ? v : -1;
}

TEST(TimeArg, DatesAndEpochSecondsGiveTheSameInstant) {
  EXPECT_EQ(t("1700000000"), 1700000000);
  EXPECT_EQ(t("2023-11-14 22:13:20"), 1700000000);
  EXPECT_EQ(t("2023-11-14T22:13:20"), 1700000000);
  EXPECT_EQ(t("2023-11-14 22:13"), 1699999980);
  EXPECT_EQ(t("1970-01-01 00:00"), 0);
  EXPECT_EQ(t("2024-02-29 23:59:59"), 1709251199);  // leap day
  EXPECT_EQ(t("2000-03-01 00:00"), 951868800);      // after a 400-year leap day
  EXPECT_EQ(t("2038-01-19 03:14:07"), 2147483647);  // the last second a recorder stamps
}

TEST(TimeArg, RejectsWhatIsNotAValidInstant) {
  for (const char* bad : {"", "tomorrow", "2023-11-14", "2023-11-14 24:00", "2023-11-14 10:60",
                          "2023-02-29 10:00", "2023-13-01 10:00", "2023-11-14 10:00:61",
                          "2023-11-14 10:00 UTC", "-5", "12abc", "99999999999999"}) {
    long long v = 12345;
    EXPECT_FALSE(tool::parse_time(bad, &v)) << bad;
    EXPECT_EQ(v, 12345) << bad;
  }
}

TEST(TimeArg, DaysAndFormatting) {
  long long d = -1;
  ASSERT_TRUE(tool::parse_day("2023-11-14", &d));
  EXPECT_EQ(d, 1699920000);
  EXPECT_FALSE(tool::parse_day("2023-11-14 10:00", &d));
  EXPECT_FALSE(tool::parse_day("2023-11-31", &d));
  EXPECT_EQ(tool::fmt_time(1700000000), "2023-11-14 22:13:20");
  EXPECT_EQ(tool::fmt_time(2147483647), "2038-01-19 03:14:07");
  EXPECT_EQ(tool::fmt_time(951782400), "2000-02-29 00:00:00");
  EXPECT_EQ(tool::fmt_day(1699999999), "2023-11-14");
  // Every second of four years round-trips through the text form, sampled at a prime stride.
  for (long long s = 1577836800; s < 1704067200; s += 86399 * 7 + 13)
    ASSERT_EQ(t(tool::fmt_time(s)), s) << s;
}

TEST(TimeArg, IntegersInCNotation) {
  long long v = 0;
  EXPECT_TRUE(tool::parse_int("0x1F", &v));
  EXPECT_EQ(v, 31);
  EXPECT_TRUE(tool::parse_int("-3", &v));
  EXPECT_EQ(v, -3);
  EXPECT_FALSE(tool::parse_int("", &v));
  EXPECT_FALSE(tool::parse_int("3 ", &v));
  EXPECT_FALSE(tool::parse_int("0x", &v));
}

}  // namespace
