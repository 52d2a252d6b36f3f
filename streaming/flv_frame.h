// A frame whose payload is one complete FLV tag body.
#pragma once

#include "streaming/media_frame.h"

namespace nembra {

class FLVFrame : public MediaFrame {
 public:
  FLVFrame(MediaType type, MediaCodec codec, nembra::FLVTagType tagType);

  nembra::FLVTagType FLVTagType() const { return tagType_; }

 private:
  nembra::FLVTagType tagType_;  // fixed at construction, so copies agree without sharing it
};

}  // namespace nembra
