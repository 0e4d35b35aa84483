// ringrec timeline: one day of recording as an SVG picture, a minute a cell, with the
// minutes of motion, video loss and sensor events marked.
//
//   ringrec timeline [DISK...] --day DATE OUT.svg
#include <ringrec/fs_app.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "time_arg.h"

namespace tool {

namespace {

// ---- timeline -------------------------------------------------------------------------

int run_timeline(const std::vector<std::string>& in) {
  std::vector<std::string> args = in;
  std::string d;
  long long day;
  if (!take_option(args, "--day", &d))
    return usage_error("timeline", "--day YYYY-MM-DD is required");
  if (!parse_day(d, &day) || day < 0 || day + 86399 > INT32_MAX)
    return usage_error("timeline", "bad --day '" + d + "': a date YYYY-MM-DD");
  int rc = 0;
  if (!only_positional("timeline", args, &rc)) return rc;
  if (args.empty()) return usage_error("timeline", "give the output file (OUT.svg)");
  std::string out = args[0];
  args.erase(args.begin());

  volume_set vol;
  if ((rc = vol.open(args)) != 0) return rc;
  fs_app& app = *vol.app;
  int b = static_cast<int>(day), e = static_cast<int>(day + 86399);
  // Per minute of the day: bit 0 recorded, 1 motion, 2 video loss, 3 sensor.
  std::vector<int> marks(1440, 0);
  int n = 0;
  min_rec_t* m = app.q_min(b, e, n);
  auto mark = [&](min_rec_t* list, int count, int bit) {
    for (int i = 0; i < count; i++) {
      int32_t t;
      memcpy(&t, &list[i].time, sizeof t);
      long long k = (t - day) / 60;
      if (k >= 0 && k < 1440) marks[static_cast<size_t>(k)] |= bit;
    }
  };
  mark(m, n, 1);
  m = app.q_log(b, e, -1, 2, n);
  mark(m, n, 2);
  m = app.q_log(b, e, -1, 1, n);
  mark(m, n, 4);
  m = app.q_log(b, e, -1, 3, n);
  mark(m, n, 8);

  FILE* f = fopen(out.c_str(), "w");
  if (f == nullptr) return fail("cannot create " + out + ": check the directory exists");
  const int cw = 14, rh = 20, left = 70, top = 60;
  const int width = left + 60 * cw + 20, height = top + 24 * rh + 70;
  fprintf(f,
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
          "viewBox=\"0 0 %d %d\" font-family=\"sans-serif\" font-size=\"12\">\n"
          "<title>Recording on %s (UTC)</title>\n"
          "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n"
          "<text x=\"%d\" y=\"24\" font-size=\"16\" font-weight=\"bold\">Recording on %s "
          "(UTC)</text>\n",
          width, height, width, height, d.c_str(), left, d.c_str());
  for (int mi = 0; mi < 60; mi += 10)
    fprintf(f, "<text x=\"%d\" y=\"%d\" fill=\"#555\">:%02d</text>\n", left + mi * cw, top - 8, mi);
  int recorded = 0, with[4] = {0, 0, 0, 0};
  for (int h = 0; h < 24; h++) {
    int y = top + h * rh;
    fprintf(f, "<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%02d:00</text>\n", left - 8, y + rh - 6,
            h);
    for (int mi = 0; mi < 60; mi++) {
      int k = marks[static_cast<size_t>(h * 60 + mi)];
      int x = left + mi * cw;
      fprintf(f,
              "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\" "
              "stroke=\"#dddddd\"><title>%02d:%02d%s</title></rect>\n",
              x, y, cw, rh, k & 1 ? "#7fa7d9" : "#f4f4f4", h, mi, k & 1 ? " recorded" : "");
      // Events: three stripes across the minute, one colour each.
      if (k & 2)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#f08c00\"/>\n", x + 1,
                y + 1, cw - 2);
      if (k & 4)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#d9480f\"/>\n", x + 1,
                y + 7, cw - 2);
      if (k & 8)
        fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"5\" fill=\"#7b2cbf\"/>\n", x + 1,
                y + 13, cw - 2);
      for (int bit = 0; bit < 4; bit++) with[bit] += (k >> bit) & 1;
      recorded += k & 1;
    }
  }
  static const char* labels[] = {"recorded", "motion", "video loss", "sensor"};
  static const char* colours[] = {"#7fa7d9", "#f08c00", "#d9480f", "#7b2cbf"};
  int ly = top + 24 * rh + 30;
  for (int i = 0; i < 4; i++) {
    int lx = left + i * 190;
    fprintf(f,
            "<rect x=\"%d\" y=\"%d\" width=\"14\" height=\"14\" fill=\"%s\" stroke=\"#999\"/>\n"
            "<text x=\"%d\" y=\"%d\">%s (%d min)</text>\n",
            lx, ly - 11, colours[i], lx + 20, ly, labels[i], with[i]);
  }
  fprintf(f, "</svg>\n");
  if (fclose(f) != 0) return fail("writing " + out + " failed: check the free space");
  printf(
      "%s: %s, %d minutes recorded, %d with motion, %d with video loss, %d with sensor "
      "events\n",
      out.c_str(), d.c_str(), recorded, with[1], with[2], with[3]);
  return 0;
}

bool r3 = add_command({"timeline", "timeline [DISK...] --day DATE OUT.svg", run_timeline});

}  // namespace

}  // namespace tool
