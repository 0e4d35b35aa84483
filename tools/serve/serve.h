// `ringrec serve`: the recordings of a board or of pulled disk images behind a small
// HTTP server and one page. What the parts share: a pool of read-only library objects
// (the library serialises nothing on one object, so each request borrows a whole one),
// the clips built from them and kept in a bounded cache, and the export jobs.
#ifndef RINGREC_TOOL_SERVE_H
#define RINGREC_TOOL_SERVE_H

#include <ringrec/fs_app.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "../cli.h"

namespace serve {

// A request's answer before it goes on the wire: status and a JSON body.
struct reply {
  int status = 200;
  std::string body;
};
reply error_reply(int status, const std::string& msg);

// Times in requests: epoch seconds or ISO 8601 ("2024-05-01T10:58:00Z"); UTC.
bool parse_when(const std::string& s, long long* out);

// Read-only library objects, each with its own volumes open; a request holds one for
// as long as it reads.
class reader_pool {
 public:
  int open(const std::vector<std::string>& disks, int count);
  struct lease {
    reader_pool* pool;
    tool::volume_set* v;
    fs_app& app() { return *v->app; }
    ~lease();
  };
  std::unique_ptr<lease> take();
  int channels() const { return channels_; }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<std::unique_ptr<tool::volume_set>> all_;
  std::vector<tool::volume_set*> free_;
  int channels_ = 32;
};

// /api/disks, /api/spans, /api/events, /api/keyframe.
reply api_disks(fs_app& app);
reply api_spans(fs_app& app, int beg, int end);
reply api_events(fs_app& app, int beg, int end, int type);
reply api_keyframe(fs_app& app, unsigned mask, int at, int dir);

// One built MP4 file: an unlinked scratch file, read by the responses that hold it.
struct clip {
  int fd = -1;
  long long size = 0;
  int start = 0, end = 0;  // recording seconds of the first and last sample
  int fps = 0;
  int frames = 0;
  std::vector<std::pair<int, int>> seconds;  // (recording second, video samples in it)
  std::vector<int> keys;                     // sample numbers (from 0) of key frames
  std::vector<int> times;                    // reverse clips: each sample's second
  ~clip();
};
typedef std::shared_ptr<const clip> clip_ptr;

struct clip_request {
  bool reverse = false;
  int ch = 0, from = 0, to = 0;  // forward: [from, to]; reverse: at = from, count = to
  bool sub = false, audio = false;
  std::string key() const;
};

// Builds (or finds) a clip. On failure *err holds the reply to give.
clip_ptr get_clip(reader_pool& pool, const clip_request& r, reply* err);
std::string clip_json(const clip& c);
// Clips kept for later requests: at most this many bytes of scratch files.
void set_clip_cache(long long bytes);

// Export jobs, run one at a time: the library's progress semaphore and cancel marker
// belong to the board, not to a job.
struct job_spec {
  std::vector<int> chans;
  int beg = 0, end = 0;
  std::string format = "mp4";
  bool sub = false;
};
int jobs_start(const std::vector<std::string>& disks, const std::string& dir);
void jobs_stop();
reply job_create(const job_spec& s);
reply job_status(int id);
reply job_cancel(int id);
// The path of file `index` of a finished job, or "" (with *err set).
std::string job_file(int id, int index, reply* err);

}  // namespace serve

#endif
