#include "streaming/flv_tag_formatter.h"

#include <cmath>

namespace nembra {

FLVTagFormatter::FLVTagFormatter(std::shared_ptr<IReceiver<FLVFrame>> next, MediaType type,
                                 MediaCodec codec, nembra::FLVTagType tagType)
    : MediaTransformer(std::move(next)), type_(type), codec_(codec), tagType_(tagType) {}

uint32_t FLVTagFormatter::TimestampOf(double pts) {
  const double milliseconds = std::trunc(pts * 1000.0);
  if (!(milliseconds > 0.0)) return 0;
  return static_cast<uint32_t>(std::fmod(milliseconds, 4294967296.0));
}

FLVFrame FLVTagFormatter::CreateOutputFrame(const MediaFrame& input) {
  FLVFrame frame(type_, codec_, tagType_);
  frame.SetPTS(input.PTS());
  frame.SetKeyFrame(input.KeyFrame());
  return frame;
}

TransformResult FLVTagFormatter::Transform(MediaFrame& input, FLVFrame& output) {
  BitstreamWriter writer = output.GetDataWriter();
  const uint32_t timestamp = TimestampOf(input.PTS());
  writer.PutBits(static_cast<uint8_t>(tagType_), 8);  // tag type
  writer.PutBits(0, 24);                              // body size, patched below
  writer.PutBits(timestamp & 0xFFFFFF, 24);           // timestamp, low 24 bits
  writer.PutBits(timestamp >> 24, 8);                 // timestamp extension, high 8 bits
  writer.PutBits(0, 24);                              // stream id, always 0
  const TransformResult result = FillDataSection(input, writer);
  writer.SeekToEnd();
  const size_t bodySize = output.Data().size() - kTagHeaderSize;
  writer.PutBits(bodySize + kTagHeaderSize, 32);  // previous tag size
  writer.SetPosition(1);
  writer.PutBits(bodySize, 24);
  writer.SeekToEnd();
  return result;
}

}  // namespace nembra
