// A simulated recorder board in a directory: what the library reads of a real board
// ("/proc/partitions", "/sys/block/<disk>/device" links and model files, "/dev/<disk>"
// images, marker-file directories), for use with RINGREC_ROOT.
#ifndef RINGREC_SIM_BOARD_H
#define RINGREC_SIM_BOARD_H

#include <string>
#include <vector>

namespace sim {

struct disk_spec {
  std::string name;   // "sda"
  long long bytes;    // image size; the image is sparse
  std::string model;  // model text as the drive reports it; empty: no model file
  bool usb;           // attached through the USB host controller
};

// Creates a board at root holding exactly these disks (proc/partitions lists them in
// order). Disk images that exist already keep their bytes and are only resized.
// 0, or -1 with a message in *err.
int board_create(const std::string& root, const std::vector<disk_spec>& disks, std::string* err);

// Parses "500M", "2G", "1T", "64MiB", "12345" (bytes) into bytes; -1 when malformed.
long long parse_size(const std::string& text);

// Disk names in board order: sda, sdb, ... sdp (and beyond, for tests of the 16-disk limit).
std::string disk_name(int i);

}  // namespace sim

#endif
