// Power cuts: a scenario's positioned writes and fsyncs are recorded, and the image is
// rebuilt in every state a disk that lost power may be found in (kit/crash.h): the
// writes since the last fsync dropped, kept or partly kept, the last one torn at a
// sector boundary, and power lost again while the check repairs. A writable open (which
// runs the check) must succeed and everything whose creation or flush had returned
// before the last completed fsync must still be found and read back, except where a
// torn table entry takes it away: the named tests at the end pin those cases.
#include "kit/crash.h"

#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <set>
#include <vector>

#include "storage/volume_fixture.h"

using namespace storage_test;

namespace {

const long long kImage = 64 * MiB;

// What must be found after a cut: a path of one or two names and, for data entries,
// the bytes that were made durable (written and then flushed or grown past).
struct Expect {
  std::string hour, minute;  // minute empty: the hour table itself
  std::string durable;
};

struct Milestone {
  size_t writes;  // writes to the image when the call returned
  std::string what;
  std::map<std::string, Expect> must;
};

class Scenario {
 public:
  kit::TempDir dir;
  std::string base, img;
  kit::FakeClock clock;
  fs_db db;
  kit::WriteRecorder* rec = nullptr;
  std::vector<Milestone> ms;
  std::map<std::string, Expect> now;
  std::map<std::string, entry_t> open_entries;
  std::map<std::string, std::string> written;   // bytes in memory per minute
  std::map<std::string, long long> hour_table;  // hour name -> offset of its table
  std::map<std::string, int> minute_index;      // key -> index in its hour's table

  Scenario() : base(dir / "base"), img(dir / "img"), clock(1700000000, 500000) {
    format_image(base, kImage);
    std::string cmd = "cp --sparse=always '" + base + "' '" + img + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
    kit::StderrCapture quiet;
    EXPECT_EQ(db.open(0, img.c_str(), "w"), 0);
  }
  ~Scenario() { db.close(); }

  void start(kit::WriteRecorder& r) {
    rec = &r;
    mark("start");
  }
  void mark(const std::string& what) { ms.push_back({rec->writes_to(img).size(), what, now}); }
  static std::string key(const std::string& h, const std::string& m) { return h + "/" + m; }

  void hour(const std::string& h) {
    ASSERT_EQ(db.f_create(0, 1, h.c_str()), 0);
    entry_t e;
    ASSERT_EQ(db.f_open(e, 1, h.c_str()), 0);
    hour_table[h] = e.offset;
    now[key(h, "")] = {h, "", ""};
    mark("create " + h);
  }
  void minute(const std::string& h, const std::string& m) {
    ASSERT_EQ(db.f_create(5, 2, h.c_str(), m.c_str()), 0);
    entry_t e;
    ASSERT_EQ(db.f_open(e, 2, h.c_str(), m.c_str()), 0);
    open_entries[key(h, m)] = e;
    minute_index[key(h, m)] = e.idx;
    now[key(h, m)] = {h, m, ""};
    mark("create " + key(h, m));
  }
  void write(const std::string& h, const std::string& m, int off, int len, int seed) {
    entry_t& e = open_entries[key(h, m)];
    std::string b(static_cast<size_t>(len), '\0');
    for (int i = 0; i < len; i++) b[static_cast<size_t>(i)] = static_cast<char>(i * 13 + seed);
    bool grows = static_cast<long long>(off) + len > e.max;
    int size_before = e.size;
    ASSERT_EQ(db.d_write(e, off, len, b.data()), 0);
    std::string& w = written[key(h, m)];
    if (w.size() < static_cast<size_t>(off + len)) w.resize(static_cast<size_t>(off + len));
    w.replace(static_cast<size_t>(off), b.size(), b);
    // A growth flushes the entry with the size it had before this write. The
    // scenarios only append, so those bytes are final.
    if (grows) now[key(h, m)].durable = w.substr(0, static_cast<size_t>(size_before));
    mark("write " + key(h, m));
  }
  void flush(const std::string& h, const std::string& m) {
    entry_t& e = open_entries[key(h, m)];
    ASSERT_EQ(db.e_flush(e), 0);
    now[key(h, m)].durable = written[key(h, m)].substr(0, static_cast<size_t>(e.size));
    mark("flush " + key(h, m));
  }
  void remove_oldest(int n, const std::vector<std::string>& hours) {
    kit::StderrCapture quiet;
    ASSERT_EQ(db.remove(n), 0);
    for (const std::string& h : hours) {
      for (auto it = now.begin(); it != now.end();) {
        if (it->second.hour == h)
          it = now.erase(it);
        else
          ++it;
      }
    }
    mark("remove");
  }

