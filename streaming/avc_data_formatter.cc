#include "streaming/avc_data_formatter.h"

#include <stdexcept>

namespace nembra {

namespace {

constexpr uint8_t kCodecAVC = 7;
constexpr uint8_t kFrameTypeKey = 1;
constexpr uint8_t kFrameTypeInter = 2;
constexpr uint8_t kPacketSequenceHeader = 0;
constexpr uint8_t kPacketNALU = 1;

}  // namespace

AVCDataFormatter::AVCDataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next)
    : FLVTagFormatter(std::move(next), MediaType::Video, MediaCodec::H264, FLVTagType::Video) {}

TransformResult AVCDataFormatter::FillDataSection(MediaFrame& input, BitstreamWriter& writer) {
  const uint8_t frameType = input.KeyFrame() ? kFrameTypeKey : kFrameTypeInter;
  if (sequenceHeaderPending_) {
    if (!input.KeyFrame()) throw std::runtime_error("first AVC frame is not a keyframe");
    AVCCParser parser;
    parser.ExtractSpsPps(input.Data());
    if (parser.SPS().empty()) throw std::runtime_error("no sps found in keyframe");
    const AVCCParser::Bytes record = parser.GetDecoderConfigurationRecord();
    writer.PutBits(frameType, 4);
    writer.PutBits(kCodecAVC, 4);
    writer.PutBits(kPacketSequenceHeader, 8);
    writer.PutBits(0, 24);  // composition time
    writer.PutBytes(record);
    sequenceHeaderPending_ = false;
    // The same key frame is formatted once more, into the first NALU tag.
    return TransformResult::HasMoreOutput;
  }
  writer.PutBits(frameType, 4);
  writer.PutBits(kCodecAVC, 4);
  writer.PutBits(kPacketNALU, 8);
  writer.PutBits(0, 24);  // composition time
  writer.PutBytes(input.Data());
  return TransformResult::Complete;
}

}  // namespace nembra
