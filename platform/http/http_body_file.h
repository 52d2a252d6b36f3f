// A file sent as a request body, read block by block so that a file of any size is never held
// in memory, optionally framed by bytes sent before and after it (a multipart form around the
// file goes out without a copy of the file being made first).
//
// Threading: opened on the caller's thread, then read only by the network thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

class HttpBodyFile {
 public:
  // Largest block handed to the network in one read.
  static constexpr size_t kBlockSize = 0x10000;

  // Opens |path| and fixes the body length at |head|, the file's present size and |tail|.
  // Returns null and sets |error| (a File error) when it cannot be opened or is not a regular
  // file.
  static std::unique_ptr<HttpBodyFile> open(const std::string& path, OptionalError& error,
                                            std::string head = {}, std::string tail = {});

  ~HttpBodyFile();
  HttpBodyFile(const HttpBodyFile&) = delete;
  HttpBodyFile& operator=(const HttpBodyFile&) = delete;

  int64_t size() const;

  // Copies the next block (at most min(capacity, kBlockSize) bytes) into |buffer| and returns
  // its length; 0 once size() bytes have been read. A file that ends early (truncated while
  // sending) or fails to read returns 0 with |error| set, so a short body is never sent as if
  // it were whole.
  size_t read(char* buffer, size_t capacity, OptionalError& error);
  // Moves the read position back to |offset| (a redirect resends the body). False when it can't.
  bool seek(int64_t offset);

 private:
  HttpBodyFile(int fd, std::string path, int64_t fileSize, std::string head, std::string tail);

  // Copies |length| bytes of the file from |at| (an offset in the file) into |buffer|.
  bool readFile(char* buffer, size_t length, int64_t at, OptionalError& error);

  const int fd_;
  const std::string path_;
  const int64_t fileSize_;
  const std::string head_;
  const std::string tail_;
  int64_t offset_ = 0;
};

}  // namespace nembra
