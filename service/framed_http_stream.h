// The stream the HTTP library's request handling reads one request from on the API port: the
// head exactly as it was received (already checked by HttpHeadParser), then the body as that
// head frames it and not a byte beyond, so the library can never read a body another way than
// the parser decided. The body keeps a BodyPace; a client that falls behind is answered 408 here
// and the library's own answer is dropped. Writes are gathered into blocks.
//
// Threading: one request, on the worker serving it.
#pragma once

#include <httplib.h>

#include <functional>
#include <string>

#include "service/body_pace.h"
#include "service/chunked_body_decoder.h"
#include "service/http_head_parser.h"
#include "service/socket_stream.h"

namespace nembra {

class FramedHttpStream final : public httplib::Stream {
 public:
  // |timedOut| sends the answer to a body that came too slowly (the stream is dead after it).
  FramedHttpStream(SocketStream& stream, const HttpRequestHead& head, std::string rawHead,
                   BodyPaceLimits pace, std::chrono::milliseconds writeTimeout,
                   std::function<void(SocketStream&)> timedOut);

  bool is_readable() const override;
  bool is_writable() const override { return !dead_; }
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return stream_.pollHandle(); }

  // Sends what write() gathered; false when the connection broke.
  bool flush();
  // Whether the body was read to its end with its framing intact.
  bool bodyFinished() const { return bodyFinished_; }
  // Whether the connection broke or was answered here.
  bool dead() const { return dead_; }

 private:
  ssize_t readBody(char* ptr, size_t size);
  bool more();

  SocketStream& stream_;
  const HttpRequestHead& head_;
  const std::string rawHead_;
  size_t headRead_ = 0;
  BodyPace pace_;
  const std::chrono::milliseconds writeTimeout_;
  std::function<void(SocketStream&)> timedOut_;
  uint64_t remaining_ = 0;  // of a Content-Length body
  ChunkedBodyDecoder chunked_;
  bool bodyFinished_ = false;
  bool broken_ = false;  // the chunked framing failed
  bool dead_ = false;
  std::string out_;
};

}  // namespace nembra
