// Volume commands: sim create, format, info, check (ls: cmd_ls.cc).
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
#include "dry_run.h"
#include "sim/board.h"
#include "time_arg.h"
#include "volume_list.h"

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
  printf("%s: formatted, data area %lld MiB\n", argv[0].c_str(), ring >> 20);
  return 0;
}

int root_count(fs_db& db) {
  entryX_t x;
  return db.x_read(0, x) == 0 ? x.num : -1;
}

int run_info(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  bool as_json = take_flag(args, "--json");
  int rc = 0;
  if (!only_positional("info", args, &rc)) return rc;
  if (args.size() != 1) return usage_error("info", "give one device");
  fs_db db;
  volume_state st;
  if (open_volume(db, args[0], "r", &st) != 0) return 1;
  sb_t sb = db.sb;
  int flag;
  long long device, unused;
  db.q_info(flag, device, unused, 0);
  // q_info counts the 12 MiB outside the ring in its free figure; the room left for
  // recordings is the ring's own.
  long long ring_free = db.q_free();
  int hours = root_count(db);
  int first = st.root_damaged ? -1 : db.q_first();
  long long last = st.root_damaged ? -1 : last_recorded(db);
  int error = db.error();
  db.close();
  long long size = sb.size, head = sb.head, tail = sb.tail;
  if (as_json) {
    json j;
    j.obj().str("device", args[0]).num("key", sb.key).num("ctime", sb.ctime);
    j.str("created", fmt_time(sb.ctime)).num("flag", sb.flag).str("mode", mode_word(sb.flag));
    j.num("device_size", device).num("data_size", size).num("data_free", ring_free);
    j.num("head", head).num("tail", tail);
    if (hours < 0)
      j.null("hours");
    else
      j.num("hours", hours);
    j.num("first", first > 0 ? first : 0).num("last", last > 0 ? last : 0);
    j.boolean("root_damaged", st.root_damaged).boolean("secondary_superblock", st.secondary);
    j.num("image_size", st.bytes).boolean("short_image", st.bytes < st.described);
    j.num("error", error).str("state", err_word(error)).end().print();
    return st.root_damaged ? 1 : 0;
  }
  printf("device:    %s\n", args[0].c_str());
  printf("key:       0x%04X\n", sb.key);
  printf("created:   %s UTC (ctime %u)\n", fmt_time(sb.ctime).c_str(), sb.ctime);
  printf("mode:      %s (flag %u)\n", mode_word(sb.flag), sb.flag);
  printf("device:    %lld MiB (%s)\n", device >> 20, human(device).c_str());
  printf("data area: %lld MiB (%s), ring head 0x%llX, tail 0x%llX\n", size >> 20,
         human(size).c_str(), static_cast<unsigned long long>(head),
         static_cast<unsigned long long>(tail));
  printf("free:      %lld MiB (%s) of the data area\n", ring_free >> 20, human(ring_free).c_str());
  if (st.root_damaged) {
    printf("hours:     unknown: the root table is damaged\n");
  } else {
    printf("hours:     %d\n", hours);
    printf("first:     %s\n", first > 0 ? (fmt_time(first) + " UTC").c_str() : "nothing recorded");
    printf("last:      %s\n", last > 0    ? (fmt_time(last) + " UTC").c_str()
                              : last == 0 ? "nothing recorded"
                                          : "unknown: the newest hour cannot be read");
  }
  printf("error:     %d (%s)\n", error, err_word(error));
  return st.root_damaged ? 1 : 0;
}

