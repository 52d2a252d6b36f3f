// An incremental multipart/form-data reader: bytes go in as they arrive from the socket, part
// headers and part bodies come out through callbacks, and nothing but a delimiter's length of
// body is ever held back. Uploads of any size pass through it without being buffered.
//
// Lenient where clients differ and strict where it matters: a Content-Disposition may end in a
// stray ';' (the SDK writes `filename="video.mp4";`), parameters may be quoted or not, header
// names are case-insensitive; but a part's body ends only at CRLF "--" boundary, and a body that
// stops before the closing delimiter is an error.
//
// Threading: one instance per body, used by one thread.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nembra {

struct MultipartPart {
  std::string name;  // the Content-Disposition name
  std::optional<std::string> filename;
  std::string contentType;  // empty when the part has none
  std::vector<std::pair<std::string, std::string>> headers;
};

class MultipartStreamParser {
 public:
  enum class Status {
    Ok,         // more input welcome
    Done,       // the closing delimiter was read; the rest is ignored
    Malformed,  // the body is not multipart with this boundary (see error())
    Stopped,    // a callback returned false
  };

  // Each callback returns false to stop reading. Data arrives between onPartBegin and onPartEnd
  // in as many pieces as the input came in.
  struct Callbacks {
    std::function<bool(const MultipartPart&)> onPartBegin;
    std::function<bool(const char* data, size_t size)> onPartData;
    std::function<bool()> onPartEnd;
  };

  // REQUIRES: |boundary| is 1 to 200 characters (see boundaryFromContentType).
  MultipartStreamParser(std::string boundary, Callbacks callbacks);
  MultipartStreamParser(const MultipartStreamParser&) = delete;
  MultipartStreamParser& operator=(const MultipartStreamParser&) = delete;

  Status feed(const char* data, size_t size);
  // The input has ended: Done when the closing delimiter was seen, Malformed otherwise.
  Status finish();

  Status status() const { return status_; }
  const std::string& error() const { return error_; }

  // The boundary parameter of a multipart/form-data Content-Type, unquoted; nothing when the type
  // is another or the boundary is missing or longer than 200 characters.
  static std::optional<std::string> boundaryFromContentType(std::string_view contentType);

  // Reads a Content-Disposition value into |part|'s name and filename; false when it is not
  // form-data or names nothing.
  static bool parseContentDisposition(std::string_view value, MultipartPart& part);

  // Part headers larger than this are refused.
  static constexpr size_t kMaxHeaderBytes = 16 * 1024;

 private:
  enum class State { Preamble, AfterDelimiter, Headers, Body, Epilogue };

  // Parses what it can of |input|, setting status_; returns how much of it was used.
  size_t process(std::string_view input);
  Status fail(std::string message);
  size_t findDelimiter(std::string_view text) const;
  bool parseHeaders(std::string_view block, MultipartPart& part);

  const std::string bodyDelimiter_;  // CRLF "--" boundary
  Callbacks callbacks_;
  State state_ = State::Preamble;
  Status status_ = Status::Ok;
  std::string error_;
  std::string pending_;  // bytes received and not yet consumed (a delimiter's length, in a body)
};

}  // namespace nembra
