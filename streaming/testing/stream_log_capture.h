// Test helper: collects the streaming log while in scope, so tests can assert exact lines.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "streaming/stream_log.h"

namespace nembra {

class StreamLogCapture {
 public:
  StreamLogCapture() {
    previous_ = StreamLog::SetSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
      changed_.notify_all();
    });
  }
  ~StreamLogCapture() { StreamLog::SetSink(previous_); }
  StreamLogCapture(const StreamLogCapture&) = delete;
  StreamLogCapture& operator=(const StreamLogCapture&) = delete;

  std::vector<std::string> Lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

  // Waits until |line| has been logged; false after |timeout|.
  bool WaitFor(const std::string& line,
               std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    });
  }

  size_t Count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> lines_;
  StreamLog::Sink previous_;
};

}  // namespace nembra
