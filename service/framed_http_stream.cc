#include "service/framed_http_stream.h"

#include <algorithm>
#include <cstring>

namespace nembra {
namespace {

// Gathered writes go out in blocks of about this size.
constexpr size_t kWriteBlock = 64 * 1024;

}  // namespace

FramedHttpStream::FramedHttpStream(SocketStream& stream, const HttpRequestHead& head,
                                   std::string rawHead, BodyPaceLimits pace,
                                   std::chrono::milliseconds writeTimeout,
                                   std::function<void(SocketStream&)> timedOut)
    : stream_(stream),
      head_(head),
      rawHead_(std::move(rawHead)),
      pace_(pace),
      writeTimeout_(writeTimeout),
      timedOut_(std::move(timedOut)) {
  remaining_ = head_.body == HttpRequestHead::Body::Length ? head_.contentLength : 0;
  bodyFinished_ = head_.body == HttpRequestHead::Body::None;
}

bool FramedHttpStream::is_readable() const {
  return headRead_ < rawHead_.size() || !stream_.buffered().empty();
}

ssize_t FramedHttpStream::read(char* ptr, size_t size) {
  // Whatever was written goes out before waiting on the client ("100 Continue" among it).
  if (!flush()) return -1;
  if (headRead_ < rawHead_.size()) {
    size_t take = std::min(size, rawHead_.size() - headRead_);
    std::memcpy(ptr, rawHead_.data() + headRead_, take);
    headRead_ += take;
    return static_cast<ssize_t>(take);
  }
  return readBody(ptr, size);
}

ssize_t FramedHttpStream::readBody(char* ptr, size_t size) {
  if (bodyFinished_) return 0;
  if (broken_ || size == 0) return -1;
  if (stream_.buffered().empty() && !more()) return -1;
  std::string_view block = stream_.buffered();
  size_t take = std::min(size, block.size());
  if (head_.body == HttpRequestHead::Body::Length) {
    take = static_cast<size_t>(std::min<uint64_t>(take, remaining_));
    remaining_ -= take;
    if (remaining_ == 0) bodyFinished_ = true;
  } else {
    // The library decodes the chunks itself; this decoder only finds where they end, under the
    // same bounds as the storage port's.
    size_t consumed = 0;
    auto status =
        chunked_.decode(block.data(), take, consumed, [](const char*, size_t) { return true; });
    if (status == ChunkedBodyDecoder::Status::Failed) {
      broken_ = true;
      return -1;
    }
    if (status == ChunkedBodyDecoder::Status::Done) bodyFinished_ = true;
    take = consumed;
  }
  std::memcpy(ptr, block.data(), take);
  stream_.consume(take);
  return static_cast<ssize_t>(take);
}

bool FramedHttpStream::more() {
  auto wait = pace_.nextWait();
  auto before = std::chrono::steady_clock::now();
  auto read = wait.count() > 0 ? stream_.fill(wait) : SocketStream::Read::TimedOut;
  pace_.record(std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - before),
               read == SocketStream::Read::Data ? stream_.buffered().size() : 0);
  if (read == SocketStream::Read::Data) return true;
  if (read == SocketStream::Read::TimedOut && timedOut_) timedOut_(stream_);
  dead_ = true;
  return false;
}

ssize_t FramedHttpStream::write(const char* ptr, size_t size) {
  if (dead_) return -1;
  out_.append(ptr, size);
  if (out_.size() >= kWriteBlock && !flush()) return -1;
  return static_cast<ssize_t>(size);
}

bool FramedHttpStream::flush() {
  if (dead_) return false;
  if (out_.empty()) return true;
  bool sent = stream_.send(out_, writeTimeout_);
  out_.clear();
  if (!sent) dead_ = true;
  return sent;
}

void FramedHttpStream::get_remote_ip_and_port(std::string& ip, int& port) const {
  ip = stream_.peerAddress();
  port = 0;
}

void FramedHttpStream::get_local_ip_and_port(std::string& ip, int& port) const {
  ip.clear();
  port = 0;
}

}  // namespace nembra