  // What a cut after k writes must keep: what the last completed call had made
  // durable and the call in flight has not taken away.
  std::map<std::string, Expect> must_at(size_t k, std::string* during) const {
    size_t m = 0;
    while (m + 1 < ms.size() && ms[m + 1].writes <= k) m++;
    std::map<std::string, Expect> out = ms[m].must;
    if (m + 1 < ms.size()) {
      *during = ms[m + 1].what;
      for (auto it = out.begin(); it != out.end();) {
        auto nx = ms[m + 1].must.find(it->first);
        if (nx == ms[m + 1].must.end()) {
          it = out.erase(it);
        } else {
          if (nx->second.durable.size() < it->second.durable.size()) it->second = nx->second;
          ++it;
        }
      }
    } else {
      *during = "(after the end)";
    }
    return out;
  }

  // What a state whose durable writes are d and whose issued writes are i must keep:
  // what a cut at every point between them would have kept.
  std::map<std::string, Expect> must_between(size_t d, size_t i, std::string* during) const {
    std::map<std::string, Expect> out = must_at(d, during);
    for (size_t k = d + 1; k <= i; k++) {
      std::string w;
      std::map<std::string, Expect> m = must_at(k, &w);
      for (auto it = out.begin(); it != out.end();) {
        auto nx = m.find(it->first);
        if (nx == m.end()) {
          it = out.erase(it);
          continue;
        }
        if (nx->second.durable.size() < it->second.durable.size()) it->second = nx->second;
        ++it;
      }
      if (w != *during) *during += ", " + w;
    }
    return out;
  }

  // A torn table entry may take either of its versions with it: a torn hour entry
  // makes the check drop the hour and its minutes; a torn minute entry loses that
  // minute and hides the later minutes of its table from lookups by name, which stop
  // at the first unreadable entry.
  void excuse(std::map<std::string, Expect>& must, const std::vector<kit::TornEntry>& torn) const {
    for (const kit::TornEntry& t : torn) {
      for (auto it = must.begin(); it != must.end();) {
        const Expect& x = it->second;
        bool gone;
        if (t.table == kRoot) {
          gone = x.hour == t.new_name || x.hour == t.old_name;
        } else {
          auto h = hour_table.find(x.hour);
          auto mi = minute_index.find(it->first);
          gone = h != hour_table.end() && h->second == t.table && !x.minute.empty() &&
                 mi != minute_index.end() && mi->second >= t.index;
        }
        it = gone ? must.erase(it) : std::next(it);
      }
    }
  }
};

// Opens the image at dst writably and checks every promise in must.
void check_image(const std::string& dst, const std::map<std::string, Expect>& must,
                 const std::string& ctx) {
  kit::StderrCapture quiet;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0) << ctx;
  EXPECT_LE(d.error(), 1) << ctx;
  for (const auto& kv : must) {
    const Expect& x = kv.second;
    entry_t e;
    int r = x.minute.empty() ? d.f_open(e, 1, x.hour.c_str())
                             : d.f_open(e, 2, x.hour.c_str(), x.minute.c_str());
    EXPECT_EQ(r, 0) << kv.first << " lost, " << ctx;
    if (r != 0 || x.durable.empty()) continue;
    EXPECT_GE(e.size, static_cast<int>(x.durable.size())) << kv.first << ", " << ctx;
    std::string got(x.durable.size(), '\0');
    ASSERT_EQ(d.d_read(e, 0, static_cast<int>(got.size()), &got[0]), 0) << kv.first << ctx;
    EXPECT_TRUE(got == x.durable) << kv.first << " differs, " << ctx;
  }
  d.close();
}

