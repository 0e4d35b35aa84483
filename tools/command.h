// The ringrec tool's subcommands register themselves here, one file per family.
#ifndef RINGREC_TOOL_COMMAND_H
#define RINGREC_TOOL_COMMAND_H

#include <string>
#include <vector>

#include "quiet.h"

namespace tool {

// Exit status: 0 success, 1 failure, 2 bad usage.
typedef int (*command_fn)(const std::vector<std::string>& args);

struct command {
  const char* name;   // "info", or "sim create" for a two-word command
  const char* usage;  // one line of help
  command_fn fn;      // receives the arguments after the command's name(s)
};

// Registers a command at static-initialisation time; returns true.
bool add_command(const command& c);
// Whether a command of that name is registered ("recover").
bool has_command(const char* name);

// Option helpers shared by the commands.
// Removes "--name VALUE" from args into *value; false when absent.
bool take_option(std::vector<std::string>& args, const std::string& name, std::string* value);
// Removes every "--name VALUE" occurrence.
std::vector<std::string> take_options(std::vector<std::string>& args, const std::string& name);
// Removes a "--name" switch; true when it was there.
bool take_flag(std::vector<std::string>& args, const std::string& name);
// Removes "--name TIME" (seconds since 1970 or YYYY-MM-DD HH:MM[:SS], UTC, within the
// recorder's 32-bit seconds). *given says whether it was there; false when it was there
// but could not be read.
bool take_time(std::vector<std::string>& args, const std::string& name, long long* out,
               bool* given);
// True when args holds no "--option" any more; else says which one is unknown (usage
// error, *rc = 2) and returns false.
bool only_positional(const std::string& cmd, const std::vector<std::string>& args, int* rc);

// Usage error: prints "ringrec: <msg>" and the command's usage line; returns 2.
// (Runtime errors: tool::fail and tool::err in quiet.h.)
int usage_error(const std::string& cmd, const std::string& msg);
// A progress bar on stderr when stderr is a terminal; silent otherwise.
void progress(const char* what, double done, double total);
void progress_end();

}  // namespace tool

#endif
