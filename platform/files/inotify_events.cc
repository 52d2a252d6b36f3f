#include "platform/files/inotify_events.h"

#include <sys/inotify.h>

#include <cstring>

namespace nembra {

std::vector<std::string> InotifyEvents::names(std::span<const uint8_t> buffer) {
  std::vector<std::string> names;
  while (buffer.size() >= sizeof(inotify_event)) {
    // Copied out: the buffer need not be aligned for the header.
    inotify_event event;
    std::memcpy(&event, buffer.data(), sizeof event);
    buffer = buffer.subspan(sizeof event);
    if (event.len > buffer.size()) break;
    const auto* name = reinterpret_cast<const char*>(buffer.data());
    const size_t length = ::strnlen(name, event.len);
    if (length > 0) names.emplace_back(name, length);
    buffer = buffer.subspan(event.len);
  }
  return names;
}

}  // namespace nembra