// Opens the image rebuilt after k writes (every earlier write kept) and checks every
// promise.
void check_cut(const Scenario& s, size_t k, const std::string& dst) {
  s.rec->replay(s.img, s.base, dst, kImage, k);
  std::string during;
  std::map<std::string, Expect> must = s.must_at(k, &during);
  kit::StderrCapture quiet;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0) << "cut " << k << " during " << during;
  EXPECT_LE(d.error(), 1);
  for (const auto& kv : must) {
    const Expect& x = kv.second;
    entry_t e;
    int r = x.minute.empty() ? d.f_open(e, 1, x.hour.c_str())
                             : d.f_open(e, 2, x.hour.c_str(), x.minute.c_str());
    EXPECT_EQ(r, 0) << kv.first << " lost at cut " << k << " during " << during;
    if (r != 0 || x.durable.empty()) continue;
    EXPECT_GE(e.size, static_cast<int>(x.durable.size())) << kv.first << " cut " << k;
    std::string got(x.durable.size(), '\0');
    ASSERT_EQ(d.d_read(e, 0, static_cast<int>(got.size()), &got[0]), 0) << kv.first;
    EXPECT_TRUE(got == x.durable) << kv.first << " differs at cut " << k << " during " << during;
  }
  d.close();
}

// Records the scenario's writes with rec, from the formatted volume on.
void hours_scenario(Scenario& s, kit::WriteRecorder& rec) {
  s.start(rec);
  s.hour("HOUR_0:00");
  s.minute("HOUR_0:00", "MIN_00:00");
  s.write("HOUR_0:00", "MIN_00:00", 0, 65536, 1);
  s.write("HOUR_0:00", "MIN_00:00", 65536, 65536, 2);
  s.flush("HOUR_0:00", "MIN_00:00");
  // Crosses the first 4 MiB: the region grows (superblock, then the entry).
  s.write("HOUR_0:00", "MIN_00:00", 0x400000 - 32768, 65536, 3);
  s.flush("HOUR_0:00", "MIN_00:00");
  s.minute("HOUR_0:00", "MIN_00:01");
  s.write("HOUR_0:00", "MIN_00:01", 0, 30000, 4);
  s.flush("HOUR_0:00", "MIN_00:01");
  s.hour("HOUR_1:00");
  s.minute("HOUR_1:00", "MIN_00:00");
  s.write("HOUR_1:00", "MIN_00:00", 0, 50000, 5);
  s.flush("HOUR_1:00", "MIN_00:00");
  s.hour("HOUR_2:00");
  s.minute("HOUR_2:00", "MIN_00:00");
  s.write("HOUR_2:00", "MIN_00:00", 0, 40000, 6);
  s.flush("HOUR_2:00", "MIN_00:00");
  s.remove_oldest(1, {"HOUR_0:00"});
  s.hour("HOUR_3:00");
  s.minute("HOUR_3:00", "MIN_00:00");
  s.write("HOUR_3:00", "MIN_00:00", 0, 20000, 7);
  s.flush("HOUR_3:00", "MIN_00:00");
  rec.stop();
}

// Writes recorded before the step named `what` began; 0 when there is none.
size_t writes_before(const Scenario& s, const std::string& what) {
  for (size_t m = 1; m < s.ms.size(); m++)
    if (s.ms[m].what == what) return s.ms[m - 1].writes;
  return 0;
}

}  // namespace

// Every state of this scenario costs a few seconds in all, under qemu too.
kit::CrashPlan plan() { return kit::CrashPlan(); }

