// The data-area scan on a volume whose tables and regions come from the fuzzer, laid
// out as fuzz::lay_volume places them, and whatever input is left (up to 256 KiB) at
// the start of the fourth region, where the seeds hold a recorded minute's frame
// blocks. The scan and the replay of every chain it found must stay inside the device
// and the buffers, never hang, and never write.
#include <ringrec/recovery.h>

#include "image.h"

namespace {

int visit(void* ctx, const rc_block_t& b) {
  // Touch every byte handed out: a block must lie wholly in the scan's buffer.
  unsigned* sum = static_cast<unsigned*>(ctx);
  for (int i = 0; i < b.len; i += 64) *sum += b.bytes[i];
  *sum += b.bytes[b.len - 1];
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static std::string path = fuzz::scratch("recover");
  fuzz::quiet_table();
  fuzz::count_writes();
  int fd = fuzz::reset(path);
  fuzz::lay_volume(fd, data, size);
  const size_t tables = 36 + 4096 + 3 * 8192;  // what lay_volume takes
  if (size > tables) fuzz::lay(fd, 0x1400000, data + tables, size - tables, 256 << 10);
  close(fd);

  fuzz::writes() = 0;
  fs_recover r;
  unsigned sum = 0;
  if (r.open(path.c_str()) == 0) {
    r.chunk = 1 << 20;  // several reads over the 20 MiB ring, so blocks straddle them
    r.scan(-0x7FFFFFFF - 1, 0x7FFFFFFF, visit, &sum);
    for (int i = 0; i < r.chain_cnt; i++)
      r.replay(r.chains[i], -0x7FFFFFFF - 1, 0x7FFFFFFF, visit, &sum);
    for (int i = 0; i < r.span_cnt; i++)
      if (r.spans[i].t0 > r.spans[i].t1 || r.spans[i].blocks <= 0) abort();
  }
  r.close();
  if (fuzz::writes() != 0) abort();  // the scan wrote
  return static_cast<int>(sum & 0);
}
