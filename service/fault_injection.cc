#include "service/fault_injection.h"

#include <algorithm>
#include <thread>

namespace nembra {

FaultInjection::FaultInjection(FaultOptions options)
    : options_(options), random_(std::random_device{}()) {}

void FaultInjection::delay() const {
  if (options_.latencyMs > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options_.latencyMs));
  }
}

bool FaultInjection::shouldFail() {
  if (options_.failRate <= 0.0) return false;
  std::lock_guard lock(mutex_);
  return std::uniform_real_distribution<double>(0.0, 1.0)(random_) < options_.failRate;
}

bool FaultInjection::pace(std::chrono::steady_clock::time_point start, uint64_t transferred) const {
  if (options_.throttleBps == 0) return !stopping_;
  auto due = start + std::chrono::microseconds(transferred * 1000000 / options_.throttleBps);
  // In slices, so that a stop is noticed within one.
  while (!stopping_ && std::chrono::steady_clock::now() < due) {
    std::this_thread::sleep_until(
        std::min(due, std::chrono::steady_clock::now() + std::chrono::milliseconds(100)));
  }
  return !stopping_;
}

void FaultInjection::cutConnection(httplib::Response& response) {
  response.status = 500;
  response.set_header("Connection", "close");
  response.set_content_provider(1, "application/octet-stream",
                                [](size_t, size_t, httplib::DataSink&) { return false; });
}

}  // namespace nembra
