// FLV audio tags for AAC: the first frame is taken as the AudioSpecificConfig, every later one as
// a raw AAC frame.
#pragma once

#include "streaming/flv_tag_formatter.h"

namespace nembra {

// The first body byte is always 0xAF (AAC, 44 kHz, 16-bit, stereo) whatever the stream: players
// take the real rate and channels from the AudioSpecificConfig, so the byte is kept as is.
class AACDataFormatter : public FLVTagFormatter {
 public:
  explicit AACDataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next);

  bool SequenceHeaderPending() const { return sequenceHeaderPending_; }

 protected:
  TransformResult FillDataSection(MediaFrame& input, BitstreamWriter& writer) override;

 private:
  bool sequenceHeaderPending_ = true;
};

}  // namespace nembra