// A disk image named by its path (not a board's disk): repairing it in place changes a
// file someone may have pulled as evidence, so the tool asks first.
bool image_file(const std::string& arg) {
  struct stat st;
  return arg.find('/') != std::string::npos && board_root().empty() &&
         stat(arg.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool confirm(const std::string& question) {
  if (!isatty(0)) return false;
  dprintf(err_fd(), "%s [y/N] ", question.c_str());
  char line[16] = "";
  if (fgets(line, sizeof line, stdin) == nullptr) return false;
  return line[0] == 'y' || line[0] == 'Y';
}

struct check_result {
  int open_rc, before, after, error, writes;
  long long bytes;
};

// The writable open runs the consistency check; its findings are the library's lines.
check_result run_check_once(const std::string& dev, int before, bool dry) {
  check_result r{0, before, -1, 0, 0, 0};
  dry_run* overlay = dry ? new dry_run() : nullptr;
  fs_db db;
  r.open_rc = db.open(0, dev.c_str(), "w");
  if (r.open_rc == 0) r.after = root_count(db);
  r.error = db.error();
  db.close();
  if (overlay != nullptr) {
    r.writes = overlay->changed_writes();
    r.bytes = overlay->changed_bytes();
    delete overlay;
  }
  return r;
}

int report_check(const std::string& name, const check_result& r, bool dry, bool as_json) {
  bool changes = dry ? r.writes > 0 : r.error == 1;
  const char* state = r.open_rc != 0 ? "unusable"
                      : !changes     ? "consistent"
                      : dry          ? "would_repair"
                                     : "repaired";
  if (as_json) {
    json j;
    j.obj().str("device", name).str("state", state).boolean("dry_run", dry);
    j.num("hours_before", r.before).num("hours_after", r.after);
    j.num("bytes_changed", r.bytes).end().print();
  } else if (r.open_rc != 0) {
    err("%s: the check could not repair the volume; it is unusable%s%s", name.c_str(),
        recover_hint(name).empty() ? "" : "; ", recover_hint(name).c_str());
  } else if (!changes) {
    printf("%s: consistent, %d hour entries\n", name.c_str(), r.after);
  } else if (dry) {
    printf(
        "%s: would repair: %d of %d hour entries kept, %d dropped (%d writes, %lld bytes); "
        "nothing was written\n",
        name.c_str(), r.after, r.before, r.before - r.after, r.writes, r.bytes);
  } else {
    printf("%s: repaired: %d of %d hour entries kept, %d dropped\n", name.c_str(), r.after,
           r.before, r.before - r.after);
  }
  return r.open_rc != 0 ? 1 : 0;
}

int run_check(const std::vector<std::string>& argv) {
  std::vector<std::string> args = argv;
  bool dry = take_flag(args, "--dry-run");
  bool yes = take_flag(args, "--yes");
  bool as_json = take_flag(args, "--json");
  int rc = 0;
  if (!only_positional("check", args, &rc)) return rc;
  if (args.size() != 1) return usage_error("check", "give one device");
  std::string dev = resolve_dev(args[0]);
  if (dev.empty()) return 1;
  int before;
  {
    fs_db ro;
    if (open_volume(ro, args[0], "r") != 0) return 1;
    before = root_count(ro);
    ro.close();
  }
  check_result trial = run_check_once(dev, before, true);
  if (dry || trial.writes == 0 || trial.open_rc != 0)
    return report_check(args[0], trial, true, as_json);
  if (image_file(args[0]) && !yes &&
      !confirm("ringrec: " + args[0] + " needs repair (" + std::to_string(trial.bytes) +
               " bytes change); repair the image in place?"))
    return fail(args[0] +
                " left as it was: --yes repairs the image in place (keep a copy), "
                "--dry-run shows what would change");
  return report_check(args[0], run_check_once(dev, before, false), false, as_json);
}

bool r1 = add_command(
    {"sim create", "sim create DIR --disks N --size SIZE [--usb NAME]", run_sim_create});
bool r2 = add_command({"format", "format DEV", run_format});
bool r3 = add_command({"info", "info DEV [--json]", run_info});
bool r4 = add_command({"check", "check DEV [--dry-run] [--yes] [--json]", run_check});

}  // namespace

}  // namespace tool
