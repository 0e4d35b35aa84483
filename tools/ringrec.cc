// ringrec: the command-line tool. One binary, subcommands, only the library's API.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "command.h"
#include "quiet.h"
#include "time_arg.h"

namespace tool {

namespace {
std::vector<command>& registry() {
  static std::vector<command> r;
  return r;
}

void help(int fd) {
  // One write: a reader that stops early (head, grep -q) costs no half-written lines.
  std::string text =
      "usage: ringrec [--root DIR] [-v] COMMAND [ARGS]   (ringrec COMMAND --help for one)\n"
      "  --root DIR   use the simulated board in DIR (or set RINGREC_ROOT)\n"
      "  -v           show the library's own diagnostic lines\n\ncommands:\n";
  for (const command& c : registry()) text += std::string("  ") + c.usage + "\n";
  dprintf(fd, "%s", text.c_str());
}
}  // namespace

bool add_command(const command& c) {
  registry().push_back(c);
  return true;
}

bool has_command(const char* name) {
  for (const command& c : registry())
    if (strcmp(c.name, name) == 0) return true;
  return false;
}

bool take_option(std::vector<std::string>& args, const std::string& name, std::string* value) {
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] == name && i + 1 < args.size()) {
      *value = args[i + 1];
      args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
      return true;
    }
    if (args[i].compare(0, name.size() + 1, name + "=") == 0) {
      *value = args[i].substr(name.size() + 1);
      args.erase(args.begin() + static_cast<long>(i));
      return true;
    }
  }
  return false;
}

std::vector<std::string> take_options(std::vector<std::string>& args, const std::string& name) {
  std::vector<std::string> out;
  std::string v;
  while (take_option(args, name, &v)) out.push_back(v);
  return out;
}

bool take_flag(std::vector<std::string>& args, const std::string& name) {
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] == name) {
      args.erase(args.begin() + static_cast<long>(i));
      return true;
    }
  }
  return false;
}

bool take_time(std::vector<std::string>& args, const std::string& name, long long* out,
               bool* given) {
  std::string v;
  *given = take_option(args, name, &v);
  if (!*given) return true;
  return parse_time(v, out) && *out >= 0 && *out <= INT32_MAX;
}

bool only_positional(const std::string& cmd, const std::vector<std::string>& args, int* rc) {
  for (const std::string& a : args)
    if (a.size() > 1 && a[0] == '-' && (a[1] == '-' || (a[1] < '0' || a[1] > '9'))) {
      *rc = usage_error(cmd, "unknown option '" + a + "'");
      return false;
    }
  return true;
}

int usage_error(const std::string& cmd, const std::string& msg) {
  err("%s", msg.c_str());
  for (const command& c : registry())
    if (cmd == c.name) dprintf(err_fd(), "usage: ringrec %s\n", c.usage);
  return 2;
}

void progress(const char* what, double done, double total) {
  if (!isatty(err_fd()) || total <= 0) return;
  int width = 40;
  double f = done / total;
  if (f > 1) f = 1;
  int fill = static_cast<int>(f * width);
  dprintf(err_fd(), "\r%-12s [%.*s%*s] %3d%%", what, fill,
          "########################################", width - fill, "", static_cast<int>(f * 100));
}

void progress_end() {
  if (isatty(err_fd())) dprintf(err_fd(), "\n");
}

}  // namespace tool

namespace {

bool asks_help(const std::vector<std::string>& args) {
  for (const std::string& a : args)
    if (a == "--help" || a == "-h") return true;
  return false;
}

const char* const kSyntax =
    "TIME: seconds since 1970 or \"YYYY-MM-DD HH:MM[:SS]\" (UTC); channels: a list from 0 "
    "(--ch 0,2,5)\n";

int run(const std::vector<std::string>& args) {
  // Two-word commands ("sim create") first, then one-word ones.
  for (int words = 2; words >= 1; words--) {
    if (static_cast<int>(args.size()) < words) continue;
    std::string name = args[0];
    if (words == 2) name += " " + args[1];
    for (const tool::command& c : tool::registry()) {
      if (name == c.name) {
        std::vector<std::string> rest(args.begin() + words, args.end());
        if (asks_help(rest)) {
          printf("usage: ringrec %s\n%s", c.usage, kSyntax);
          return 0;
        }
        return c.fn(rest);
      }
    }
  }
  // The first word of two-word commands ("sim"): their usage lines.
  std::string group = args[0] + " ";
  std::string lines;
  for (const tool::command& c : tool::registry())
    if (strncmp(c.name, group.c_str(), group.size()) == 0)
      lines += std::string("usage: ringrec ") + c.usage + "\n";
  if (!lines.empty()) {
    bool help = asks_help(args);
    if (!help) tool::err("'%s' needs a subcommand", args[0].c_str());
    dprintf(help ? 1 : tool::err_fd(), "%s", lines.c_str());
    return help ? 0 : 2;
  }
  tool::err("unknown command '%s'", args[0].c_str());
  tool::help(tool::err_fd());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string root;
  if (tool::take_option(args, "--root", &root)) setenv("RINGREC_ROOT", root.c_str(), 1);
  bool verbose = false;
  while (tool::take_flag(args, "-v") || tool::take_flag(args, "--verbose")) verbose = true;
  tool::set_verbose(verbose);
  if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
    tool::help(args.empty() ? 2 : 1);
    return args.empty() ? 2 : 0;
  }
  int rc;
  {
    tool::quiet q;
    rc = run(args);
    fflush(stdout);
    int lines = tool::quiet::captured_lines();
    if (rc == 1 && lines > 0)
      tool::err("(the library wrote %d diagnostic line%s; -v shows them)", lines,
                lines == 1 ? "" : "s");
  }
  return rc;
}
