// The tool's helper layer: what every command needs beside its own work.
//
//   board      the simulated board's root directory and logical paths below it
//   devices    a DEV argument (image, device path or a board's disk name) made into the
//              path the library is given
//   channels   the one channel syntax of every command: "0,2,5", channels from 0
//   volumes    opening one volume, or the volumes a read command works on, and saying
//              in the tool's words what is wrong with them (open-or-explain)
//   JSON       escaped strings and one small writer; the shapes are in docs/json.md
//
// Runtime messages go through tool::err / tool::fail (quiet.h); every function here
// that "says" something writes there.
#ifndef RINGREC_TOOL_CLI_H
#define RINGREC_TOOL_CLI_H

#include <ringrec/fs_app.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace tool {

// ---- board ------------------------------------------------------------------------------

// $RINGREC_ROOT (set by --root), or "" for the real machine.
std::string board_root();
// A logical path ("/tmp/bk_cancel") as the library resolves it on the board.
std::string board_path(const char* logical);

// ---- devices ----------------------------------------------------------------------------

// DEV is an image or device path, or a disk name ("sda") on the board. Returns the path
// to hand to the library (a logical "/dev/sda" on a board), or "" after saying what was
// wrong.
std::string resolve_dev(const std::string& dev);

// ---- channels ---------------------------------------------------------------------------

// "0,2,5": channel numbers 0 to 31 separated by commas. Fills the mask (bit n is channel
// n) and, when given, the distinct channels in the order named. False on anything else.
bool parse_channels(const std::string& s, uint32_t* mask, std::vector<int>* order = nullptr);
// "0,2,5" for a mask; "-" when empty.
std::string channel_list(uint32_t mask);

// ---- volumes ----------------------------------------------------------------------------

// What opening a volume found beside the volume itself.
struct volume_state {
  bool secondary = false;     // the primary superblock is bad: opened from the second copy
  long long bytes = 0;        // the device's or image's size
  long long described = 0;    // the size the superblock's data area implies
  bool root_damaged = false;  // the root table (the index of hours) cannot be read
};

// Opens DEV (as given on the command line) into db. Returns 0 after warning, in the
// tool's words, of a secondary superblock, a short image or a damaged root table (each
// noted in *st when given); 1 after saying why there is no volume to open.
int open_volume(fs_db& db, const std::string& dev, const char* mode, volume_state* st = nullptr);
// The warnings of open_volume for a volume already open, shown with its label.
void explain_volume(fs_db& db, const std::string& label, volume_state* st);
// "'ringrec recover DEV' ..." when the tool has a recovery command, else "".
std::string recover_hint(const std::string& dev);

// The volumes a read-side command works on: the disks named on the command line, or the
// board's disks when none are. Every volume is opened read-only. Labels are the names as
// given; the same image or device given twice is refused.
struct volume_set {
  fs_app* app = new fs_app();
  volume_set() = default;
  volume_set(const volume_set&) = delete;
  volume_set& operator=(const volume_set&) = delete;
  ~volume_set();
  // 0 when at least one volume can be read, else 1 (or 2 for a disk named twice) after
  // saying what was wrong.
  int open(const std::vector<std::string>& disks);
  // The label of row i of the disk table ("?" out of range).
  const char* name(int i) const;
  // Rows whose root table cannot be read (they list nothing).
  std::vector<int> damaged;

 private:
  std::vector<std::string> labels_;
};

// ---- recording --------------------------------------------------------------------------

// Stops recording the way a recorder must: the open minute's motion, event log and
// key-frame index live in memory until the next minute's first block, so they are
// written back first; then flush makes the minute and hour entries durable.
void finish_recording(fs_app& app);

// ---- JSON -------------------------------------------------------------------------------

// s as a JSON string, in quotes, with quotes, backslashes and control bytes escaped.
std::string json_str(const std::string& s);

// One JSON value built in order; commas and nesting are its business. Keys are given
// inside objects and left null inside arrays. Example:
//   json j; j.obj().str("device", dev).arr("spans").obj().num("from", t).end().end().end();
//   j.print();
class json {
 public:
  json& obj(const char* key = nullptr);
  json& arr(const char* key = nullptr);
  json& end();
  json& str(const char* key, const std::string& v);
  json& num(const char* key, long long v);
  json& boolean(const char* key, bool v);
  json& null(const char* key);
  const std::string& text() const { return out_; }
  // The value and a newline on standard output.
  void print() const;

 private:
  void key(const char* k);
  std::string out_;
  std::vector<bool> first_;  // per open level: nothing written in it yet
  std::string close_;        // per open level: the bracket that closes it
};

// Runs fn with the disk table narrowed to row i. The minute list says nothing of the
// disk a minute came from, so a per-disk listing asks the library one disk at a time.
template <typename F>
void on_disk(fs_app& app, int i, F fn) {
  db_info_t saved = app.db_info[0];
  int cnt = app.db_cnt;
  app.db_info[0] = app.db_info[i];
  app.db_cnt = 1;
  fn();
  app.db_info[0] = saved;
  app.db_cnt = cnt;
}

}  // namespace tool

#endif
