#include "platform/http/http_body_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nembra {

std::unique_ptr<HttpBodyFile> HttpBodyFile::open(const std::string& path, OptionalError& error,
                                                 std::string head, std::string tail) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int code = errno;
    error = code == ENOENT
                ? Error::file("upload file " + path + " does not exist", code)
                : Error::file("cannot open upload file " + path + ": " + std::strerror(code), code);
    return nullptr;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    error = Error::file("upload file " + path + " is not a regular file");
    return nullptr;
  }
  return std::unique_ptr<HttpBodyFile>(
      new HttpBodyFile(fd, path, info.st_size, std::move(head), std::move(tail)));
}

HttpBodyFile::HttpBodyFile(int fd, std::string path, int64_t fileSize, std::string head,
                           std::string tail)
    : fd_(fd),
      path_(std::move(path)),
      fileSize_(fileSize),
      head_(std::move(head)),
      tail_(std::move(tail)) {}

HttpBodyFile::~HttpBodyFile() { ::close(fd_); }

int64_t HttpBodyFile::size() const {
  return static_cast<int64_t>(head_.size()) + fileSize_ + static_cast<int64_t>(tail_.size());
}

size_t HttpBodyFile::read(char* buffer, size_t capacity, OptionalError& error) {
  const size_t wanted = std::min({capacity, kBlockSize, static_cast<size_t>(size() - offset_)});
  const auto headSize = static_cast<int64_t>(head_.size());
  const int64_t fileEnd = headSize + fileSize_;
  size_t filled = 0;
  while (filled < wanted) {
    const int64_t at = offset_ + static_cast<int64_t>(filled);
    const size_t left = wanted - filled;
    size_t n;
    if (at < headSize) {
      n = std::min(left, static_cast<size_t>(headSize - at));
      std::memcpy(buffer + filled, head_.data() + at, n);
    } else if (at < fileEnd) {
      n = std::min(left, static_cast<size_t>(fileEnd - at));
      if (!readFile(buffer + filled, n, at - headSize, error)) return 0;
    } else {
      n = left;
      std::memcpy(buffer + filled, tail_.data() + (at - fileEnd), n);
    }
    filled += n;
  }
  offset_ += static_cast<int64_t>(wanted);
  return wanted;
}

bool HttpBodyFile::readFile(char* buffer, size_t length, int64_t at, OptionalError& error) {
  size_t filled = 0;
  while (filled < length) {
    ssize_t got = ::pread(fd_, buffer + filled, length - filled, at + static_cast<int64_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      int code = errno;
      error = Error::file("cannot read upload file " + path_ + ": " + std::strerror(code), code);
      return false;
    }
    if (got == 0) {
      error = Error::file("upload file " + path_ + " ended after " +
                          std::to_string(at + static_cast<int64_t>(filled)) + " of " +
                          std::to_string(fileSize_) + " bytes; it changed while being sent");
      return false;
    }
    filled += static_cast<size_t>(got);
  }
  return true;
}

bool HttpBodyFile::seek(int64_t offset) {
  if (offset < 0 || offset > size()) return false;
  offset_ = offset;
  return true;
}

}  // namespace nembra
