// The streaming core's event log: one line per event, a fixed prefix and a value
// ("chunk size set: 4096"). Lines go to standard output unless the host installs a sink.
#pragma once

#include <functional>
#include <string>

namespace nembra {

class StreamLog {
 public:
  // Receives each line without its line feed. May be called from any streaming thread, one
  // line at a time.
  using Sink = std::function<void(const std::string& line)>;

  // An empty sink restores standard output. Returns the previous sink (empty for stdout).
  static Sink SetSink(Sink sink);
  static void Write(const std::string& line);
};

}  // namespace nembra
