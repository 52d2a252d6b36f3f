// Writes an upload to its file in large writes: small pieces are gathered into one block of
// kBlockBytes, large ones go to the file directly. The C library's stream buffer would write
// 4 KiB at a time whatever size it is asked for.
//
// Writes behind, too: the disk gets each kWriteBehindBytes as soon as they are written, and once
// they are on it their pages leave the page cache. An upload of gigabytes then reaches the disk
// while it arrives instead of all at once after it, holds a few megabytes of page cache instead
// of gigabytes (pushing out what other programs cache), and reuses the pages it just gave back:
// taking fresh memory for every page costs more than the copy into it on some machines. Past
// kFlushAfterBytes a BackgroundDataFlusher makes the settled data durable meanwhile, so that a
// sync of the finished file has little left to wait for; small uploads never start one.
//
// Threading: one instance per upload, used by one thread (a large upload's flusher runs on a
// thread of its own).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "service/background_data_flusher.h"

namespace nembra {

class UploadFileWriter {
 public:
  static constexpr size_t kBlockBytes = 1 << 20;
  // Pieces this large skip the block: copying them first would only cost time.
  static constexpr size_t kDirectBytes = 256 * 1024;
  static constexpr uint64_t kWriteBehindBytes = 8 << 20;
  // Written but possibly not yet on disk, at most: the disk's queue stays full meanwhile.
  static constexpr uint64_t kMaxUnsettledBytes = 32 << 20;
  static constexpr uint64_t kFlushAfterBytes = 64 << 20;

  UploadFileWriter() = default;
  // Closes the file when still open; what was not written yet is lost (close() writes it).
  ~UploadFileWriter();
  UploadFileWriter(const UploadFileWriter&) = delete;
  UploadFileWriter& operator=(const UploadFileWriter&) = delete;

  // Creates (or empties) the file at |path|.
  bool open(const std::string& path);
  bool write(const char* data, size_t size);
  // Writes what is gathered and closes the file; false when any write failed.
  bool close();

  // Why the last call failed.
  const std::string& error() const { return error_; }

 private:
  bool writeAll(const char* data, size_t size);
  bool flush();
  // Hands full spans to the disk and drops the settled ones from the page cache. Advisory: a
  // file system that does neither still gets every byte.
  void writeBehind(bool all);
  // Ends the flusher, if one runs; false (with error_ set) when one of its flushes failed.
  bool stopFlusher();

  int fd_ = -1;
  std::unique_ptr<char[]> block_;
  size_t gathered_ = 0;
  uint64_t written_ = 0;    // bytes in the file
  uint64_t submitted_ = 0;  // bytes handed to the disk
  uint64_t settled_ = 0;    // bytes on the disk and out of the page cache
  std::unique_ptr<BackgroundDataFlusher> flusher_;
  std::string error_;
};

}  // namespace nembra
