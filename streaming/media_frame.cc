#include "streaming/media_frame.h"

namespace nembra {

MediaFrame::MediaFrame(MediaType type, MediaCodec codec)
    : implementation_(std::make_shared<MediaFrameImplementation>(MediaDescriptor(type, codec))) {}

}  // namespace nembra
