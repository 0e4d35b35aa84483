// Progress and cancel of an export, as a recorder's interface sees them.
//
// Progress: the tool creates the recorder's progress semaphore set (two semaphores,
// percent and result, keyed by ftok("/.", 66) below the board's root) as the recorder's
// application does, and a thread reads it beside the export: a bar on a terminal, a line
// per 10 % otherwise. Lines the export prints while the bar is drawn go through
// progress_reader::line, which clears the bar first so each line stands on its own.
//
// Cancel: Ctrl-C creates the cancel marker ("/tmp/bk_cancel" below the board's root)
// that the writers test between minutes.
#ifndef RINGREC_TOOL_EXPORT_PROGRESS_H
#define RINGREC_TOOL_EXPORT_PROGRESS_H

#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <string>

namespace tool {

// Removes a marker left over from an earlier run and installs the SIGINT handler.
void cancel_arm();
// Restores the previous handler and removes the marker.
void cancel_disarm();
// Ctrl-C was pressed since cancel_arm.
bool cancelled();

class progress_reader {
 public:
  // out: where the tool speaks (the terminal's stderr); tty: draw a bar there.
  progress_reader(FILE* out, bool tty);
  ~progress_reader();
  // Creates (or joins) the semaphore set and zeroes it; false (errno set) without one.
  bool open();
  void start();
  // Stops the thread, shows the last value, removes a set it created.
  void finish();
  // One line of text on `to` (stdout or the tool's stream), never on the bar's line.
  void line(FILE* to, const std::string& text);

 private:
  progress_reader(const progress_reader&);
  progress_reader& operator=(const progress_reader&);
  static void* loop(void* p);
  void poll();
  void show(int v);
  FILE* out_;
  bool tty_;
  int id_ = -1;
  bool created_ = false, running_ = false, drawn_ = false;
  int shown_ = -1;
  std::atomic<bool> stop_{false};
  pthread_t th_;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace tool

#endif
