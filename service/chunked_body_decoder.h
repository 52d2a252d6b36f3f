// Decodes a chunked request body (RFC 9112 section 7.1) as it arrives: chunk data comes out
// through a callback as it is read, nothing of it is held back, and the framing around it is
// read within fixed bounds: a chunk-size line (size and extensions) of at most kMaxLineBytes,
// a size of at most 15 hex digits, and a trailer section of at most kMaxTrailerBytes. Anything
// else is refused with a message.
//
// Threading: one instance per body, used by one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace nembra {

class ChunkedBodyDecoder {
 public:
  enum class Status {
    NeedMore,  // the body goes on: decode the next bytes
    Done,      // the last chunk and the trailer section are read
    Failed,    // not a chunked body (error())
    Stopped,   // the sink returned false
  };

  // Receives chunk data; returns false to stop decoding.
  using Sink = std::function<bool(const char* data, size_t size)>;

  static constexpr size_t kMaxLineBytes = 4096;
  static constexpr size_t kMaxTrailerBytes = 16 * 1024;
  // 15 hex digits stay below 2^60: no size can overflow.
  static constexpr size_t kMaxSizeDigits = 15;

  // Decodes from the start of |data|. |consumed| tells how much of it was used: all of it on
  // NeedMore; on Done, the bytes after the body's end are left (they begin the next request).
  Status decode(const char* data, size_t size, size_t& consumed, const Sink& sink);

  // Chunk data bytes decoded so far.
  uint64_t dataBytes() const { return dataBytes_; }
  const std::string& error() const { return error_; }

 private:
  enum class State { Size, Data, DataEnd, Trailer, Done, Failed };

  // Collects one line up to its LF; true once it is whole (in line_, without CRLF).
  bool readLine(const char* data, size_t size, size_t& position);
  Status fail(std::string message);
  bool parseSizeLine();

  State state_ = State::Size;
  uint64_t remaining_ = 0;  // of the current chunk
  uint64_t dataBytes_ = 0;
  size_t trailerBytes_ = 0;
  std::string line_;
  bool lineTooLong_ = false;
  std::string error_;
};

}  // namespace nembra