// Every state of every fsync window of the scenario, and for each state whose check
// had to repair something: repair idempotent, and power lost during the repair.
TEST(Crash, EveryPowerLossKeepsWhatWasDurableBeforeIt) {
  Scenario s;
  kit::WriteRecorder rec;
  hours_scenario(s, rec);
  ASSERT_GT(rec.writes_to(s.img).size(), 40u);
  std::vector<kit::CrashCut> cuts = kit::crash_cuts(rec, s.img, plan());
  std::string dst = s.dir / "cut";
  int replays = 0, repaired = 0, repair_replays = 0, torn_entries = 0;
  for (const kit::CrashCut& c : cuts) {
    std::vector<kit::TornEntry> torn = kit::apply_cut(rec, s.img, s.base, dst, kImage, c);
    std::string during;
    std::map<std::string, Expect> must = s.must_between(c.durable, c.issued, &during);
    s.excuse(must, torn);
    torn_entries += static_cast<int>(torn.size());
    std::string ctx = c.what + " during " + during;
    kit::WriteRecorder fix;
    check_image(dst, must, ctx);
    fix.stop();
    replays++;
    if (HasFailure()) return;
    if (fix.writes_to(dst).empty()) continue;
    repaired++;
    {  // The repair is complete: the next writable open finds nothing to do.
      kit::WriteRecorder again;
      kit::StderrCapture quiet;
      fs_db d;
      ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0) << ctx;
      EXPECT_EQ(d.error(), 0) << ctx;
      d.close();
      again.stop();
      EXPECT_TRUE(again.writes_to(dst).empty()) << "second repair after " << ctx;
    }
    for (const kit::CrashCut& r : kit::crash_cuts(fix, dst, plan())) {
      kit::apply_cut(rec, s.img, s.base, dst, kImage, c);
      std::vector<kit::TornEntry> t2 = kit::apply_cut_in_place(fix, dst, dst, r);
      std::map<std::string, Expect> m2 = must;
      s.excuse(m2, t2);
      check_image(dst, m2, ctx + ", repair cut at " + r.what);
      repair_replays++;
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(repaired, 0);
  EXPECT_GT(torn_entries, 0);
  EXPECT_EQ(replays, static_cast<int>(cuts.size()));
  RecordProperty("replays", replays);
  RecordProperty("repair_replays", repair_replays);
  std::cout << "replays: " << replays << " states, " << repaired << " repaired, " << repair_replays
            << " with power lost during the repair, " << torn_entries << " torn entries\n";
}

// remove writes the survivors to the front of the root table in one run and then the
// smaller count. A cut between the two leaves the old count over the compacted table:
// the last survivor is found twice (at its new and its old place), and the check,
// which verifies entries and child headers but not name uniqueness, keeps both.
// Everything that was there is still found and readable; only the duplicate is extra.
TEST(Crash, CutBetweenCompactionAndCountLeavesTheNewestHourTwice) {
  Scenario s;
  kit::WriteRecorder rec;
  hours_scenario(s, rec);
  size_t at = writes_before(s, "remove") + 1;  // after the run write
  ASSERT_GT(at, 1u);
  std::string dst = s.dir / "cut";
  check_cut(s, at, dst);
  kit::StderrCapture quiet;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0);
  entryX_t x;
  ASSERT_EQ(d.x_read(0, x), 0);
  ASSERT_EQ(x.num, 3);
  entry_t a, b, c;
  ASSERT_EQ(d.e_read(x, 0, a), 0);
  ASSERT_EQ(d.e_read(x, 1, b), 0);
  ASSERT_EQ(d.e_read(x, 2, c), 0);
  EXPECT_STREQ(a.name, "HOUR_1:00");
  EXPECT_STREQ(b.name, "HOUR_2:00");
  EXPECT_STREQ(c.name, "HOUR_2:00");
  // The head already follows the new first hour: HOUR_0's space is free again.
  EXPECT_EQ(v64(d.sb.head), v64(a.offset));
  d.close();
}

// e_create advances the tail in the superblock before the entry exists. A cut right
// after that leaves one allocated unit that nothing references; the check recomputes
// only the head, so the unit stays out of the free count until the ring comes round.
TEST(Crash, CutAfterTheTailAdvanceLeaksOneUnitUntilRecycled) {
  Scenario s;
  kit::WriteRecorder rec;
  hours_scenario(s, rec);
  size_t at = writes_before(s, "create HOUR_3:00");
  ASSERT_GT(at, 0u);
  std::string dst = s.dir / "cut";
  long long free_before = 0, free_after = 0;
  for (size_t k : {at, at + 2}) {  // before the create, after both superblock copies
    check_cut(s, k, dst);
    kit::StderrCapture quiet;
    fs_db d;
    ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0);
    (k == at ? free_before : free_after) = d.q_free();
    entry_t e;
    EXPECT_EQ(d.f_open(e, 1, "HOUR_3:00"), -1);
    d.close();
  }
  EXPECT_EQ(free_before - free_after, 4 * MiB);
}

