// An exclusive advisory lock on a file, held until the object goes or the process ends (also by
// SIGKILL: the kernel releases it). Two processes, or two locks taken in one process, never hold
// the same file at once. The file itself is created when missing and its contents are not
// touched.
//
// Threading: a lock is owned by one thread at a time; taking locks is safe from any thread.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

class FileLock {
 public:
  // The lock on |path| when it is free now; nothing when another holder has it (|error| stays
  // empty) or the file cannot be opened (|error| says why).
  static std::unique_ptr<FileLock> tryAcquire(const std::string& path, OptionalError* error);

  // Releases the lock; with |removeFile| set also removes the lock file first, so that nothing
  // is left behind once the locked work is done.
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  const std::string& path() const { return path_; }
  // Remove the lock file when released.
  void removeFileOnRelease() { removeOnRelease_ = true; }

 private:
  FileLock(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

  const std::string path_;
  const int fd_;
  bool removeOnRelease_ = false;
};

}  // namespace nembra
