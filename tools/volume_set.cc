#include "volume_set.h"

#include <stdio.h>
#include <string.h>

#include "quiet.h"
#include "volume_arg.h"

namespace tool {

volume_set::~volume_set() {
  app->db_close();
  delete app;
}

int volume_set::open(const std::vector<std::string>& disks) {
  if (disks.empty()) {
    if (app->db_open("r") <= 0)
      return fail("no disks found: name disk images or devices, or give --root DIR for a board");
    return 0;
  }
  if (disks.size() > 16) return fail("at most 16 disks at once");
  int good = 0;
  for (size_t i = 0; i < disks.size(); i++) {
    std::string path = resolve_dev(disks[i]);
    if (path.empty()) return 1;
    // A row of the disk table as the board's scan would fill it, for a volume that
    // is not one of the board's disks.
    db_info_t& row = app->db_info[i];
    memset(&row, 0, sizeof row);
    snprintf(row.dev, sizeof row.dev, "%s", path.c_str());
    snprintf(row.model, sizeof row.model, "image");
    row.db = new fs_db();
    app->db_cnt = static_cast<int>(i) + 1;
    if (row.db->open(static_cast<int>(i), path.c_str(), "r") == 0 && row.db->q_key() != 0)
      good++;
    else
      err("%s holds no readable volume; left out", disks[i].c_str());
  }
  if (good == 0) return fail("none of the disks holds a readable volume");
  return 0;
}

}  // namespace tool
