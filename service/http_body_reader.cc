#include "service/http_body_reader.h"

#include <algorithm>

namespace nembra {

HttpBodyReader::HttpBodyReader(SocketStream& stream, const HttpRequestHead& head,
                               BodyPaceLimits pace, std::chrono::milliseconds writeTimeout,
                               size_t blockBytes)
    : stream_(stream),
      head_(head),
      pace_(pace),
      writeTimeout_(writeTimeout),
      blockBytes_(std::max<size_t>(blockBytes, 1)) {
  finished_ = head_.body == HttpRequestHead::Body::None;
}

bool HttpBodyReader::more() {
  if (head_.expectContinue && !continueSent_) {
    continueSent_ = true;
    if (!stream_.send("HTTP/1.1 100 Continue\r\n\r\n", writeTimeout_)) {
      error_ = "the connection broke";
      return false;
    }
  }
  auto wait = pace_.nextWait();
  auto before = std::chrono::steady_clock::now();
  auto read = wait.count() > 0 ? stream_.fill(wait, blockBytes_) : SocketStream::Read::TimedOut;
  size_t got = read == SocketStream::Read::Data ? stream_.buffered().size() : 0;
  pace_.record(std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - before),
               got);
  switch (read) {
    case SocketStream::Read::Data:
      return true;
    case SocketStream::Read::TimedOut:
      timedOut_ = true;
      error_ = "the client sent the body too slowly";
      return false;
    case SocketStream::Read::Full:
      error_ = "the body's framing overflows the receive buffer";
      return false;
    case SocketStream::Read::Closed:
    case SocketStream::Read::Failed:
      break;
  }
  error_ = "the client closed the connection before the end of the body";
  return false;
}

bool HttpBodyReader::read(const Receiver& receiver) {
  switch (head_.body) {
    case HttpRequestHead::Body::None:
      return true;
    case HttpRequestHead::Body::Length:
      return readLength(receiver);
    case HttpRequestHead::Body::Chunked:
      return readChunked(receiver);
  }
  return false;
}

bool HttpBodyReader::readLength(const Receiver& receiver) {
  uint64_t remaining = head_.contentLength;
  while (remaining > 0) {
    if (stream_.buffered().empty() && !more()) return false;
    std::string_view block = stream_.buffered();
    size_t take = static_cast<size_t>(std::min<uint64_t>(remaining, block.size()));
    remaining -= take;
    // Consumed first: whatever the receiver says, these bytes were read.
    stream_.consume(take);
    if (remaining == 0) finished_ = true;
    if (!receiver(block.data(), take)) return false;
  }
  finished_ = true;
  return true;
}

bool HttpBodyReader::readChunked(const Receiver& receiver) {
  ChunkedBodyDecoder decoder;
  for (;;) {
    if (stream_.buffered().empty() && !more()) return false;
    std::string_view block = stream_.buffered();
    size_t consumed = 0;
    auto status = decoder.decode(block.data(), block.size(), consumed, receiver);
    stream_.consume(consumed);
    switch (status) {
      case ChunkedBodyDecoder::Status::NeedMore:
        break;
      case ChunkedBodyDecoder::Status::Done:
        finished_ = true;
        return true;
      case ChunkedBodyDecoder::Status::Stopped:
        return false;
      case ChunkedBodyDecoder::Status::Failed:
        error_ = "the chunked body is malformed: " + decoder.error();
        return false;
    }
  }
}

}  // namespace nembra
