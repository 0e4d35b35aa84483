// One volume: one disk in the ring-shaped volume format (see records.h and
// docs/format.md). Plain class, integer status: 0 success, -1 failure unless noted.
#ifndef RINGREC_FS_DB_H
#define RINGREC_FS_DB_H

#include <ringrec/fs_io.h>
#include <ringrec/records.h>

class fs_db {
public:
  int hdd;       // disk number, printed as "HDD%d"
  fs_io* io;     // owned
  sb_t sb;       // in-memory superblock; all zero while no volume is open
  long long x_err_off;  // header retry memory: offset of the last failing header read
  int x_err_cnt;        //   and how many times it failed there
  long long e_err_off;  // entry retry memory
  int e_err_cnt;
  long long grow_time;  // utime() of the last region creation or growth
  int grow_mul;         // growth multiplier, 1..64
  int err;              // 0 healthy, 1 repaired by chkdsk, 2 unusable

  fs_db();
  ~fs_db();

  // Life cycle.
  int open(int hdd, const char* path, const char* mode);
  int format();
  int close();
  int error();
  unsigned q_key();

  static unsigned checksum(const void* data, int words);

  // Superblock and table headers.
  int sb_read(sb_t& s);
  int sb_write(sb_t& s);
  int x_read(long long off, entryX_t& x);
  int x_write(long long off, entryX_t& x);

  // Entries.
  int e_read(entryX_t& x, int i, entry_t& e);
  int e_reads(entryX_t& x, int i, entry_t* v, int n);
  int e_write(entryX_t& x, int i, entry_t& e);
  int e_writes(entryX_t& x, int i, entry_t* v, int n);
  int e_open(entryX_t& x, const char* name, entry_t& e);
  int e_create(entryX_t& x, unsigned short type, const char* name);
  int e_flush(entry_t& e);

  // Paths through nested tables: n names (const char*) from the root.
  int f_create(unsigned short type, int n, ...);
  int f_open(entry_t& e, int n, ...);

  // Data regions.
  int d_read(entry_t& e, int off, int len, void* buf);
  int d_write(entry_t& e, int off, int len, const void* buf);
  int d_query(entry_t& e, int off, int len);
  int f_query();

  // Space accounting and recycling.
  long long q_free();
  void q_info(int& flag, long long& total, long long& free, int verbose);
  int s_flag(int f);
  int q_writable();
  int q_overwritable();
  int q_first();
  int q_last();
  int remove(int n);
  int remove_bytime(int t);

  // Check and listing.
  int chkdsk();
  void print();
  void print(entry_t e);
};

#endif
