// Reading a volume's tables entry by entry, for the listing and the volume report.
#ifndef RINGREC_TOOL_VOLUME_LIST_H
#define RINGREC_TOOL_VOLUME_LIST_H

#include <ringrec/ringrec.h>

#include <vector>

namespace tool {

// The entries of table x; entries that cannot be read are left out and counted in *bad.
std::vector<entry_t> read_table(fs_db& db, entryX_t& x, int* bad);

// The recorder's names: "HOUR_..." root entries hold an hour's table of "MIN_..."
// entries.
bool is_hour(const entry_t& e);
bool is_minute(const entry_t& e);

// The last second the newest hour's minute masks mark as recorded; 0 when nothing is
// recorded, -1 when the tables cannot be read.
long long last_recorded(fs_db& db);

}  // namespace tool

#endif
