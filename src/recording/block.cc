// Reading a stored block backwards from where it ends (see block.h).
#include <ringrec/block.h>
#include <ringrec/fs_db.h>

int block_read_ending_at(fs_db& db, entry_t& e, int end, head_t& h, int32_t& size) {
  uint32_t tail[2] = {0, 0};
  if (end < BLOCK_TAIL || db.d_read(e, end - BLOCK_TAIL, BLOCK_TAIL, tail) != 0) return -1;
  size = static_cast<int32_t>(tail[1]);
  // The size comes from the disk: a block that would start before the data is not
  // followed.
  long long at = static_cast<long long>(end) - BLOCK_OVERHEAD - size;
  if (size < 0 || at < 0 || db.d_read(e, static_cast<int>(at), BLOCK_HEAD, &h) != 0) return -2;
  return 0;
}
