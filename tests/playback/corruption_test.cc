// Seeded damage to the recording of the scenario (table headers and entries, resealed
// so they pass their checksums; block heads and tails, some resealed; index, event and
// motion records; raw bytes), then every search and playback call on it: each must
// return, never read or write memory it does not own (run under AddressSanitizer and
// UndefinedBehaviorSanitizer) and never write to a volume.
#include <ringrec/fs_io.h>

#include <atomic>
#include <random>

#include "scenario.h"

namespace {

using pbt::kStart;
using pbt::Scenario;

#if defined(__arm__)
const int kSeeds = 300;  // under qemu; the host and sanitizer builds run the full count
#else
const int kSeeds = 1000;
#endif

const long long kRootHeader = 0x400000;

std::atomic<long long> g_writes(0);
long long (*g_pwrite)(int, const void*, int, long long);
long long count_pwrite(int fd, const void* b, int n, long long off) {
  g_writes++;
  return g_pwrite(fd, b, n, off);
}

// A place that can be damaged: a record and, for sealed records, how to reseal it.
struct place {
  std::string img;  // image file
  long long off;
  int len;
  int kind;  // 0 table header, 1 entry, 2 block head, 3 block tail, 4 raw data
  int cat;   // what is chosen from evenly: as kind, with heads and data of the
             // minute's own records (5, 6) apart from those of frame blocks
  int time;  // where playback starts to pass over it
};

// XOR of little-endian 16-bit words.
unsigned xor16(const std::string& b) {
  unsigned x = 0;
  for (size_t i = 0; i + 1 < b.size(); i += 2)
    x ^= static_cast<unsigned char>(b[i]) | static_cast<unsigned char>(b[i + 1]) << 8;
  return x;
}

// Headers and entries carry a checksum chosen so the XOR of all words is the volume
// key (header: at byte 2; entry: at byte 0).
void reseal(std::string& b, int at, unsigned key) {
  b[at] = b[at + 1] = 0;
  unsigned c = xor16(b) ^ key;
  b[at] = static_cast<char>(c & 0xFF);
  b[at + 1] = static_cast<char>(c >> 8);
}

std::vector<place> places_of(const std::string& dev, const std::string& img) {
  std::vector<place> out;
  out.push_back({img, kRootHeader, 16, 0, 0, kStart});
  std::vector<rec::hour_view> v = rec::read_volume(dev.c_str());
  for (size_t h = 0; h < v.size(); h++) {
    out.push_back({img, kRootHeader + 16 + 324 * static_cast<long long>(h), 324, 1, 1, v[h].e.time});
    long long hx = v[h].e.offset;
    out.push_back({img, hx, 16, 0, 0, v[h].e.time});
    for (size_t m = 0; m < v[h].minutes.size(); m++) {
      const rec::minute_view& mv = v[h].minutes[m];
      out.push_back({img, hx + 16 + 324 * static_cast<long long>(m), 324, 1, 1, mv.e.time});
      long long base = mv.e.offset;
      for (size_t b = 0; b < mv.blocks.size(); b++) {
        long long at = base + mv.offsets[b];
        int size = static_cast<int>(mv.blocks[b].size()) - 296;
        head_t bh = rec::head_of(mv.blocks[b]);
        bool own = bh.type != 1;
        int t = own ? mv.e.time : bh.time;
        out.push_back({img, at, 288, 2, own ? 5 : 2, t});
        out.push_back({img, at + 288 + size, 8, 3, 3, t});
        out.push_back({img, at + 288, size, 4, own ? 6 : 4, t});
      }
    }
  }
  return out;
}

// Values that make sizes, counts and offsets interesting.
uint32_t nasty(std::mt19937& r) {
  static const uint32_t v[] = {0, 1, 7, 8, 288, 296, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,
                               0xFFFFFED8, 1152, 15360, 0x10000, 0x400000, 0x1234, 0xFFFFEDCB};
  if (r() % 3 == 0) return r();
  return v[r() % (sizeof v / sizeof v[0])];
}

struct saved {
  std::string img;
  long long off;
  std::string bytes;
};

saved damage(const place& p, std::mt19937& r, unsigned key) {
  int len = p.kind == 4 ? std::min(p.len, 64) : p.len;
  long long off = p.off;
  if (p.kind == 4 && p.len > len) off += r() % static_cast<unsigned>(p.len - len + 1);
  saved s{p.img, off, kit::read_at(p.img, off, len)};
  std::string b = s.bytes;
  if (b.empty()) return s;
  uint32_t v = nasty(r);
  switch (p.kind) {
    case 0:  // offset (4..11) or count (12)
    case 1: {  // any field of the entry past its checksum
      // Entry: xoffset, idx, name, offset, max, size, time, the masks; or any word.
      static const int fields[] = {4, 8, 12, 16, 52, 56, 60, 64, 68, 72, 76, 80};
      int at = p.kind == 0 ? (r() % 2 ? 12 : 4 + 4 * static_cast<int>(r() % 2))
               : r() % 4 ? fields[r() % 12]
                         : 4 + 4 * static_cast<int>(r() % 80);
      memcpy(&b[at], &v, 4);
      if (r() % 4 != 0) reseal(b, p.kind == 0 ? 2 : 0, key);
      break;
    }
    case 2: {  // a head word; the magic made to match most of the time
      // The size word half of the time: it decides where everything after lies.
      int w = r() % 2 ? 6 : static_cast<int>(r() % 12);
      memcpy(&b[4 * w], &v, 4);
      if (r() % 3 != 0) {
        uint32_t t, sz;
        memcpy(&t, &b[12], 4);
        memcpy(&sz, &b[24], 4);
        uint32_t mg = t ^ sz;
        memcpy(&b[4], &mg, 4);
      }
      break;
    }
    case 3:
      memcpy(&b[4 * (r() % 2)], &v, 4);
      break;
    default:
      for (int i = 0; i < 1 + static_cast<int>(r() % 16); i++) b[r() % b.size()] = static_cast<char>(r());
  }
  kit::write_at(p.img, off, b.data(), static_cast<int>(b.size()));
  return s;
}

// Every search and playback call, with bounded walks from just before `at` forwards
// and backwards; returns the blocks seen (on the undamaged image, every step's).
int exercise(fs_app& app, std::mt19937& r, int at) {
  int n;
  app.q_hour(0, 0, n);
  app.q_min(kStart + 30, 0, n);
  int t[5] = {kStart, kStart + 100, kStart + 200, 0, kStart - 4000};
  app.q_time(5, t);
  for (int e = 0; e < 4; e++) app.q_log(0, 0, 0xF, e, n);
  unsigned mask[20];
  for (unsigned& m : mask) m = 0xFFFFFFFF;
  for (int ch = 0; ch < 4; ch++) {
    app.q_motion(0, 0, ch, n);
    app.q_motionMask(0, 0, ch, n, mask, 20);
  }
  int blocks = 0;
  std::vector<char> buf;
  for (int dir = 1; dir >= -1; dir -= 2) {
    if (app.r_set(at - static_cast<int>(r() % 3), 0) != 0) continue;
    for (int step = 0; step < 150; step++) {
      head_t* h = app.r_head();
      if (h != nullptr) {
        blocks++;
        int size = h->size;
        if (size >= 0 && size <= (1 << 20)) {
          buf.resize(static_cast<size_t>(size) + 8);
          app.r_data(buf.data(), size);
          app.r_offset_data(buf.data(), size, 8);
        }
      }
      // A jump moves the offset only; the head under it is read by the next step.
      if (step % 20 == 7 && app.r_Iseek(dir, step % 40 == 7, 0xF, step % 3) == 0) continue;
      if (app.r_seek(dir) != 0 && app.r_next(dir) != 0) break;
    }
  }
  return blocks;
}

TEST_F(Scenario, SeededDamageNeverCrashesReadsAstrayOrWrites) {
  app->db_close();
  kit::StderrCapture quiet;
  std::vector<place> places = places_of("/dev/sda", board->image("sda"));
  std::vector<place> more = places_of("/dev/sdb", board->image("sdb"));
  places.insert(places.end(), more.begin(), more.end());
  ASSERT_GT(places.size(), 1000u);
  std::vector<std::vector<size_t>> by_cat(7);
  for (size_t i = 0; i < places.size(); i++) by_cat[places[i].cat].push_back(i);
  for (const std::vector<size_t>& c : by_cat) ASSERT_FALSE(c.empty());

  fs_app reader;
  reader.set(4);
  ASSERT_EQ(2, reader.db_open("r"));
  unsigned key = reader.db_info[0].db->sb.key;
  unsigned key1 = reader.db_info[1].db->sb.key;
  std::mt19937 r0(1);
  // The undamaged recording first: both walks see blocks.
  EXPECT_EQ(300, exercise(reader, r0, kStart + 100));
  reader.db_close();

  g_writes = 0;
  g_pwrite = fs_sys.pwrite;
  fs_sys.pwrite = count_pwrite;
  int opened = 0;
  for (int seed = 0; seed < kSeeds; seed++) {
    std::mt19937 r(static_cast<uint32_t>(seed) + 100);
    std::vector<saved> undo;
    int k = 1 + static_cast<int>(r() % 3), at = kStart;
    for (int i = 0; i < k; i++) {
      const std::vector<size_t>& c = by_cat[r() % by_cat.size()];
      const place& p = places[c[r() % c.size()]];
      undo.push_back(damage(p, r, p.img == board->image("sda") ? key : key1));
      at = p.time;
    }
    fs_app a;
    a.set(4);
    if (a.db_open("r") == 2) opened++;
    exercise(a, r, at);
    a.db_close();
    for (size_t i = undo.size(); i-- > 0;)
      kit::write_at(undo[i].img, undo[i].off, undo[i].bytes.data(), static_cast<int>(undo[i].bytes.size()));
  }
  fs_sys.pwrite = g_pwrite;
  EXPECT_EQ(kSeeds, opened);
  EXPECT_EQ(0, g_writes.load());
}

}  // namespace
