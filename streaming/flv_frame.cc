#include "streaming/flv_frame.h"

namespace nembra {

FLVFrame::FLVFrame(MediaType type, MediaCodec codec, nembra::FLVTagType tagType)
    : MediaFrame(type, codec), tagType_(tagType) {}

}  // namespace nembra
