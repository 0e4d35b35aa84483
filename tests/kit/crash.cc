#include "kit/crash.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <ringrec/records.h>
#include <unistd.h>

#include <algorithm>
#include <random>

namespace kit {

namespace {

// Tables start at 4 MiB boundaries (the root at 0x400000, child tables at the start of
// their hour's region); entry i lies 16 + 324 * i bytes after the header.
const long long kUnit = 0x400000;
const long long kEntry = sizeof(entry_t);
const long long kHeader = sizeof(entryX_t);

std::string name_of(const char* p) { return std::string(p, strnlen(p, 32)); }

// A write that is a run of table entries: it starts at an entry's place, is a whole
// number of entries long, and its first entry carries its own index.
bool entry_run(const WriteRecorder::Op& op, long long* table) {
  long long t = op.off & ~(kUnit - 1);
  long long rel = op.off - t - kHeader;
  if (rel < 0 || rel % kEntry != 0 || op.bytes.empty() || op.bytes.size() % kEntry != 0)
    return false;
  entry_t e;
  memcpy(&e, op.bytes.data(), sizeof e);
  if (e.idx != rel / kEntry) return false;
  *table = t;
  return true;
}

void add_tears(const std::vector<WriteRecorder::Op>& ops, const std::vector<size_t>& w, size_t d,
               size_t j, const CrashPlan& plan, std::vector<CrashCut>& out) {
  const WriteRecorder::Op& op = ops[w[j]];
  long long end = op.off + static_cast<long long>(op.bytes.size());
  std::vector<int> at;
  for (long long b = (op.off / kSector + 1) * kSector; b < end; b += kSector)
    at.push_back(static_cast<int>(b - op.off));
  if (at.empty()) return;
  std::vector<int> pick;
  int n = plan.tears_per_write;
  if (n < 1 || static_cast<int>(at.size()) <= n) {
    pick = at;
  } else {
    for (int i = 0; i < n; i++)
      pick.push_back(at[static_cast<size_t>(i) * (at.size() - 1) / static_cast<size_t>(n - 1)]);
    pick.erase(std::unique(pick.begin(), pick.end()), pick.end());
  }
  std::vector<size_t> kept;
  for (size_t k = d; k <= j; k++) kept.push_back(k);
  for (int t : pick)
    out.push_back({d, j + 1, kept, t,
                   "write " + std::to_string(j) + " torn after " + std::to_string(t) + " bytes"});
}

}  // namespace

std::vector<CrashCut> crash_cuts(const WriteRecorder& rec, const std::string& path,
                                 const CrashPlan& plan) {
  std::vector<size_t> w = rec.writes_to(path);
  std::vector<size_t> s = rec.syncs_of(path);
  s.push_back(w.size());  // the writes after the last fsync: a cut after the end
  std::vector<CrashCut> out;
  size_t d = 0;
  std::mt19937 rng(plan.seed);
  for (size_t e : s) {
    if (e == d && !out.empty()) continue;  // an fsync with nothing new to write
    std::string win = "window " + std::to_string(d) + ".." + std::to_string(e);
    std::vector<size_t> all;
    for (size_t k = d; k < e; k++) all.push_back(k);
    out.push_back({d, e, {}, -1, win + " drop all"});
    if (e > d) out.push_back({d, e, all, -1, win + " keep all"});
    if (e - d >= 2) {
      for (size_t j = d; j < e; j += plan.single_drop_every) {
        std::vector<size_t> kept;
        for (size_t k = d; k < e; k++)
          if (k != j) kept.push_back(k);
        out.push_back({d, e, kept, -1, win + " drop " + std::to_string(j)});
      }
    }
    // Random subsets: only where there are more subsets than the ones above.
    if (e - d >= 3) {
      size_t n = e - d;
      int want = plan.random_subsets;
      if (n < 6) want = std::min(want, (1 << n) - static_cast<int>(n) - 2);
      for (int r = 0; r < want; r++) {
        std::vector<size_t> kept;
        for (size_t k = d; k < e; k++)
          if (rng() & 1) kept.push_back(k);
        out.push_back({d, e, kept, -1, win + " subset " + std::to_string(r)});
      }
    }
    for (size_t j = d; j < e; j++)
      if ((j - d) % plan.tear_every == 0 || j + 1 == e) add_tears(rec.ops(), w, d, j, plan, out);
    d = e;
  }
  return out;
}

std::vector<TornEntry> apply_cut_in_place(const WriteRecorder& rec, const std::string& path,
                                          const std::string& dst, const CrashCut& cut) {
  std::vector<TornEntry> torn;
  std::vector<size_t> w = rec.writes_to(path);
  int fd = ::open(dst.c_str(), O_RDWR);
  if (fd < 0) {
    ADD_FAILURE() << "cut " << dst;
    return torn;
  }
  auto put = [&](const WriteRecorder::Op& op, size_t n) {
    if (pwrite(fd, op.bytes.data(), n, static_cast<off_t>(op.off)) != static_cast<ssize_t>(n))
      ADD_FAILURE() << "cut write @" << op.off;
  };
  for (size_t k = 0; k < cut.durable && k < w.size(); k++) {
    const WriteRecorder::Op& op = rec.ops()[w[k]];
    put(op, op.bytes.size());
  }
  for (size_t i = 0; i < cut.kept.size(); i++) {
    const WriteRecorder::Op& op = rec.ops()[w[cut.kept[i]]];
    bool last = i + 1 == cut.kept.size();
    if (!last || cut.torn < 0) {
      put(op, op.bytes.size());
      continue;
    }
    long long table;
    if (entry_run(op, &table)) {
      long long rel = op.off + cut.torn - table - kHeader;
      if (rel % kEntry != 0) {
        TornEntry t;
        t.table = table;
        t.index = static_cast<int>(rel / kEntry);
        long long at = table + kHeader + kEntry * t.index;
        entry_t e;
        memcpy(&e, op.bytes.data() + (at - op.off), sizeof e);
        t.new_name = name_of(e.name);
        if (pread(fd, &e, sizeof e, static_cast<off_t>(at)) == static_cast<ssize_t>(sizeof e))
          t.old_name = name_of(e.name);
        torn.push_back(t);
      }
    }
    put(op, static_cast<size_t>(cut.torn));
  }
  ::close(fd);
  return torn;
}

std::vector<TornEntry> apply_cut(const WriteRecorder& rec, const std::string& path,
                                 const std::string& base, const std::string& dst, long long bytes,
                                 const CrashCut& cut) {
  copy_image(base, dst, bytes);
  return apply_cut_in_place(rec, path, dst, cut);
}

}  // namespace kit
