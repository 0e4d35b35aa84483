// Power loss as a disk really has it. Everything written before an fsync that returned
// is on the platter; of the writes issued since, any subset may be, and the last one
// may be torn at a 512-byte sector boundary (the sectors before the boundary new, the
// rest as they were). The crash suites record a scenario with WriteRecorder, list the
// states a cut can leave with crash_cuts, rebuild each with apply_cut and check what
// must have survived.
#ifndef RINGREC_TESTS_KIT_CRASH_H
#define RINGREC_TESTS_KIT_CRASH_H

#include <stddef.h>

#include <string>
#include <vector>

#include "kit/kit.h"

namespace kit {

const int kSector = 512;

// One state of the disk after a cut. Writes are numbered among the writes to the one
// image, from 0.
struct CrashCut {
  size_t durable;            // writes before the last fsync that returned: all on disk
  size_t issued;             // writes issued before the power went (durable <= issued)
  std::vector<size_t> kept;  // which of writes durable..issued-1 reached the disk
  int torn;                  // bytes of the last kept write that reached it; -1: whole
  std::string what;          // how the state was chosen, for failure messages
};

// How densely the states are sampled. Every fsync window gets "drop all" and "keep
// all"; the rest is per window.
struct CrashPlan {
  unsigned seed = 1;
  int random_subsets = 20;       // seeded random subsets of the window's writes
  size_t single_drop_every = 1;  // drop each n-th write of the window alone
  int tears_per_write = 8;       // writes crossing more boundaries are torn at this many
                                 // of them, spread evenly (first and last included)
  size_t tear_every = 1;         // tear each n-th write of the window
};

// Every state the plan asks for, window by window in write order.
std::vector<CrashCut> crash_cuts(const WriteRecorder& rec, const std::string& path,
                                 const CrashPlan& plan);

// An entry of a volume table that a torn write left half old, half new: either
// version's name may have been lost with it.
struct TornEntry {
  long long table;  // offset of the table's header
  int index;
  std::string new_name, old_name;
};

// Rebuilds dst from base plus the cut's writes to path. Returns the table entries the
// tear split (empty unless the torn write was a run of table entries with the boundary
// inside one of them).
std::vector<TornEntry> apply_cut(const WriteRecorder& rec, const std::string& path,
                                 const std::string& base, const std::string& dst, long long bytes,
                                 const CrashCut& cut);

// Applies the cut's writes to an image that already holds what went before them
// (used to cut a check's repair on top of an already cut image).
std::vector<TornEntry> apply_cut_in_place(const WriteRecorder& rec, const std::string& path,
                                          const std::string& dst, const CrashCut& cut);

}  // namespace kit

#endif
