#include "api/vast_tracker.h"

#include <random>

#include "nembra/http_task.h"
#include "platform/http/http_client.h"

namespace nembra {
namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::string newCacheBuster() {
  static thread_local std::mt19937 random{std::random_device{}()};
  return std::to_string(10000000 + random() % 90000000);  // eight digits, as ad servers expect
}

}  // namespace

VastTracker::VastTracker(HttpClient& http, std::map<VastEvent, std::vector<std::string>> tracking,
                         std::vector<std::string> errorUrls)
    : http_(http), tracking_(std::move(tracking)), errorUrls_(std::move(errorUrls)) {}

bool VastTracker::fire(VastEvent event) {
  {
    std::lock_guard lock(mutex_);
    if (!fired_.insert(event).second) return false;
  }
  auto found = tracking_.find(event);
  if (found != tracking_.end()) send(found->second, std::nullopt);
  return true;
}

void VastTracker::progress(double position, double duration) {
  fire(VastEvent::Start);
  if (duration <= 0) return;
  const std::pair<double, VastEvent> marks[] = {{0.25, VastEvent::FirstQuartile},
                                                {0.50, VastEvent::Midpoint},
                                                {0.75, VastEvent::ThirdQuartile}};
  for (const auto& [fraction, event] : marks) {
    if (position >= duration * fraction) fire(event);
  }
}

bool VastTracker::fireError(VastErrorCode code) {
  {
    std::lock_guard lock(mutex_);
    if (errorFired_) return false;
    errorFired_ = true;
  }
  send(errorUrls_, code);
  return true;
}

std::string VastTracker::expandMacros(const std::string& url, std::optional<VastErrorCode> code,
                                      const std::string& cacheBuster) {
  std::string expanded = url;
  if (code) replaceAll(expanded, "[ERRORCODE]", std::to_string(static_cast<int>(*code)));
  replaceAll(expanded, "[CACHEBUSTING]", cacheBuster);
  return expanded;
}

void VastTracker::send(const std::vector<std::string>& urls, std::optional<VastErrorCode> code) {
  const std::string cacheBuster = newCacheBuster();
  for (const auto& url : urls) {
    HttpRequest request;
    request.url = expandMacros(url, code, cacheBuster);
    // The client keeps a started task until it completes; nothing waits for the answer.
    http_.dataTask(std::move(request), HttpTaskEvents{})->resume();
  }
}

}  // namespace nembra
