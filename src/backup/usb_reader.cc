// Reading IRF backup files back for playback: one open file per service object, frame
// records stepped forwards in file order or backwards along the key-frame links.
#include <limits.h>
#include <ringrec/fs_app.h>
#include <string.h>

// The path names a file on a mounted USB stick (or anywhere the caller chooses), not a
// file of the recorder's own tree, so it is opened as given rather than below the
// board root.
int fs_app::usb_open_irf(char const* path) {
  usb_close_irf();
  if (path == nullptr) return 0;
  usb_f = fopen(path, "rb");
  return usb_f != nullptr ? 1 : 0;
}

int fs_app::usb_check_irf_header(FILE* f) {
  if (f == nullptr) return 0;
  unsigned char head[IRF_HEADER_SIZE];
  memset(head, 0, sizeof head);
  if (fread(head, 1, sizeof head, f) != sizeof head) return 0;
  return memcmp(head, IRF_MAGIC, 6) == 0 && head[6] == 0 && head[7] == 0 ? 1 : 0;
}

void fs_app::usb_reset_irf(int& size) {
  if (usb_f == nullptr) return;
  fseeko(usb_f, 0, SEEK_END);
  // The size is an int: a file of 2 GiB or more reports INT_MAX rather than a
  // truncated or negative figure.
  off_t end = ftello(usb_f);
  size = end < 0 ? 0 : end > INT_MAX ? INT_MAX : static_cast<int>(end);
  fseeko(usb_f, IRF_HEADER_SIZE, SEEK_SET);
}

irf_frame_rec_t* fs_app::usb_read_video_header(int dir) {
  if (usb_f == nullptr) {
    memset(&usb_rec, 0, sizeof usb_rec);
    return &usb_rec;
  }
  if (dir < 0) {
    int32_t link = usb_rec.link;
    // 0 and -1 end the chain. Any other negative link comes from a damaged record and
    // cannot be sought to; it ends the chain too instead of reading wherever the file
    // happens to stand.
    if (link == 0 || link < 0 || fseeko(usb_f, link, SEEK_SET) != 0) {
      memset(&usb_rec, 0, sizeof usb_rec);
      return &usb_rec;
    }
  }
  memset(&usb_rec, 0, sizeof usb_rec);
  uint32_t sync = 0;
  if (fread(&sync, 1, 4, usb_f) != 4 || sync != IRF_FRAME_SYNC) return &usb_rec;
  if (fread(&usb_rec, 1, sizeof usb_rec, usb_f) != sizeof usb_rec)
    memset(&usb_rec, 0, sizeof usb_rec);
  return &usb_rec;
}

// The record's length comes from the file. A length beyond the 102400-byte data buffer
// would overrun it if read in one go, so longer frames pass through the buffer in
// pieces: dst still receives all n bytes, and the buffer is never written past its end.
void fs_app::usb_read_video_data(void* dst, int n) {
  if (usb_f == nullptr || n <= 0) return;
  unsigned char* out = static_cast<unsigned char*>(dst);
  while (n > 0) {
    int piece = n < IRF_DATA_MAX ? n : IRF_DATA_MAX;
    memset(usb_data, 0, sizeof usb_data);
    size_t got = fread(usb_data, 1, static_cast<size_t>(piece), usb_f);
    memcpy(out, usb_data, static_cast<size_t>(piece));
    out += piece;
    n -= piece;
    // After a short read the rest of the file is gone: the remaining bytes are the
    // cleared buffer's zeros, as for a short final piece.
    if (got < static_cast<size_t>(piece) && n > 0) {
      memset(out, 0, static_cast<size_t>(n));
      break;
    }
  }
}

long fs_app::usb_irf_position() {
  if (usb_f == nullptr) return 0;
  return static_cast<long>(ftello(usb_f));
}

void fs_app::usb_close_irf() {
  if (usb_f == nullptr) return;
  memset(usb_data, 0, sizeof usb_data);
  fclose(usb_f);
  usb_f = nullptr;
}

bool fs_app::usb_isOpenFile() { return usb_f != nullptr; }
