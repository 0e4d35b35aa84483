// Keeping the library's diagnostic lines off the terminal, and the tool's own messages.
//
// The library writes its diagnostics ("r_set[1203]: ...") with write(2) on file
// descriptor 2. A user who pulls a disk wants to read what the tool found, in the tool's
// words; the library's lines are for whoever debugs the library, and `ringrec -v` shows
// them. While a `quiet` scope is open, descriptor 2 points at a scratch file that
// collects those lines; the terminal's standard error is kept aside, and everything the
// tool itself says goes there through tool::err / tool::fail / tool::usage_error.
//
// main() opens one scope around every command, so commands need no scope of their own.
// Inside a command, write messages with tool::err, never with fprintf(stderr, ...): while
// the tool is quiet, whatever goes to stderr is taken for library output and kept off
// the terminal. Scopes nest; only the outermost one moves descriptor 2.
#ifndef RINGREC_TOOL_QUIET_H
#define RINGREC_TOOL_QUIET_H

#include <string>

namespace tool {

// Set by the global -v / --verbose: the library's lines go to the terminal as written.
void set_verbose(bool on);
bool verbose();

class quiet {
 public:
  quiet();
  ~quiet();
  // The library lines collected since the outermost scope opened ("" when verbose).
  static std::string captured();
  // How many such lines there were.
  static int captured_lines();

 private:
  quiet(const quiet&);
  quiet& operator=(const quiet&);
};

// The descriptor of the terminal's standard error, whether or not a scope is open.
int err_fd();

// "ringrec: <message>\n" on the terminal's standard error (printf-style).
void err(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Runtime error: prints "ringrec: <msg>"; returns 1.
int fail(const std::string& msg);

}  // namespace tool

#endif
