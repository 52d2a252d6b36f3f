#include "api/console_log.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace nembra {

namespace {

void writeToStandardError(const std::string& line) {
  std::string text = line;
  if (text.empty() || text.back() != '\n') text += '\n';
  // One write per line, so lines from several threads do not interleave.
  std::fwrite(text.data(), 1, text.size(), stderr);
}

struct Console {
  std::mutex mutex;
  ConsoleLogSink sink = writeToStandardError;  // guarded by mutex
  std::atomic<bool> enabled{true};
};

Console& console() {
  static Console instance;
  return instance;
}

}  // namespace

void consoleLog(const std::string& line) {
  Console& c = console();
  if (!c.enabled.load()) return;
  ConsoleLogSink sink;
  {
    std::lock_guard lock(c.mutex);
    sink = c.sink;
  }
  sink(line);
}

void setConsoleLogSink(ConsoleLogSink sink) {
  Console& c = console();
  std::lock_guard lock(c.mutex);
  c.sink = sink ? std::move(sink) : ConsoleLogSink(writeToStandardError);
}

void setConsoleLogEnabled(bool enabled) { console().enabled.store(enabled); }

bool consoleLogEnabled() { return console().enabled.load(); }

}  // namespace nembra
