// Resolving the DEV argument of the volume commands.
#ifndef RINGREC_TOOL_VOLUME_ARG_H
#define RINGREC_TOOL_VOLUME_ARG_H

#include <string>

namespace tool {

// DEV is an image or device path, or a disk name ("sda") on the board selected with
// --root / RINGREC_ROOT. Returns the path to hand to the library (a logical "/dev/sda"
// on a board), or an empty string after printing what was wrong.
std::string resolve_dev(const std::string& dev);

}  // namespace tool

#endif
