#include "service/upload_file_writer.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nembra {

UploadFileWriter::~UploadFileWriter() {
  flusher_.reset();  // before the file it flushes is closed
  if (fd_ >= 0) ::close(fd_);
}

bool UploadFileWriter::open(const std::string& path) {
  flusher_.reset();
  if (fd_ >= 0) ::close(fd_);
  gathered_ = 0;
  written_ = submitted_ = settled_ = 0;
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) {
    error_ = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool UploadFileWriter::writeAll(const char* data, size_t size) {
  while (size > 0) {
    ssize_t written = ::write(fd_, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      error_ = std::string("cannot write the upload to disk: ") + std::strerror(errno);
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
    written_ += static_cast<uint64_t>(written);
  }
  writeBehind(false);
  return true;
}

void UploadFileWriter::writeBehind(bool all) {
  while (written_ - submitted_ >= kWriteBehindBytes || (all && written_ > submitted_)) {
    uint64_t span = std::min<uint64_t>(written_ - submitted_, kWriteBehindBytes);
    ::sync_file_range(fd_, static_cast<off_t>(submitted_), static_cast<off_t>(span),
                      SYNC_FILE_RANGE_WRITE);
    submitted_ += span;
  }
  while (submitted_ - settled_ > kMaxUnsettledBytes) {
    ::sync_file_range(
        fd_, static_cast<off_t>(settled_), kWriteBehindBytes,
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
    ::posix_fadvise(fd_, static_cast<off_t>(settled_), kWriteBehindBytes, POSIX_FADV_DONTNEED);
    settled_ += kWriteBehindBytes;
    if (settled_ >= kFlushAfterBytes) {
      if (!flusher_) flusher_ = std::make_unique<BackgroundDataFlusher>(fd_);
      flusher_->progress();
    }
  }
}

bool UploadFileWriter::stopFlusher() {
  if (!flusher_) return true;
  int code = flusher_->stop();
  flusher_.reset();
  // A file system that cannot flush (EINVAL, EROFS) has not failed; an I/O error lost data.
  if (code == 0 || code == EINVAL || code == EROFS) return true;
  error_ = std::string("cannot write the upload to disk: ") + std::strerror(code);
  return false;
}

bool UploadFileWriter::flush() {
  size_t size = gathered_;
  gathered_ = 0;
  return size == 0 || writeAll(block_.get(), size);
}

bool UploadFileWriter::write(const char* data, size_t size) {
  if (fd_ < 0) {
    error_ = "the upload file is not open";
    return false;
  }
  if (gathered_ > 0 && size >= kDirectBytes) {
    // The gathered bytes and the large piece in one call, neither copied.
    iovec pieces[2] = {{block_.get(), gathered_}, {const_cast<char*>(data), size}};
    ssize_t written;
    do {
      written = ::writev(fd_, pieces, 2);
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
      error_ = std::string("cannot write the upload to disk: ") + std::strerror(errno);
      return false;
    }
    size_t done = static_cast<size_t>(written);
    written_ += done;
    size_t fromBlock = std::min(done, gathered_);
    // A short write leaves the rest to plain writes.
    if (fromBlock < gathered_ && !writeAll(block_.get() + fromBlock, gathered_ - fromBlock)) {
      return false;
    }
    gathered_ = 0;
    size_t fromData = done - fromBlock;
    return writeAll(data + fromData, size - fromData);
  }
  while (size > 0) {
    if (gathered_ == 0 && size >= kDirectBytes) return writeAll(data, size);
    if (!block_) block_.reset(new char[kBlockBytes]);
    size_t take = std::min(size, kBlockBytes - gathered_);
    std::memcpy(block_.get() + gathered_, data, take);
    gathered_ += take;
    data += take;
    size -= take;
    if (gathered_ == kBlockBytes && !flush()) return false;
  }
  return true;
}

bool UploadFileWriter::close() {
  if (fd_ < 0) return true;
  bool flushed = flush();
  // The rest goes to the disk now too, without waiting for it.
  if (flushed) writeBehind(true);
  bool durable = stopFlusher();
  bool closed = ::close(fd_) == 0;
  fd_ = -1;
  if (flushed && durable && !closed) {
    error_ = std::string("cannot write the upload to disk: ") + std::strerror(errno);
  }
  return flushed && durable && closed;
}

}  // namespace nembra
