#include "streaming/aac_data_formatter.h"

namespace nembra {

AACDataFormatter::AACDataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next)
    : FLVTagFormatter(std::move(next), MediaType::Audio, MediaCodec::AAC, FLVTagType::Audio) {}

TransformResult AACDataFormatter::FillDataSection(MediaFrame& input, BitstreamWriter& writer) {
  writer.PutBits(10, 4);                              // sound format: AAC
  writer.PutBits(3, 2);                               // rate: 44 kHz
  writer.PutBits(1, 1);                               // size: 16 bits
  writer.PutBits(1, 1);                               // type: stereo
  writer.PutBits(sequenceHeaderPending_ ? 0 : 1, 8);  // AAC packet type: config or raw
  sequenceHeaderPending_ = false;
  writer.PutBytes(input.Data());
  return TransformResult::Complete;
}

}  // namespace nembra