namespace {

// A volume with `hours` hours of `minutes` minutes each, every minute holding 1000
// bytes and flushed; the image is copied to base when done, and the volume is left open.
struct Tables {
  kit::TempDir dir;
  std::string img, base;
  kit::FakeClock clock;
  fs_db db;
  Tables(int hours, int minutes) : img(dir / "img"), base(dir / "base"), clock(1700000000, 500000) {
    format_image(img, kImage);
    kit::StderrCapture quiet;
    EXPECT_EQ(db.open(0, img.c_str(), "w"), 0);
    std::string data(1000, 'd');
    for (int h = 0; h < hours; h++) {
      std::string hn = "HOUR_" + std::to_string(h) + ":00";
      EXPECT_EQ(db.f_create(0, 1, hn.c_str()), 0);
      for (int m = 0; m < minutes; m++) {
        std::string mn = "MIN_0" + std::to_string(m) + ":00";
        EXPECT_EQ(db.f_create(1, 2, hn.c_str(), mn.c_str()), 0);
        entry_t e;
        EXPECT_EQ(db.f_open(e, 2, hn.c_str(), mn.c_str()), 0);
        EXPECT_EQ(db.d_write(e, 0, 1000, data.data()), 0);
        EXPECT_EQ(db.e_flush(e), 0);
      }
    }
    kit::copy_image(img, base, kImage);
  }
  ~Tables() { db.close(); }

  // Rewrites entry `idx` of the table (0 = root) with a new size and time, as an
  // e_flush does at a minute boundary, records the one write and rebuilds `dst` with
  // it torn at the first sector boundary it crosses.
  int torn_flush(entry_t& e, const std::string& dst, kit::TornEntry* torn) {
    kit::WriteRecorder rec;
    e.size += 1;  // as if another byte had been appended
    e.time += 60;
    EXPECT_EQ(db.e_flush(e), 0);
    rec.stop();
    EXPECT_EQ(rec.writes_to(img).size(), 1u);
    const kit::WriteRecorder::Op& op = rec.ops()[rec.writes_to(img)[0]];
    int at = static_cast<int>((op.off / kit::kSector + 1) * kit::kSector - op.off);
    std::vector<kit::TornEntry> t =
        kit::apply_cut(rec, img, base, dst, kImage, kit::CrashCut{0, 1, {0}, at, "torn"});
    EXPECT_EQ(t.size(), 1u);
    if (!t.empty()) *torn = t[0];
    return at;
  }
};

}  // namespace

// An entry is 324 bytes and entry i lies at 16 + 324 * i in its table, so every entry
// from index 1 on except a few straddles a sector boundary. Power lost while such an
// entry is rewritten can leave its first sector new and the rest old. Entry 3 of a
// table is split 36 bytes in (at offset 1024 of the table), before its size and time:
// the checksum no longer matches, and the check drops the root entry, the whole hour,
// though it was durable before the cut. Its child table and minutes are still on
// disk, unreferenced, until the ring reaches them.
TEST(Crash, TornHourEntryMakesTheCheckDropTheWholeHour) {
  Tables t(4, 2);
  entry_t h;
  ASSERT_EQ(t.db.f_open(h, 1, "HOUR_3:00"), 0);
  long long table = v64(h.offset);
  std::string dst = t.dir / "cut";
  kit::TornEntry torn;
  EXPECT_EQ(t.torn_flush(h, dst, &torn), 36);
  EXPECT_EQ(torn.table, kRoot);
  EXPECT_EQ(torn.index, 3);
  EXPECT_EQ(torn.old_name, "HOUR_3:00");

  kit::StderrCapture err;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0);
  std::string text = err.take();
  EXPECT_EQ(d.error(), 1);
  EXPECT_EQ(kit::count(text, "chkdsk[262]: HDD0: ERR, 3\n"), 1) << text;
  EXPECT_EQ(kit::count(text, "x_hour.num: 4 -> 3"), 1) << text;
  entry_t e;
  for (int i = 0; i < 3; i++) {
    std::string hn = "HOUR_" + std::to_string(i) + ":00";
    EXPECT_EQ(d.f_open(e, 2, hn.c_str(), "MIN_01:00"), 0) << hn;
    EXPECT_EQ(e.size, 1000);
  }
  EXPECT_EQ(d.f_open(e, 1, "HOUR_3:00"), -1);
  // What a recovery tool can still find: the dropped hour's table and minutes.
  entryX_t x;
  ASSERT_EQ(d.x_read(table, x), 0);
  EXPECT_EQ(x.num, 2);
  ASSERT_EQ(d.e_read(x, 1, e), 0);
  EXPECT_STREQ(e.name, "MIN_01:00");
  d.close();
}

