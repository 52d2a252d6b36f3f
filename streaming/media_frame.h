// The frame handle that flows through the streaming stages.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "streaming/bitstream_reader.h"
#include "streaming/bitstream_writer.h"
#include "streaming/media_types.h"

namespace nembra {

struct MediaFrameImplementation {
  explicit MediaFrameImplementation(MediaDescriptor descriptor) : descriptor(descriptor) {}

  std::vector<uint8_t> data;
  MediaDescriptor descriptor;
  double pts = 0.0;
  bool keyFrame : 1 = false;
};

// A cheap handle: copies share the payload, PTS and key-frame flag, so stages pass frames by
// value without copying bytes. Whoever receives a frame is the only one that writes to it
// afterwards; that is how frames cross threads without locks.
class MediaFrame {
 public:
  MediaFrame(MediaType type, MediaCodec codec);
  virtual ~MediaFrame() = default;
  MediaFrame(const MediaFrame&) = default;
  MediaFrame& operator=(const MediaFrame&) = default;

  // Mutable through a const handle, as with any shared handle.
  std::vector<uint8_t>& Data() const { return implementation_->data; }
  MediaDescriptor Descriptor() const { return implementation_->descriptor; }
  double PTS() const { return implementation_->pts; }
  void SetPTS(double pts) { implementation_->pts = pts; }
  bool KeyFrame() const { return implementation_->keyFrame; }
  void SetKeyFrame(bool keyFrame) { implementation_->keyFrame = keyFrame; }

  // The cursors point into this frame's payload: keep the frame alive while using them.
  BitstreamReader GetDataReader() const { return BitstreamReader(implementation_->data); }
  BitstreamWriter GetDataWriter() const { return BitstreamWriter(implementation_->data); }

 private:
  std::shared_ptr<MediaFrameImplementation> implementation_;
};

}  // namespace nembra
