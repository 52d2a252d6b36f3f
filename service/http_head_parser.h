// Reads the head of an HTTP/1.x request (request line and header fields up to the blank line)
// from the bytes received so far, strictly: CRLF line ends, token methods and header names, an
// origin-form target, one Host, no folded lines, and body framing that cannot be read two ways
// (Content-Length and Transfer-Encoding together, or differing Content-Lengths, are refused). A
// head that has not ended within kMaxHeadBytes is refused too, so a client cannot make the
// server hold more than that per connection.
//
// Threading: pure; one instance per connection, on the thread serving it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nembra {

struct HttpRequestHead {
  enum class Body { None, Length, Chunked };

  std::string method;  // "POST"
  std::string target;  // as sent: "/storage/bucket?x=1"
  std::string path;    // the target up to its '?'
  int minorVersion = 1;
  std::vector<std::pair<std::string, std::string>> headers;  // names lower case, values trimmed

  Body body = Body::None;
  uint64_t contentLength = 0;   // when body is Length
  bool expectContinue = false;  // "Expect: 100-continue"
  bool keepAlive = true;        // the client lets the connection serve another request

  // The value of the header named |lowerName|; "" when absent.
  const std::string& header(std::string_view lowerName) const;
  bool hasHeader(std::string_view lowerName) const;
};

class HttpHeadParser {
 public:
  enum class Status {
    NeedMore,  // no complete head yet: read more and call again with all of it
    Done,      // the head is read
    Failed,    // not a request this server serves (errorStatus(), error())
  };

  static constexpr size_t kMaxHeadBytes = 16 * 1024;
  static constexpr size_t kMaxHeaderCount = 100;

  // Looks for a complete head at the start of |input|. On Done, |head| holds it and |consumed|
  // its size up to and with the blank line: the body, if any, follows.
  Status parse(std::string_view input, HttpRequestHead& head, size_t& consumed);

  // The status to answer a failed head with: 400, 431 (too large), 501 (an unknown transfer
  // coding), 505 (not HTTP/1.x) or 417 (an unknown expectation).
  int errorStatus() const { return errorStatus_; }
  const std::string& error() const { return error_; }

 private:
  Status fail(int status, std::string message);
  bool parseRequestLine(std::string_view line, HttpRequestHead& head);
  bool parseHeaderLine(std::string_view line, HttpRequestHead& head);
  bool interpret(HttpRequestHead& head);

  int errorStatus_ = 0;
  std::string error_;
};

}  // namespace nembra
