// The service object and its disk set: discovery through /proc/partitions and
// /sys/block, the disk table, modes, format, retention and the recording indicator.
#include <ctype.h>
#include <ringrec/fs_app.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "backup/backup.h"
#include "recording/writer.h"
#include "runtime/runtime.h"

namespace {

// USB-attached disks hang below one of these host controllers; they are never
// recording disks.
bool is_usb_disk(const char* name) {
  char link[300];
  snprintf(link, sizeof link, "/sys/block/%s/device", name);
  std::string real;
  if (!fs_realpath(link, real)) return false;
  return real.find("/sys/devices/platform/hiusb") != std::string::npos ||
         real.find("/sys/devices/platform/h2v100") != std::string::npos;
}

// Whole internal disks only: three characters beginning "sd" (sda, not sda1 or sdab).
bool is_disk_name(const char* name) { return strlen(name) == 3 && strncmp(name, "sd", 2) == 0; }

// Model text of a drive: printable bytes without runs of spaces, no leading space and
// one trailing space dropped. The file may hold up to `max` bytes but `out` holds only
// `cap` - 1 characters, so longer texts are cut there.
void read_model(const char* path, char* out, int cap, int max) {
  FILE* f = fs_fopen(path, "r");
  if (f == nullptr) return;
  unsigned char raw[256];
  if (max > static_cast<int>(sizeof raw)) max = sizeof raw;
  int n = static_cast<int>(fread(raw, 1, static_cast<size_t>(max), f));
  fclose(f);
  int k = 0;
  for (int i = 0; i < n && k < cap - 1; i++) {
    unsigned char c = raw[i];
    if (c == ' ') {
      if (k > 0 && out[k - 1] != ' ') out[k++] = ' ';
    } else if (isprint(c)) {
      out[k++] = static_cast<char>(c);
    }
  }
  if (k > 0 && out[k - 1] == ' ') k--;
  out[k] = 0;
}

bool edition_marked() {
  static const char* const marks[] = {"/z/oem/Kesto", "/z/oem/VELKO", "/z/oem/ZUR", "/z/oem/JX",
                                      "/z/oem/TARVO"};
  for (const char* m : marks)
    if (fs_access(m, R_OK) == 0) return true;
  return false;
}

}  // namespace

fs_app::fs_app()
    : ch_num(0),
      motion_buf(nullptr),
      log_buf(nullptr),
      iframe_cap(0),
      iframe_buf(nullptr),
      db_cnt(0),
      db_update(1),
      last_write_ms(0),
      write_err(0),
      write_time(0),
      cur_db(nullptr),
      min_dirty(0),
      hour_cap(0),
      hour_cnt(0),
      hour_list(nullptr),
      min_cap(0),
      min_cnt(0),
      min_list(nullptr),
      event_cnt(0),
      event_fn(nullptr),
      event_ctx(nullptr),
      usb_f(nullptr) {
  memset(&motion_info, 0, sizeof motion_info);
  memset(&log_info, 0, sizeof log_info);
  pthread_mutex_init(&db_mutex, nullptr);
  pthread_mutex_init(&motion_mutex, nullptr);
  pthread_mutex_init(&log_mutex, nullptr);
  pthread_mutex_init(&iframe_mutex, nullptr);
  memset(partitions, 0, sizeof partitions);
  memset(disk_list, 0, sizeof disk_list);
  memset(db_info, 0, sizeof db_info);
  memset(rsv_a, 0, sizeof rsv_a);
  memset(rsv_b, 0, sizeof rsv_b);
  memset(&hour_e, 0, sizeof hour_e);
  memset(&min_e, 0, sizeof min_e);
  memset(&r_cur, 0, sizeof r_cur);
  r_cur.sem_mode = 1;
  memset(r_iframe, 0, sizeof r_iframe);
  memset(events, 0, sizeof events);
  memset(&bk_state, 0, sizeof bk_state);
  memset(&bk_multi_state, 0, sizeof bk_multi_state);
  memset(&usb_rec, 0, sizeof usb_rec);
  memset(usb_data, 0, sizeof usb_data);
}

// The volumes are the owner's to close (db_close). The buffers this object grew are
// released here too, so that a process that builds and drops service objects (tests,
// the tool) does not leak them.
fs_app::~fs_app() {
  std::vector<frame_info_t>().swap(iframe_lq);
  std::vector<frame_info_t>().swap(iframe_hq);
  free(motion_buf);
  free(log_buf);
  free(iframe_buf);
  for (r_iframe_t& s : r_iframe) {
    free(s.offs);
    free(s.infos);
  }
  free(hour_list);
  free(min_list);
  // Backup selections and their MP4 writers, and the IRF file of the USB reader.
  bk_clr();
  bk_free_items(bk_multi_state.items, bk_multi_state.cap, bk_multi_state.num);
  usb_close_irf();
}

