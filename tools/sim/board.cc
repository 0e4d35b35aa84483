#include "sim/board.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

int mkdirs(const std::string& path) {
  std::string cur;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    cur = path.substr(0, pos);
    if (cur.empty()) continue;
    if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return -1;
  }
  return 0;
}

bool write_file(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
  return fclose(f) == 0 && ok;
}

}  // namespace

std::string disk_name(int i) {
  std::string n = "sd";
  if (i < 26) return n + static_cast<char>('a' + i);
  return n + static_cast<char>('a' + i / 26 - 1) + static_cast<char>('a' + i % 26);
}

long long parse_size(const std::string& text) {
  if (text.empty()) return -1;
  char* end = nullptr;
  errno = 0;
  double v = strtod(text.c_str(), &end);
  if (errno != 0 || end == text.c_str() || v < 0) return -1;
  std::string unit(end);
  long long mul = 1;
  if (unit == "" || unit == "B")
    mul = 1;
  else if (unit == "K" || unit == "KiB" || unit == "k")
    mul = 1LL << 10;
  else if (unit == "M" || unit == "MiB")
    mul = 1LL << 20;
  else if (unit == "G" || unit == "GiB")
    mul = 1LL << 30;
  else if (unit == "T" || unit == "TiB")
    mul = 1LL << 40;
  else
    return -1;
  return static_cast<long long>(v * static_cast<double>(mul));
}

int board_create(const std::string& root, const std::vector<disk_spec>& disks, std::string* err) {
  auto fail = [&](const std::string& what) {
    if (err != nullptr) *err = what + ": " + strerror(errno);
    return -1;
  };
  for (const char* d :
       {"/proc", "/dev", "/sys/block", "/tmp", "/zconf/rd/fs", "/zconf/custom", "/z/oem"}) {
    if (mkdirs(root + d) != 0) return fail(root + d);
  }
  std::string parts = "major minor  #blocks  name\n\n";
  int minor = 0;
  for (size_t i = 0; i < disks.size(); i++) {
    const disk_spec& d = disks[i];
    std::string image = root + "/dev/" + d.name;
    int fd = ::open(image.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0) return fail(image);
    if (ftruncate(fd, static_cast<off_t>(d.bytes)) != 0) {
      ::close(fd);
      return fail(image);
    }
    ::close(fd);

    // The device link resolves the way the kernel's does: SATA disks below the SoC's
    // AHCI controller, USB disks below its USB host controller.
    std::string target = d.usb ? "/sys/devices/platform/hiusb-ehci.0/usb1/1-1/1-1:1.0/host" +
                                     std::to_string(i) + "/target" + std::to_string(i) + ":0:0/" +
                                     std::to_string(i) + ":0:0:0"
                               : "/sys/devices/platform/ahci.0/ata" + std::to_string(i + 1) +
                                     "/host" + std::to_string(i) + "/target" + std::to_string(i) +
                                     ":0:0/" + std::to_string(i) + ":0:0:0";
    if (mkdirs(root + target) != 0) return fail(root + target);
    std::string blockdir = root + "/sys/block/" + d.name;
    if (mkdirs(blockdir) != 0) return fail(blockdir);
    std::string link = blockdir + "/device";
    unlink(link.c_str());
    if (symlink(("../../.." + target).c_str(), link.c_str()) != 0) return fail(link);
    std::string model = root + target + "/model";
    if (!d.model.empty()) {
      if (!write_file(model, d.model + "\n")) return fail(model);
    } else {
      unlink(model.c_str());
    }

    char line[128];
    snprintf(line, sizeof line, "   8 %8d %11lld %s\n", minor, d.bytes >> 10, d.name.c_str());
    parts += line;
    minor += 16;
  }
  if (!write_file(root + "/proc/partitions", parts)) return fail(root + "/proc/partitions");
  return 0;
}

}  // namespace sim
