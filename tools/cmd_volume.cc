// Volume commands: sim create, format, info, check, ls.
//
//   ringrec ls DEV          every minute of every hour: name, first block, size, channels
//   ringrec ls DEV --raw    the library's own listing (the last minute of each hour)
#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cli.h"
#include "command.h"
#include "sim/board.h"
#include "time_arg.h"

namespace tool {

namespace {

// Below this a device holds no data area: 8 MiB lie before the ring and at least
// 4 MiB after it, and the ring itself is a whole number of 4 MiB units.
const long long kMinDevice = 0x1000000;

std::string human(long long bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double v = static_cast<double>(bytes);
  int u = 0;
  while ((v >= 1024 || v <= -1024) && u < 5) {
    v /= 1024;
    u++;
  }
  char buf[32];
  snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.2f %s", v, units[u]);
  return buf;
}

std::string date(long long t) {
  if (t <= 0) return "-";
  time_t tt = static_cast<time_t>(t);
  struct tm tm;
  gmtime_r(&tt, &tm);
  char buf[40];
  strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return buf;
}

const char* mode_word(unsigned flag) {
  switch (flag) {
    case 0:
      return "OVWR";
    case 1:
      return "WR";
    case 2:
      return "RDONLY";
    default:
      return "INVALID";
  }
}

const char* err_word(int err) {
  switch (err) {
    case 0:
      return "healthy";
    case 1:
      return "repaired";
    default:
      return "unusable";
  }
}

// Runs fn with the library's diagnostics (standard error) sent to standard output, for
// commands whose product is the library's own listing.
template <typename F>
void to_stdout(F fn) {
  fflush(stdout);
  int saved = dup(2);
  dup2(1, 2);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
}

int no_volume(const std::string& dev) {
  return fail(dev +
              " holds no readable volume (unformatted or damaged superblock); "
              "'ringrec format " +
              dev + "' creates one, erasing what is there");
}

int run_sim_create(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  std::string disks_s = "2", size_s = "1G", usb;
  take_option(args, "--disks", &disks_s);
  take_option(args, "--size", &size_s);
  bool with_usb = take_option(args, "--usb", &usb);
  if (args.size() != 1) return usage_error("sim create", "give one directory");
  int n = atoi(disks_s.c_str());
  if (n < 1 || n > 26) return usage_error("sim create", "--disks takes 1 to 26");
  long long bytes = sim::parse_size(size_s);
  if (bytes < kMinDevice)
    return usage_error("sim create", "--size must be at least 16M (like 64M, 2G, 2T)");
  std::vector<sim::disk_spec> disks;
  for (int i = 0; i < n; i++) {
    char model[64];
    snprintf(model, sizeof model, "ST%dVX00%d-SIM%03d", static_cast<int>(bytes >> 30), 7, i);
    disks.push_back({sim::disk_name(i), bytes, model, false});
  }
  if (with_usb) {
    for (const sim::disk_spec& d : disks)
      if (d.name == usb) return usage_error("sim create", "--usb " + usb + " is an internal disk");
    disks.push_back({usb, 64LL << 20, "USB Flash Disk", true});
  }
  std::string err;
  if (sim::board_create(args[0], disks, &err) != 0) return fail(err);
  printf("board %s: %d disk(s) of %s", args[0].c_str(), n, human(bytes).c_str());
  if (with_usb) printf(", USB disk %s", usb.c_str());
  printf("\nuse it with: ringrec --root %s COMMAND\n", args[0].c_str());
  return 0;
}

int run_format(const std::vector<std::string>& argv) {
  if (argv.size() != 1) return usage_error("format", "give one device");
  std::string dev = resolve_dev(argv[0]);
  if (dev.empty()) return 1;
  fs_db db;
  if (db.io->open(dev.c_str(), "w") != 0) return fail("cannot open " + argv[0] + " for writing");
  long long size = db.io->seek(0, SEEK_END);
  if (size < kMinDevice) {
    return fail(argv[0] + " is too small: " + std::to_string(size) +
                " bytes; a volume needs at least 16 MiB");
  }
  int r = db.format();
  long long ring = db.sb.size;
  db.close();
  if (r != 0) return fail("format of " + argv[0] + " failed (see the messages above)");
  printf("%s: formatted, data area %lld MB\n", argv[0].c_str(), ring >> 20);
  return 0;
}

int root_count(fs_db& db) {
  entryX_t x;
  return db.x_read(0, x) == 0 ? x.num : -1;
}

struct volume_info {
  sb_t sb;
  int flag;
  long long total, free_;
  int first, last, err, entries;
};

int run_info(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  bool json = take_flag(args, "--json");
  if (args.size() != 1) return usage_error("info", "give one device");
  std::string dev = resolve_dev(args[0]);
  if (dev.empty()) return 1;
  fs_db db;
  if (db.open(0, dev.c_str(), "r") != 0) {
    if (db.io->fd < 0) return fail("cannot open " + args[0]);
    return no_volume(args[0]);
  }
  volume_info v;
  v.sb = db.sb;
  db.q_info(v.flag, v.total, v.free_, 0);
  v.first = db.q_first();
  v.last = db.q_last();
  entryX_t x;
  v.entries = db.x_read(0, x) == 0 ? x.num : -1;
  v.err = db.error();
  db.close();
  long long sz = v.sb.size, head = v.sb.head, tail = v.sb.tail;
  if (json) {
    printf(
        "{\"device\":\"%s\",\"key\":%u,\"ctime\":%u,\"created\":\"%s\",\"flag\":%u,"
        "\"mode\":\"%s\",\"data_size\":%lld,\"head\":%lld,\"tail\":%lld,"
        "\"total\":%lld,\"free\":%lld,\"total_mb\":%lld,\"free_mb\":%lld,\"hours\":%d,"
        "\"first\":%d,\"last\":%d,\"error\":%d,\"state\":\"%s\"}\n",
        args[0].c_str(), v.sb.key, v.sb.ctime, date(v.sb.ctime).c_str(), v.sb.flag,
        mode_word(v.sb.flag), static_cast<long long>(sz), static_cast<long long>(head),
        static_cast<long long>(tail), v.total, v.free_, v.total >> 20, v.free_ >> 20, v.entries,
        v.first, v.last, v.err, err_word(v.err));
    return 0;
  }
  printf("device:    %s\n", args[0].c_str());
  printf("key:       0x%04X\n", v.sb.key);
  printf("created:   %s (ctime %u)\n", date(v.sb.ctime).c_str(), v.sb.ctime);
  printf("mode:      %s (flag %u)\n", mode_word(v.sb.flag), v.sb.flag);
  printf("data area: %lld MB (%s), ring head 0x%llX, tail 0x%llX\n", sz >> 20, human(sz).c_str(),
         static_cast<unsigned long long>(head), static_cast<unsigned long long>(tail));
  printf("size:      %lld MB (%s)\n", v.total >> 20, human(v.total).c_str());
  printf("free:      %lld MB (%s)\n", v.free_ >> 20, human(v.free_).c_str());
  printf("hours:     %d\n", v.entries);
  printf("first:     %s\n", v.first > 0 ? date(v.first).c_str() : "nothing recorded");
  printf("last:      %s\n", v.last > 0 ? date(v.last).c_str() : "nothing recorded");
  printf("error:     %d (%s)\n", v.err, err_word(v.err));
  return 0;
}

int run_check(const std::vector<std::string>& argv) {
  if (argv.size() != 1) return usage_error("check", "give one device");
  std::string dev = resolve_dev(argv[0]);
  if (dev.empty()) return 1;
  int before = -1;
  {
    fs_db ro;
    if (ro.open(0, dev.c_str(), "r") != 0) {
      if (ro.io->fd < 0) return fail("cannot open " + argv[0]);
      return no_volume(argv[0]);
    }
    before = root_count(ro);
    ro.close();
  }
  // A writable open runs the consistency check; its findings are the library's
  // messages on standard error.
  fs_db db;
  int r = db.open(0, dev.c_str(), "w");
  int after = r == 0 ? root_count(db) : -1;
  int err = db.error();
  db.close();
  if (r != 0) return fail(argv[0] + ": the check could not repair the volume; it is unusable");
  if (err == 1)
    printf("%s: repaired: %d of %d hour entries kept, %d dropped\n", argv[0].c_str(), after, before,
           before - after);
  else
    printf("%s: consistent, %d hour entries\n", argv[0].c_str(), after);
  return 0;
}

// The entries of table x, read in runs; a run that does not read (a damaged entry) is
// read again entry by entry so that one bad entry hides only itself. Entries that cannot
// be read are left out and counted in *bad.
std::vector<entry_t> read_table(fs_db& db, entryX_t& x, int* bad) {
  // A damaged header may claim any count. A root table holds one entry per recorded
  // hour and a minute table one per minute; 65536 is far beyond either and bounds the
  // buffer.
  int n = x.num < 0 ? 0 : x.num > 65536 ? 65536 : x.num;
  std::vector<entry_t> out;
  std::vector<entry_t> run(64);
  for (int i = 0; i < n; i += 64) {
    int k = n - i < 64 ? n - i : 64;
    if (db.e_reads(x, i, run.data(), k) == 0) {
      out.insert(out.end(), run.begin(), run.begin() + k);
      continue;
    }
    for (int j = 0; j < k; j++) {
      entry_t e;
      if (db.e_read(x, i + j, e) == 0)
        out.push_back(e);
      else
        ++*bad;
    }
  }
  return out;
}

std::string channels_in(const entry_t& e) {
  min_rec_t r;
  memcpy(&r, &e.time, sizeof r);
  std::string s;
  for (int ch = 0; ch < 32; ch++)
    if (r.count[ch] > 0) s += (s.empty() ? "" : ",") + std::to_string(ch);
  return s.empty() ? "-" : s;
}

int run_ls(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  bool raw = take_flag(args, "--raw");
  if (args.size() != 1) return usage_error("ls", "give one device");
  std::string dev = resolve_dev(args[0]);
  if (dev.empty()) return 1;
  fs_db db;
  if (db.open(0, dev.c_str(), "r") != 0) {
    if (db.io->fd < 0) return fail("cannot open " + args[0]);
    return no_volume(args[0]);
  }
  entryX_t root;
  if (db.x_read(0, root) != 0) {
    db.close();
    return fail("cannot read the root table of " + args[0] +
                ": the volume's index is damaged ('ringrec check " + args[0] +
                "' rebuilds what it can; -v shows the library's findings)");
  }
  if (raw) {
    printf("%s: %d hour entries\n", args[0].c_str(), root.num);
    to_stdout([&] { db.print(); });
    db.close();
    return 0;
  }
  int bad = 0;
  std::vector<entry_t> hours = read_table(db, root, &bad);
  std::vector<std::vector<entry_t>> minutes(hours.size());
  long long total = 0;
  int nmin = 0, nhour = 0;
  for (size_t i = 0; i < hours.size(); i++) {
    if (!entry_is_hour(hours[i].name)) continue;
    nhour++;
    entryX_t x;
    long long off = hours[i].offset;
    if (db.x_read(off, x) != 0) {
      bad++;
      continue;
    }
    minutes[i] = read_table(db, x, &bad);
    for (const entry_t& m : minutes[i])
      if (entry_is_min(m.name) && m.size > 0) {
        nmin++;
        total += m.size;
      }
  }
  printf("%s: %d hour%s, %d minute%s, %s\n", args[0].c_str(), nhour, nhour == 1 ? "" : "s", nmin,
         nmin == 1 ? "" : "s", human(total).c_str());
  for (size_t i = 0; i < hours.size(); i++) {
    const entry_t& h = hours[i];
    if (!entry_is_hour(h.name)) continue;
    hour_rec_t hr;
    memcpy(&hr, &h.time, sizeof hr);
    printf("%-.32s  %s  events 0x%X\n", h.name, fmt_time(hr.time).c_str(), hr.events);
    for (const entry_t& m : minutes[i]) {
      if (!entry_is_min(m.name) || m.size <= 0) continue;
      printf("  %-12.32s  %s  %11d bytes  channels %s\n", m.name, fmt_time(m.time).c_str(), m.size,
             channels_in(m).c_str());
    }
  }
  db.close();
  if (bad > 0)
    return fail(std::to_string(bad) + " table" + (bad == 1 ? "" : "s") + " or entr" +
                (bad == 1 ? "y" : "ies") + " could not be read and " + (bad == 1 ? "is" : "are") +
                " left out; -v shows the library's findings");
  return 0;
}

bool r1 = add_command(
    {"sim create", "sim create DIR --disks N --size SIZE [--usb NAME]", run_sim_create});
bool r2 = add_command({"format", "format DEV", run_format});
bool r3 = add_command({"info", "info DEV [--json]", run_info});
bool r4 = add_command({"check", "check DEV", run_check});
bool r5 = add_command({"ls", "ls DEV [--raw]", run_ls});

}  // namespace

}  // namespace tool
