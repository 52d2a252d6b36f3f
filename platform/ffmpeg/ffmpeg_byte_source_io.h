// An AVIOContext that reads a MediaByteSource, so FFmpeg demuxes bytes that come from the caching
// loader the same way it demuxes a file.
//
// Threading: the context is used on the demux thread only; cancel() from any thread.
#pragma once

#include <memory>

#include "platform/media/media_player_engine.h"

struct AVIOContext;

namespace nembra::player {

class ByteSourceIo {
 public:
  // Null when out of memory.
  static std::unique_ptr<ByteSourceIo> create(std::shared_ptr<MediaByteSource> source);
  ~ByteSourceIo();
  ByteSourceIo(const ByteSourceIo&) = delete;
  ByteSourceIo& operator=(const ByteSourceIo&) = delete;

  // Set as the format context's pb; stays owned here and must outlive that context.
  AVIOContext* context() const { return context_; }
  void cancel() { source_->cancel(); }

 private:
  explicit ByteSourceIo(std::shared_ptr<MediaByteSource> source) : source_(std::move(source)) {}
  static int readPacket(void* opaque, uint8_t* buffer, int size);
  static int64_t seek(void* opaque, int64_t offset, int whence);

  std::shared_ptr<MediaByteSource> source_;
  AVIOContext* context_ = nullptr;
  int64_t position_ = 0;
};

}  // namespace nembra::player
