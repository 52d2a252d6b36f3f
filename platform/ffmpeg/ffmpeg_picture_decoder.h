// Decodes a picture held in memory to RGBA frames within PictureLimits: what the image codec's
// decodePicture runs. Animated GIFs go through FFmpeg's GIF demuxer so each frame keeps its
// delay; every other format is one packet for its decoder.
//
// Threading: no state; any thread, several at once.
#pragma once

#include <cstdint>
#include <span>

#include "nembra/error.h"
#include "platform/media/picture.h"

namespace nembra {

// |format| and |codecId| name what the caller identified the bytes as.
OptionalError ffmpegDecodePicture(std::span<const uint8_t> bytes, const char* format, int codecId,
                                  const PictureLimits& limits, Picture& picture);

// The stored size a picture's header declares, read without decoding; false when the format's
// header is not understood here (the decoder's own pixel limit still applies then).
bool ffmpegPeekPictureSize(std::span<const uint8_t> bytes, const char* format, int& width,
                           int& height);

}  // namespace nembra
