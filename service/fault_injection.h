// Faults a test or a demo can ask the service for: a delay before every answer, a share of
// requests failed with 503, uploads whose connection is cut after a number of body bytes, and
// storage and CDN transfers held to a rate.
//
// Threading: any thread, several at once.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>

#include "service/service_options.h"

namespace nembra {

class FaultInjection {
 public:
  explicit FaultInjection(FaultOptions options);

  const FaultOptions& options() const { return options_; }

  // Sleeps for the configured latency.
  void delay() const;
  // True for the configured share of calls.
  bool shouldFail();
  // Whether an upload that has read |bodyBytes| must now lose its connection.
  bool cutsUploadAt(uint64_t bodyBytes) const {
    return options_.cutUploadAfter > 0 && bodyBytes >= options_.cutUploadAfter;
  }
  // Sleeps until |transferred| bytes since |start| are within the throttle rate. False once
  // transfers are being stopped: the caller ends its transfer then.
  bool pace(std::chrono::steady_clock::time_point start, uint64_t transferred) const;
  // Ends throttled transfers at their next block, so a stopping service does not wait for them.
  void stopTransfers() { stopping_ = true; }

  // Makes |response| end the connection midway: its head goes out promising a body that never
  // comes, so the client sees the transfer fail rather than a status it could read as an answer.
  static void cutConnection(httplib::Response& response);

 private:
  const FaultOptions options_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::mt19937_64 random_;  // guarded by mutex_
};

}  // namespace nembra
