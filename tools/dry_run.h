// A check that changes nothing: while a dry_run scope is open, the positioned writes the
// library makes through its system-call table land in memory instead of on the device,
// and its reads see them, so the check runs as it would and the device stays as it was.
// One scope at a time, on the calling thread's library calls only.
#ifndef RINGREC_TOOL_DRY_RUN_H
#define RINGREC_TOOL_DRY_RUN_H

namespace tool {

class dry_run {
 public:
  dry_run();
  ~dry_run();
  // Writes whose bytes differ from what the device holds, and how many bytes differ.
  int changed_writes() const;
  long long changed_bytes() const;

 private:
  dry_run(const dry_run&);
  dry_run& operator=(const dry_run&);
};

}  // namespace tool

#endif
