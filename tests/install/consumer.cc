// Builds against the installed headers and library and checks the record sizes that
// the on-disk format fixes.
#include <stdio.h>

#include <ringrec/ringrec.h>

int main() {
  fs_db db;
  printf("installed ringrec: sb_t %u, entry_t %u bytes, volume key of nothing %u\n",
         static_cast<unsigned>(sizeof(sb_t)), static_cast<unsigned>(sizeof(entry_t)), db.q_key());
  return sizeof(sb_t) == 36 && sizeof(entry_t) == 324 && db.q_key() == 0 ? 0 : 1;
}
