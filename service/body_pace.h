// The least pace a request body must keep: after a grace period, the time spent waiting for the
// client may not exceed what its bytes so far allow at the minimum rate. Only time spent waiting
// on the socket counts, so a server that reads slowly on purpose (a throttled transfer) or
// writes to a slow disk never blames the client for it. A client trickling a body holds one
// worker for a bounded time instead of for as long as it likes.
//
// Threading: one instance per body, on the thread reading it.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace nembra {

struct BodyPaceLimits {
  std::chrono::milliseconds grace{10000};
  uint64_t minBytesPerSecond = 1024;
  // Longest single wait for the next bytes, however far ahead of the pace the client is.
  std::chrono::milliseconds stall{60000};
};

class BodyPace {
 public:
  explicit BodyPace(BodyPaceLimits limits) : limits_(limits) {}

  // How long the next read may wait; zero or less when the client has fallen behind.
  std::chrono::milliseconds nextWait() const {
    auto earned = limits_.grace;
    if (limits_.minBytesPerSecond > 0) {
      earned += std::chrono::milliseconds(bytes_ * 1000 / limits_.minBytesPerSecond);
    } else {
      return limits_.stall;
    }
    return std::min(limits_.stall, earned - waited_);
  }
  // After a wait of |waited| that brought |bytes| (zero on a timeout).
  void record(std::chrono::milliseconds waited, size_t bytes) {
    waited_ += waited;
    bytes_ += bytes;
  }
  // Whether the last timeout came from the pace rather than from the stall limit.
  bool behind() const { return nextWait().count() <= 0; }

 private:
  const BodyPaceLimits limits_;
  std::chrono::milliseconds waited_{0};
  uint64_t bytes_ = 0;
};

}  // namespace nembra
