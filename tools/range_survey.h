// What a time range holds on a set of volumes, read straight from their tables and the
// heads and tails of the stored blocks: the channels recorded in it, the minutes
// recorded twice, and the spans whose stored blocks cannot be read.
//
// The backup readers end a minute at its first block that does not read (a damaged
// head, size or tail), so everything after it in that minute is missing from an export,
// and playback has to jump over it. The survey finds those spans so that the tool can
// name them; it reads what the readers read and changes nothing.
#ifndef RINGREC_TOOL_RANGE_SURVEY_H
#define RINGREC_TOOL_RANGE_SURVEY_H

#include <stdint.h>

#include <string>
#include <vector>

#include "cli.h"

namespace tool {

struct lost_span {
  std::string disk;    // the label of the volume
  std::string minute;  // the minute entry's name
  long long from, to;  // the seconds that cannot be read, to the end of the minute
  long long offset;    // the data offset in the minute entry where reading stops
};

struct twice_minute {
  std::string disk;
  long long minute;  // its first second
};

struct range_survey {
  uint32_t channels = 0;  // channels with frames in the range
  std::vector<lost_span> lost;
  std::vector<twice_minute> twice;
  int unreadable_tables = 0;  // hour tables or entries that could not be read at all
};

// Surveys [beg, end] on every volume of v that can be read; the stored blocks are walked
// (for `lost`) only when `blocks` is true.
range_survey survey_range(volume_set& v, long long beg, long long end, bool blocks = true);
// Warns of each channel of `wanted` that holds nothing in the survey's range.
void warn_empty(const range_survey& s, uint32_t wanted, const std::string& range);

// "10:00:16 to 10:00:59 of MIN_10:00 on sda.img (blocks unreadable from data offset N)".
std::string describe(const lost_span& s);

}  // namespace tool

#endif
