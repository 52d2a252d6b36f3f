#include "platform/files/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nembra {

std::unique_ptr<FileLock> FileLock::tryAcquire(const std::string& path, OptionalError* error) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    int code = errno;
    if (error)
      *error = Error::file("cannot open the lock file " + path + ": " + std::strerror(code), code);
    return nullptr;
  }
  // flock, not fcntl locks: those are per process, so a second lock in this process would
  // succeed, and closing any descriptor of the file would drop them.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int code = errno;
    ::close(fd);
    if (code != EWOULDBLOCK && error) {
      *error = Error::file("cannot lock " + path + ": " + std::strerror(code), code);
    }
    return nullptr;
  }
  return std::unique_ptr<FileLock>(new FileLock(path, fd));
}

FileLock::~FileLock() {
  // Removed while still held, so no other process can lock the old file and believe it owns
  // work that has just finished.
  if (removeOnRelease_) ::unlink(path_.c_str());
  ::close(fd_);
}

}  // namespace nembra
