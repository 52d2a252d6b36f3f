// Wraps each media frame of one track into a complete FLV tag.
#pragma once

#include <cstdint>
#include <memory>

#include "streaming/flv_frame.h"
#include "streaming/media_frame.h"
#include "streaming/media_transformer.h"

namespace nembra {

// The tag is header (type, 24-bit body size, 24-bit timestamp and its extension byte, 24-bit
// stream id 0), the body written by FillDataSection, and the 32-bit previous-tag-size trailer.
// Subclasses differ only in the body.
//
// Driven by one thread at a time (the streamer's caller); errors are std::runtime_error thrown
// to the caller of PutFrame.
class FLVTagFormatter : public MediaTransformer<MediaFrame, FLVFrame> {
 public:
  static constexpr size_t kTagHeaderSize = 11;
  static constexpr size_t kTagTrailerSize = 4;

  FLVTagFormatter(std::shared_ptr<IReceiver<FLVFrame>> next, MediaType type, MediaCodec codec,
                  nembra::FLVTagType tagType);

  nembra::FLVTagType FLVTagType() const { return tagType_; }

  // The 32-bit FLV timestamp of |pts| seconds: milliseconds truncated toward zero, 0 for
  // negative or undefined times.
  static uint32_t TimestampOf(double pts);

 protected:
  FLVFrame CreateOutputFrame(const MediaFrame& input) override;
  TransformResult Transform(MediaFrame& input, FLVFrame& output) override;

  // Writes the tag body at |writer|'s position; the result becomes that of Transform.
  virtual TransformResult FillDataSection(MediaFrame& input, BitstreamWriter& writer) = 0;

 private:
  MediaType type_;
  MediaCodec codec_;
  nembra::FLVTagType tagType_;
};

}  // namespace nembra
