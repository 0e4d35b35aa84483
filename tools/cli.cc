#include "cli.h"

#include <ringrec/ringrec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "command.h"
#include "quiet.h"

namespace tool {

namespace {

// A volume keeps 8 MiB before its data area (superblock, root table) and at least
// 4 MiB after it (where the second superblock copy is sought).
const long long kOutsideRing = 0xC00000;

bool exists(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0;
}

// The superblock's own validity rules: size not 0, flag at most 2, key derived from
// ctime, and the XOR of its 18 words 0.
bool superblock_valid(const sb_t& s) {
  if (s.size == 0 || s.flag > 2) return false;
  if (s.key != ((s.ctime & 0xFFFFu) ^ (s.ctime >> 16))) return false;
  return fs_db::checksum(&s, static_cast<int>(sizeof s / 2)) == 0;
}

}  // namespace

std::string board_root() {
  const char* r = getenv("RINGREC_ROOT");
  return r != nullptr ? std::string(r) : std::string();
}

std::string board_path(const char* logical) { return board_root() + logical; }

std::string resolve_dev(const std::string& dev) {
  std::string root = board_root();
  if (dev.find('/') == std::string::npos) {
    if (root.empty()) {
      if (exists(dev)) return "./" + dev;
      fail("no such disk or image '" + dev +
           "'; give an image path, or a disk name with --root DIR");
      return std::string();
    }
    std::string logical = "/dev/" + dev;
    if (exists(root + logical)) return logical;
    fail("no disk '" + dev + "' on the board " + root + " (see ringrec --root " + root + " disks)");
    return std::string();
  }
  if (!root.empty() && dev[0] == '/' && exists(root + dev)) return dev;
  if (!exists(dev)) {
    fail("no such file or device: " + dev);
    return std::string();
  }
  // A path outside the board: give the library a relative name, which its path
  // resolver leaves alone, so the marker files still come from the board.
  if (!root.empty() && dev[0] == '/') {
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) != nullptr) {
      std::string rel;
      std::string c = cwd;
      for (size_t p = 0; p < c.size(); p++)
        if (c[p] == '/' && p + 1 < c.size()) rel += "../";
      return rel + dev.substr(1);
    }
  }
  return dev;
}

