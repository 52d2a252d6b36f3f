// One RTMP chunk: its payload is the chunk exactly as it goes on the wire, header included.
#pragma once

#include "streaming/media_frame.h"

namespace nembra {

class RTMPChunk : public MediaFrame {
 public:
  RTMPChunk(MediaType type, MediaCodec codec, RTMPChunkHeaderSize headerSize);

  RTMPChunkHeaderSize HeaderSize() const { return headerSize_; }
  void SetHeaderSize(RTMPChunkHeaderSize headerSize) { headerSize_ = headerSize; }

 private:
  RTMPChunkHeaderSize headerSize_;
};

}  // namespace nembra
