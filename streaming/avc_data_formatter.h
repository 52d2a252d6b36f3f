// FLV video tags for H.264: the AVC sequence header from the first key frame, then NAL units.
#pragma once

#include "streaming/avcc_parser.h"
#include "streaming/flv_tag_formatter.h"

namespace nembra {

// The first key frame yields two tags: the sequence header (the decoder configuration record
// built from the frame's SPS and PPS) and then the frame itself. Composition times are always
// 0: frames are sent without reordering, so offsets are never needed.
//
// Errors, thrown to the caller with the sequence header still pending: "first AVC frame is not a
// keyframe", "no sps found in keyframe".
class AVCDataFormatter : public FLVTagFormatter {
 public:
  explicit AVCDataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next);

  bool SequenceHeaderPending() const { return sequenceHeaderPending_; }

 protected:
  TransformResult FillDataSection(MediaFrame& input, BitstreamWriter& writer) override;

 private:
  bool sequenceHeaderPending_ = true;
};

}  // namespace nembra