// The same tear in a minute entry: the check looks at root entries only, so it
// reports nothing and repairs nothing, yet the minute is unreadable, and a lookup by
// name stops at the first unreadable entry of a table: the minutes after it are hidden
// from f_open though each still reads by index.
TEST(Crash, TornMinuteEntryLosesItAndHidesTheMinutesAfterIt) {
  Tables t(1, 5);
  entry_t m;
  ASSERT_EQ(t.db.f_open(m, 2, "HOUR_0:00", "MIN_03:00"), 0);
  std::string dst = t.dir / "cut";
  kit::TornEntry torn;
  EXPECT_EQ(t.torn_flush(m, dst, &torn), 36);
  EXPECT_EQ(torn.index, 3);
  EXPECT_EQ(torn.new_name, "MIN_03:00");

  kit::WriteRecorder rec;
  kit::StderrCapture err;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 0);
  entry_t e;
  for (const char* ok : {"MIN_00:00", "MIN_01:00", "MIN_02:00"})
    EXPECT_EQ(d.f_open(e, 2, "HOUR_0:00", ok), 0) << ok;
  EXPECT_EQ(d.f_open(e, 2, "HOUR_0:00", "MIN_03:00"), -1);
  EXPECT_EQ(d.f_open(e, 2, "HOUR_0:00", "MIN_04:00"), -1);
  entryX_t x;
  ASSERT_EQ(d.f_open(e, 1, "HOUR_0:00"), 0);
  ASSERT_EQ(d.x_read(e.offset, x), 0);
  ASSERT_EQ(d.e_read(x, 4, e), 0);
  EXPECT_STREQ(e.name, "MIN_04:00");
  EXPECT_EQ(e.size, 1000);
  d.close();
  rec.stop();
  EXPECT_TRUE(rec.writes_to(dst).empty());
  std::string text = err.take();
  EXPECT_EQ(kit::count(text, "ERR_TRY"), 6) << text;  // three tries, two lookups
}

// The data written to a region and the entry write that saves its new size become
// durable together, at the entry's fsync. Power lost before it may keep the entry
// and drop the data: the saved size then covers bytes never written (here zeros of the
// sparse image; on a used disk, older recordings of the ring). Nothing durable is
// lost; readers must validate what lies below the size.
TEST(Crash, ASavedSizeMayCoverDataThatNeverArrived) {
  Tables t(1, 1);
  entry_t m;
  ASSERT_EQ(t.db.f_open(m, 2, "HOUR_0:00", "MIN_00:00"), 0);
  kit::WriteRecorder rec;
  std::string more(500, 'm');
  ASSERT_EQ(t.db.d_write(m, 1000, 500, more.data()), 0);
  ASSERT_EQ(t.db.e_flush(m), 0);
  rec.stop();
  ASSERT_EQ(rec.writes_to(t.img).size(), 2u);  // the data, then the entry
  ASSERT_EQ(rec.syncs_of(t.img), std::vector<size_t>{2});
  std::string dst = t.dir / "cut";
  kit::apply_cut(rec, t.img, t.base, dst, kImage, kit::CrashCut{0, 2, {1}, -1, "data dropped"});

  kit::StderrCapture quiet;
  fs_db d;
  ASSERT_EQ(d.open(0, dst.c_str(), "w"), 0);
  EXPECT_EQ(d.error(), 0);
  entry_t e;
  ASSERT_EQ(d.f_open(e, 2, "HOUR_0:00", "MIN_00:00"), 0);
  EXPECT_EQ(e.size, 1500);
  std::string got(1500, '\0');
  ASSERT_EQ(d.d_read(e, 0, 1500, &got[0]), 0);
  EXPECT_EQ(got.substr(0, 1000), std::string(1000, 'd'));  // durable before: intact
  EXPECT_EQ(got.substr(1000), std::string(500, '\0'));     // never arrived
  d.close();
}
