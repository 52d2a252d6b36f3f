#include "streaming/rtmp_chunk.h"

namespace nembra {

RTMPChunk::RTMPChunk(MediaType type, MediaCodec codec, RTMPChunkHeaderSize headerSize)
    : MediaFrame(type, codec), headerSize_(headerSize) {}

}  // namespace nembra
