// The FLV script tag that opens a stream: "onMetaData" and a fixed description of the tracks.
#pragma once

#include "streaming/flv_tag_formatter.h"

namespace nembra {

// The values are fixed (1920x1080 at 30 fps and 3000 kbit/s, 44.1 kHz 16-bit stereo at
// 64 kbit/s), not taken from the encoders: kept as is, ingest servers only pass them on and
// players read the real figures from the streams. Only the properties of the tracks present
// are written.
class MetadataFormatter : public FLVTagFormatter {
 public:
  MetadataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next, bool hasVideo, bool hasAudio);

 protected:
  TransformResult FillDataSection(MediaFrame& input, BitstreamWriter& writer) override;

 private:
  bool hasVideo_;
  bool hasAudio_;
};

}  // namespace nembra