void fs_app::set(int n) { ch_num = n; }

void fs_app::AddEvenctChagedHandler(void* ctx, void (*fn)(void*, int, event_t*)) {
  event_fn = fn;
  event_ctx = ctx;
}

void clear_writer(fs_app& a, bool keep_err) {
  a.last_write_ms.store(0, std::memory_order_relaxed);
  if (!keep_err) a.write_err.store(0, std::memory_order_relaxed);
  a.write_time.store(0, std::memory_order_relaxed);
  a.cur_db = nullptr;
  memset(&a.hour_e, 0, sizeof a.hour_e);
  memset(&a.min_e, 0, sizeof a.min_e);
  a.min_dirty = 0;
}

void clear_playback(fs_app& a) {
  int32_t mode = a.r_cur.sem_mode;
  memset(&a.r_cur, 0, sizeof a.r_cur);
  a.r_cur.sem_mode = mode;
}

int fs_app::row_of(fs_db* db) {
  for (int i = 0; i < db_cnt; i++)
    if (db_info[i].db == db) return i;
  return -1;
}

int fs_app::db_open(const char* arg) {
  pthread_mutex_lock(&db_mutex);
  FILE* f = fs_fopen("/proc/partitions", "r");
  if (f == nullptr) {
    // Without a partition list there is nothing to open. The lock is released here:
    // returning with it held would hang the next db_close or write for good.
    pthread_mutex_unlock(&db_mutex);
    return 0;
  }
  char line[256];
  while (fgets(line, sizeof line, f) != nullptr) {
    long long size_kb = 0;
    char name[256] = {0};
    int n = sscanf(line, "%*d %*d %lld %255s", &size_kb, name);
    if (n < 1 || !is_disk_name(name)) continue;
    if (is_usb_disk(name)) continue;
    // The table has 16 rows; a further internal disk is not recorded to.
    if (db_cnt >= DB_DISKS_MAX) continue;
    int i = db_cnt;
    db_info_t& row = db_info[i];
    memset(&row, 0, sizeof row);
    snprintf(row.dev, sizeof row.dev, "/dev/%s", name);
    char model_path[300];
    snprintf(model_path, sizeof model_path, "/sys/block/%s/device/model", name);
    if (fs_access(model_path, R_OK) == 0)
      read_model(model_path, row.model, sizeof row.model, 128);
    else
      strcpy(row.model, "RAID");
    row.size_kb = size_kb;
    fs_log("db_open", 278, "%s: %s, %lldGB\n", row.dev, row.model, size_kb >> 20);
    db_cnt++;
  }
  fclose(f);
  // Every row gets a fresh volume object; one that does not open stays listed and is
  // reported as "Error".
  for (int i = 0; i < db_cnt; i++) {
    delete db_info[i].db;
    db_info[i].db = new fs_db();
    db_info[i].db->open(i, db_info[i].dev, arg);
  }
  clear_playback(*this);
  clear_writer(*this, true);
  db_update.store(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&db_mutex);
  return db_cnt;
}

int fs_app::db_check() {
  char text[sizeof partitions];
  memset(text, 0, sizeof text);
  FILE* f = fs_fopen("/proc/partitions", "r");
  if (f == nullptr) return 0;
  size_t got = fread(text, 1, sizeof text, f);
  (void)got;
  fclose(f);
  // Both buffers are zero-padded, so comparing all bytes compares the texts even when
  // the file filled the buffer without a terminator.
  if (memcmp(text, partitions, sizeof text) == 0) return 0;
  memcpy(partitions, text, sizeof text);

  f = fs_fopen("/proc/partitions", "r");
  if (f == nullptr) return 0;
  std::string list;
  char line[256];
  while (fgets(line, sizeof line, f) != nullptr) {
    char name[256] = {0};
    if (sscanf(line, "%*d %*d %*d %255s", name) < 1) continue;
    if (!is_disk_name(name) || is_usb_disk(name)) continue;
    // The list is kept in a 2048-byte field; names that would not fit are left out.
    size_t need = list.size() + (list.empty() ? 0 : 1) + strlen(name);
    if (need >= sizeof disk_list) break;
    if (!list.empty()) list += ",";
    list += name;
  }
  fclose(f);
  if (strcmp(list.c_str(), disk_list) == 0) return 0;
  fs_log("db_check", 242, "check2: \"%s\" -> \"%s\"\n", disk_list, list.c_str());
  memset(disk_list, 0, sizeof disk_list);
  memcpy(disk_list, list.c_str(), list.size());
  return 1;
}

int fs_app::db_close() {
  pthread_mutex_lock(&db_mutex);
  for (int i = 0; i < DB_DISKS_MAX; i++) {
    if (db_info[i].db == nullptr) continue;
    db_info[i].db->close();
    delete db_info[i].db;
    db_info[i].db = nullptr;
  }
  db_cnt = 0;
  clear_playback(*this);
  clear_writer(*this, true);
  db_update.store(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&db_mutex);
  return 0;
}

