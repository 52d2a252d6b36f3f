#include "streaming/stream_log.h"

#include <cstdio>
#include <mutex>
#include <utility>

namespace nembra {

namespace {

std::mutex& SinkMutex() {
  static std::mutex mutex;
  return mutex;
}

StreamLog::Sink& CurrentSink() {
  static StreamLog::Sink sink;
  return sink;
}

}  // namespace

StreamLog::Sink StreamLog::SetSink(Sink sink) {
  std::lock_guard lock(SinkMutex());
  return std::exchange(CurrentSink(), std::move(sink));
}

void StreamLog::Write(const std::string& line) {
  // Held while the sink runs so lines from the sender and the receiver thread never interleave
  // and a sink being replaced is never called afterwards.
  std::lock_guard lock(SinkMutex());
  if (CurrentSink()) {
    CurrentSink()(line);
  } else {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
}

}  // namespace nembra
