// Walks arbitrary bytes as a buffer of inotify events: every name comes from inside the buffer,
// is not empty and holds no NUL.
#include <sys/inotify.h>

#include <cstdint>
#include <cstdlib>

#include "platform/files/inotify_events.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size_t used = 0;
  for (const std::string& name : nembra::InotifyEvents::names({data, size})) {
    if (name.empty() || name.find('\0') != std::string::npos) std::abort();
    used += sizeof(inotify_event) + name.size();
  }
  if (used > size) std::abort();
  return 0;
}