bool parse_channels(const std::string& s, uint32_t* mask, std::vector<int>* order) {
  uint32_t m = 0;
  std::vector<int> list;
  size_t at = 0;
  for (;;) {
    size_t comma = s.find(',', at);
    std::string one = s.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    if (one.empty() || one.size() > 2 || one.find_first_not_of("0123456789") != std::string::npos)
      return false;
    int ch = atoi(one.c_str());
    if (ch > 31) return false;
    if (!(m >> ch & 1)) list.push_back(ch);
    m |= 1u << ch;
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  *mask = m;
  if (order != nullptr) *order = list;
  return true;
}

std::string channel_list(uint32_t mask) {
  std::string s;
  for (int ch = 0; ch < 32; ch++)
    if (mask >> ch & 1) s += (s.empty() ? "" : ",") + std::to_string(ch);
  return s.empty() ? "-" : s;
}

// ---- volumes ----------------------------------------------------------------------------

std::string recover_hint(const std::string& dev) {
  if (!has_command("recover")) return std::string();
  return "'ringrec recover " + dev + "' copies out what its data area still holds";
}

void explain_volume(fs_db& db, const std::string& label, volume_state* st) {
  volume_state local;
  volume_state& s = st != nullptr ? *st : local;
  sb_t primary;
  memset(&primary, 0, sizeof primary);
  s.secondary =
      db.io->read(&primary, static_cast<int>(sizeof primary), 0) != 0 || !superblock_valid(primary);
  s.bytes = db.io->seek(0, SEEK_END);
  long long ring = db.sb.size;
  s.described = ring + kOutsideRing;
  entryX_t root;
  s.root_damaged = db.x_read(0, root) != 0;
  if (s.secondary)
    err("%s: the first superblock is damaged; opened from its second copy (the volume "
        "reads normally; 'ringrec check' on a writable copy rewrites the first)",
        label.c_str());
  if (s.bytes >= 0 && s.bytes < s.described)
    err("%s is shorter than its volume: %lld bytes of the %lld its superblock describes "
        "(a cut copy?); recordings beyond the end cannot be read",
        label.c_str(), s.bytes, s.described);
  if (s.root_damaged) {
    std::string hint = recover_hint(label);
    err("%s: the root table (the index of recorded hours) is damaged; nothing can be listed "
        "through it%s%s",
        label.c_str(), hint.empty() ? "" : "; ", hint.c_str());
  }
}

int open_volume(fs_db& db, const std::string& dev, const char* mode, volume_state* st) {
  std::string path = resolve_dev(dev);
  if (path.empty()) return 1;
  if (db.open(0, path.c_str(), mode) != 0) {
    if (db.io->fd < 0) return fail("cannot open " + dev + ": check the path and the permissions");
    return fail(dev +
                " holds no readable volume (unformatted, or both superblocks damaged); "
                "'ringrec format " +
                dev + "' creates one, erasing what is there");
  }
  explain_volume(db, dev, st);
  return 0;
}

volume_set::~volume_set() {
  app->db_close();
  delete app;
}

const char* volume_set::name(int i) const {
  if (i < 0 || i >= app->db_cnt) return "?";
  if (static_cast<size_t>(i) < labels_.size()) return labels_[static_cast<size_t>(i)].c_str();
  return app->db_info[i].dev;
}

int volume_set::open(const std::vector<std::string>& disks) {
  if (disks.empty()) {
    if (app->db_open("r") <= 0)
      return fail("no disks found: name disk images or devices, or give --root DIR for a board");
    for (int i = 0; i < app->db_cnt; i++) {
      entryX_t root;
      if (app->db_info[i].db != nullptr && app->db_info[i].db->q_key() != 0 &&
          app->db_info[i].db->x_read(0, root) != 0) {
        explain_volume(*app->db_info[i].db, app->db_info[i].dev, nullptr);
        damaged.push_back(i);
      }
    }
    return 0;
  }
  if (disks.size() > 16) return fail("at most 16 disks at once");
  // The same file named twice (or by two names) would be read as two disks and its
  // recordings counted twice.
  std::vector<std::pair<dev_t, ino_t>> seen;
  int good = 0;
  for (size_t i = 0; i < disks.size(); i++) {
    std::string path = resolve_dev(disks[i]);
    if (path.empty()) return 1;
    // A logical "/dev/sda" lies below the board's root.
    std::string file = path[0] == '/' && exists(board_root() + path) ? board_root() + path : path;
    struct stat st;
    if (stat(file.c_str(), &st) == 0) {
      for (const auto& s : seen)
        if (s.first == st.st_dev && s.second == st.st_ino) {
          err("%s is named twice (the same image or device): give each disk once",
              disks[i].c_str());
          return 2;
        }
      seen.push_back({st.st_dev, st.st_ino});
    }
    // A row of the disk table as the board's scan would fill it, for a volume that is
    // not one of the board's disks; the label keeps the name as given.
    db_info_t& row = app->db_info[i];
    memset(&row, 0, sizeof row);
    snprintf(row.dev, sizeof row.dev, "%s", path.c_str());
    snprintf(row.model, sizeof row.model, "image");
    row.db = new fs_db();
    app->db_cnt = static_cast<int>(i) + 1;
    labels_.push_back(disks[i]);
    if (row.db->open(static_cast<int>(i), path.c_str(), "r") != 0 || row.db->q_key() == 0) {
      err("%s holds no readable volume; left out", disks[i].c_str());
      continue;
    }
    volume_state s;
    explain_volume(*row.db, disks[i], &s);
    if (s.root_damaged)
      damaged.push_back(static_cast<int>(i));
    else
      good++;
  }
  if (good == 0 && !damaged.empty())
    return fail("nothing can be listed: the index of every disk named is damaged (see above)");
  if (good == 0) return fail("none of the disks holds a readable volume");
  return 0;
}

// ---- recording --------------------------------------------------------------------------

void finish_recording(fs_app& app) {
  if (app.cur_db != nullptr && app.min_e.name[0] != 0) {
    app.writeback_motion_info(app.cur_db);
    app.writeback_log_info(app.cur_db);
    app.writeback_Iframe_info(app.cur_db);
  }
  app.flush();
}

// ---- JSON -------------------------------------------------------------------------------

std::string json_str(const std::string& s) {
  std::string out = "\"";
  for (char ch : s) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += ch;
    } else if (c < 0x20 || c == 0x7f) {
      char buf[8];
      snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += ch;
    }
  }
  return out + "\"";
}

void json::key(const char* k) {
  if (!first_.empty()) {
    if (!first_.back()) out_ += ",";
    first_.back() = false;
  }
  if (k != nullptr) out_ += json_str(k) + ":";
}

json& json::obj(const char* k) {
  key(k);
  out_ += "{";
  first_.push_back(true);
  close_ += '}';
  return *this;
}

json& json::arr(const char* k) {
  key(k);
  out_ += "[";
  first_.push_back(true);
  close_ += ']';
  return *this;
}

json& json::end() {
  if (first_.empty()) return *this;
  out_ += close_.back();
  close_.pop_back();
  first_.pop_back();
  return *this;
}

json& json::str(const char* k, const std::string& v) {
  key(k);
  out_ += json_str(v);
  return *this;
}

json& json::num(const char* k, long long v) {
  key(k);
  out_ += std::to_string(v);
  return *this;
}

json& json::boolean(const char* k, bool v) {
  key(k);
  out_ += v ? "true" : "false";
  return *this;
}

json& json::null(const char* k) {
  key(k);
  out_ += "null";
  return *this;
}

void json::print() const { printf("%s\n", out_.c_str()); }

}  // namespace tool
