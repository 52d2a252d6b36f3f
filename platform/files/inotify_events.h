// The file names in a buffer of inotify events, as one read() of an inotify descriptor returns
// them: a fixed header per event, then its name padded with NULs to the header's length.
//
// Threading: pure; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace nembra {

class InotifyEvents {
 public:
  // The names in order, without their padding. Events without a name (those of the watched
  // directory itself) give none; a record that claims more bytes than the buffer holds ends the
  // walk, so nothing past the buffer is ever read.
  static std::vector<std::string> names(std::span<const uint8_t> buffer);
};

}  // namespace nembra