int fs_app::g_db_num() { return db_cnt; }

int fs_app::g_db_update() { return db_update.exchange(0, std::memory_order_relaxed) ? 1 : 0; }

int fs_app::g_db_info(int idx, char* dev, char* model, char* state, char* mode, long long& total,
                      long long& avail, int& err) {
  if (idx < 0 || idx >= db_cnt) return -1;
  pthread_mutex_lock(&db_mutex);
  db_info_t& row = db_info[idx];
  strcpy(dev, row.dev);
  strcpy(model, row.model);
  if (row.db == nullptr) {
    pthread_mutex_unlock(&db_mutex);
    return -1;
  }
  if (row.db->q_key() != 0) {
    bool current = row.db == cur_db;
    strcpy(state, current && iswriting() > 0 ? "Record" : "Idle");
    int flag = 0;
    row.db->q_info(flag, total, avail, current ? 1 : 0);
    if (flag == 0) strcpy(mode, "OVWR");
    if (flag == 1) strcpy(mode, "WR");
    if (flag == 2) strcpy(mode, "RDONLY");
  } else {
    strcpy(state, "Error");
    strcpy(mode, "NONE");
    total = row.size_kb * 1024;
    avail = 0;
  }
  err = row.db->error();
  pthread_mutex_unlock(&db_mutex);
  return 0;
}

int fs_app::db_set(int idx, const char* mode) {
  if (idx < 0 || idx >= db_cnt) {
    fs_log("db_set", 393, "ERR: idx = %d, cnt = %d\n", idx, db_cnt);
    return -1;
  }
  // The flush runs under the same hold of db_mutex as the clear of the writer state:
  // a block written between the two would be accepted, then dropped with the state.
  pthread_mutex_lock(&db_mutex);
  flush_locked(*this);
  fs_db* db = db_info[idx].db;
  if (db != nullptr) {
    if (strcmp(mode, "OVWR") == 0) db->s_flag(0);
    if (strcmp(mode, "WR") == 0) db->s_flag(1);
    if (strcmp(mode, "RDONLY") == 0) db->s_flag(2);
  }
  clear_playback(*this);
  clear_writer(*this, false);
  db_update.store(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&db_mutex);
  return 0;
}

int fs_app::db_format(int idx) {
  if (idx < 0 || idx >= db_cnt) {
    fs_log("db_format", 363, "ERR: idx = %d, cnt = %d\n", idx, db_cnt);
    return -1;
  }
  pthread_mutex_lock(&db_mutex);
  flush_locked(*this);  // under the same hold as the clear, as in db_set
  clear_playback(*this);
  clear_writer(*this, false);
  int r = db_info[idx].db != nullptr ? db_info[idx].db->format() : -1;
  db_update.store(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&db_mutex);
  pthread_mutex_lock(&iframe_mutex);
  iframe_lq.clear();
  iframe_hq.clear();
  pthread_mutex_unlock(&iframe_mutex);
  return r;
}

int fs_app::iswriting() {
  if (write_err.load(std::memory_order_relaxed) != 0) return -1;
  long long last = static_cast<long long>(last_write_ms.load(std::memory_order_relaxed));
  if (last == 0) return 0;
  long long idle = edition_marked() ? 30000 : 3000;
  if (utime() - last < idle) return 1;
  last_write_ms.store(0, std::memory_order_relaxed);
  db_update.store(1, std::memory_order_relaxed);
  return 0;
}

int fs_app::check_valid(int now, int hours) {
  flush();
  pthread_mutex_lock(&db_mutex);
  fs_log("check_valid", 697, "CLEAN: Valid = %d\n", hours);
  for (int i = 0; i < db_cnt; i++) {
    fs_db* db = db_info[i].db;
    if (db == nullptr || !db->q_writable()) continue;
    // Computed wide: a large retention must not overflow the 32-bit product.
    long long t = static_cast<long long>(now) - static_cast<long long>(hours) * 3600;
    if (t < INT32_MIN) t = INT32_MIN;
    if (t > INT32_MAX) t = INT32_MAX;
    db->remove_bytime(static_cast<int>(t));
  }
  return pthread_mutex_unlock(&db_mutex);
}

int fs_app::q_EventCount() { return event_cnt; }

event_t* fs_app::q_EventInfo() { return events; }

// Row i of the event table, computed without a bounds check as callers expect; the
// address arithmetic is done on an integer so that an out-of-range i only yields a
// pointer the caller must not use, never an invalid pointer operation here.
event_t* fs_app::q_Event(int i) {
  uintptr_t base = reinterpret_cast<uintptr_t>(events);
  return reinterpret_cast<event_t*>(base + static_cast<uintptr_t>(static_cast<intptr_t>(i)) *
                                               sizeof(event_t));
}
