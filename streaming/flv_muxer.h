// Turns the encoded frames of a video and an audio track into FLV tags for the RTMP client.
#pragma once

#include <memory>
#include <vector>

#include "streaming/flv_frame.h"
#include "streaming/flv_tag_formatter.h"
#include "streaming/media_frame.h"
#include "streaming/muxer.h"

namespace nembra {

// Each track has its tag formatter; all of them hand their tags to the one receiver given at
// construction. The metadata tag goes out once, in front of the first media frame.
//
// Driven by one thread at a time (the streamer's caller). Errors are std::runtime_error thrown to
// that caller: "unsupported video codec", "unsupported audio codec", "unknown media type",
// "unknown track ID", and those of the formatters.
class FLVMuxer : public IMuxer<MediaFrame> {
 public:
  explicit FLVMuxer(std::shared_ptr<IReceiver<FLVFrame>> next);

  // Marks the start of the stream. Over RTMP there is no FLV file header (the connection itself
  // opens the stream), so the opening is the metadata tag, sent once.
  void SendHeader();
  // Sends the metadata tag describing the tracks added so far.
  void SendMetadata();

 protected:
  uint32_t AddTrackImpl(MediaDescriptor descriptor) override;
  void PutFrameImpl(MediaFrame frame, uint32_t trackId) override;
  void CloseImpl() override;

 private:
  std::shared_ptr<IReceiver<FLVFrame>> next_;
  std::vector<std::unique_ptr<FLVTagFormatter>> tracks_;  // indexed by track id
  bool hasVideo_ = false;
  bool hasAudio_ = false;
  bool headerSent_ = false;
};

}  // namespace nembra
