#include "platform/ffmpeg/ffmpeg_byte_source_io.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace nembra::player {

namespace {
constexpr int kBufferSize = 64 * 1024;
}

std::unique_ptr<ByteSourceIo> ByteSourceIo::create(std::shared_ptr<MediaByteSource> source) {
  std::unique_ptr<ByteSourceIo> io(new ByteSourceIo(std::move(source)));
  auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
  if (!buffer) return nullptr;
  io->context_ = avio_alloc_context(buffer, kBufferSize, 0, io.get(), &ByteSourceIo::readPacket,
                                    nullptr, &ByteSourceIo::seek);
  if (!io->context_) {
    av_free(buffer);
    return nullptr;
  }
  return io;
}

ByteSourceIo::~ByteSourceIo() {
  if (context_) av_freep(&context_->buffer);
  avio_context_free(&context_);
}

int ByteSourceIo::readPacket(void* opaque, uint8_t* buffer, int size) {
  auto* io = static_cast<ByteSourceIo*>(opaque);
  const int64_t got = io->source_->read(buffer, static_cast<size_t>(size));
  if (got == 0) return AVERROR_EOF;
  if (got < 0) return AVERROR(EIO);
  io->position_ += got;
  return static_cast<int>(got);
}

int64_t ByteSourceIo::seek(void* opaque, int64_t offset, int whence) {
  auto* io = static_cast<ByteSourceIo*>(opaque);
  const int64_t size = io->source_->size();
  switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE:
      return size >= 0 ? size : AVERROR(ENOSYS);
    case SEEK_SET:
      break;
    case SEEK_CUR:
      offset += io->position_;
      break;
    case SEEK_END:
      if (size < 0) return AVERROR(ENOSYS);
      offset += size;
      break;
    default:
      return AVERROR(EINVAL);
  }
  if (offset < 0 || !io->source_->seek(offset)) return AVERROR(EIO);
  io->position_ = offset;
  return offset;
}

}  // namespace nembra::player
