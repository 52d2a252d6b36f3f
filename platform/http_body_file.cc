#include "platform/http_body_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nembra {

std::unique_ptr<HttpBodyFile> HttpBodyFile::open(const std::string& path, OptionalError& error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int code = errno;
    error = Error::file("cannot open upload file " + path + ": " + std::strerror(code), code);
    return nullptr;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    error = Error::file("upload file " + path + " is not a regular file");
    return nullptr;
  }
  return std::unique_ptr<HttpBodyFile>(new HttpBodyFile(fd, path, info.st_size));
}

HttpBodyFile::HttpBodyFile(int fd, std::string path, int64_t size)
    : fd_(fd), path_(std::move(path)), size_(size) {}

HttpBodyFile::~HttpBodyFile() { ::close(fd_); }

size_t HttpBodyFile::read(char* buffer, size_t capacity, OptionalError& error) {
  size_t wanted = std::min({capacity, kBlockSize, static_cast<size_t>(size_ - offset_)});
  if (wanted == 0) return 0;
  ssize_t got;
  do {
    got = ::pread(fd_, buffer, wanted, offset_);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    int code = errno;
    error = Error::file("cannot read upload file " + path_ + ": " + std::strerror(code), code);
    return 0;
  }
  if (got == 0) {
    error = Error::file("upload file " + path_ + " ended after " + std::to_string(offset_) +
                        " of " + std::to_string(size_) + " bytes; it changed while being sent");
    return 0;
  }
  offset_ += got;
  return static_cast<size_t>(got);
}

bool HttpBodyFile::seek(int64_t offset) {
  if (offset < 0 || offset > size_) return false;
  offset_ = offset;
  return true;
}

}  // namespace nembra
