// Reads one request's body off its connection, as its head frames it (Content-Length or
// chunked), and hands it on in the blocks the socket delivered: no copy between the socket's
// buffer and the receiver. Sends "100 Continue" before the first read when the client waits
// for it, so a request refused before its body is read never has the body sent at all. The body
// must keep BodyPace's minimum rate.
//
// Threading: on the thread serving the connection.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "service/body_pace.h"
#include "service/chunked_body_decoder.h"
#include "service/http_head_parser.h"
#include "service/socket_stream.h"

namespace nembra {

class HttpBodyReader {
 public:
  // Receives body bytes; returns false to stop reading.
  using Receiver = std::function<bool(const char* data, size_t size)>;

  // |blockBytes| caps each read from the socket (smaller blocks pace a throttled transfer more
  // evenly); |writeTimeout| bounds sending "100 Continue".
  HttpBodyReader(SocketStream& stream, const HttpRequestHead& head, BodyPaceLimits pace,
                 std::chrono::milliseconds writeTimeout,
                 size_t blockBytes = SocketStream::kBufferBytes);

  // Reads the body to its end; true when all of it went to |receiver|. False when the receiver
  // stopped, the client went away or stalled, or the chunked framing is broken (error()).
  bool read(const Receiver& receiver);

  // Whether the body was read to its end: only then may the connection carry another request.
  bool finished() const { return finished_; }
  // Whether "100 Continue" went out: the client is sending the body since.
  bool continueSent() const { return continueSent_; }
  const std::string& error() const { return error_; }
  // Whether reading stopped because the client fell behind the pace or stalled.
  bool timedOut() const { return timedOut_; }

 private:
  bool readLength(const Receiver& receiver);
  bool readChunked(const Receiver& receiver);
  // Buffers more of the body; false (with error_) when none comes.
  bool more();

  SocketStream& stream_;
  const HttpRequestHead& head_;
  BodyPace pace_;
  const std::chrono::milliseconds writeTimeout_;
  const size_t blockBytes_;
  bool continueSent_ = false;
  bool finished_ = false;
  bool timedOut_ = false;
  std::string error_;
};

}  // namespace nembra
