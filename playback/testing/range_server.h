// A loopback server of one file at /videos/<token>/video.mp4 (and any other path) whose way of
// answering Range requests a test chooses: honoured, ignored (the whole file as a 206 or a
// 200), cut off mid-body, or refused with a status. It counts the body bytes it sent.
#pragma once

#include <atomic>
#include <charconv>
#include <string>

#include "platform/http/testing/http_test_support.h"

namespace nembra::testing {

enum class RangeMode { Honour, WholeAs206, WholeAs200, CloseMidBody, NotFound };

class RangeServer {
 public:
  explicit RangeServer(std::string body, RangeMode mode = RangeMode::Honour)
      : body_(std::move(body)), mode_(mode) {
    // One request per connection: a pooled connection would hold the server's stop().
    server_.server().set_keep_alive_max_count(1);
    server_.on("GET", ".*", [this](const httplib::Request& request, httplib::Response& reply) {
      answer(request, reply);
    });
    server_.start();
  }

  std::string url(const std::string& path) const { return server_.url(path); }
  std::vector<ReceivedRequest> requests() const { return server_.requests(); }
  std::vector<std::string> ranges() const {
    std::vector<std::string> result;
    for (const auto& request : server_.requests()) result.push_back(request.header("Range"));
    return result;
  }
  uint64_t bytesSent() const { return sent_->load(); }
  void setMode(RangeMode mode) { mode_ = mode; }
  // Each piece of a body waits this long first: lets a test act while a download runs.
  void setPieceDelay(std::chrono::milliseconds delay) { delay_ = delay; }

 private:
  void answer(const httplib::Request& request, httplib::Response& reply) {
    // The ranges are answered here; cpp-httplib must not apply them a second time.
    const_cast<httplib::Request&>(request).ranges.clear();
    RangeMode mode = mode_.load();
    if (mode == RangeMode::NotFound) {
      reply.status = 404;
      reply.set_content("{\"error\":\"not found\"}", "application/json");
      return;
    }
    const uint64_t size = body_.size();
    uint64_t first = 0, last = size - 1;
    std::string range = request.get_header_value("Range");
    if (range.rfind("bytes=", 0) == 0 && mode == RangeMode::Honour) {
      std::string spec = range.substr(6);
      size_t dash = spec.find('-');
      std::from_chars(spec.data(), spec.data() + dash, first);
      if (dash + 1 < spec.size())
        std::from_chars(spec.data() + dash + 1, spec.data() + spec.size(), last);
      last = std::min(last, size - 1);
    }
    if (mode != RangeMode::WholeAs200) {
      reply.status = 206;
      reply.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                            std::to_string(last) + "/" + std::to_string(size));
    }
    reply.set_header("Accept-Ranges", "bytes");
    const uint64_t length = last - first + 1;
    const bool cut = mode == RangeMode::CloseMidBody;
    auto sent = sent_;
    auto delay = delay_.load();
    reply.set_content_provider(
        length, "video/mp4",
        [this, first, length, cut, sent, delay](size_t offset, size_t, httplib::DataSink& sink) {
          if (cut && offset >= length / 2) return false;
          if (delay.count() > 0) std::this_thread::sleep_for(delay);
          size_t piece = std::min<size_t>(length - offset, 32 << 10);
          if (!sink.write(body_.data() + first + offset, piece)) return false;
          sent->fetch_add(piece);
          return true;
        });
  }

  const std::string body_;
  std::atomic<RangeMode> mode_;
  std::atomic<std::chrono::milliseconds> delay_{std::chrono::milliseconds(0)};
  std::shared_ptr<std::atomic<uint64_t>> sent_ = std::make_shared<std::atomic<uint64_t>>(0);
  HttpTestServer server_;
};

// |size| bytes that differ from one offset to the next.
inline std::string patternBytes(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251) % 251);
  return bytes;
}

}  // namespace nembra::testing
