// Converts a local video into a small MP4 for slow networks: the picture fitted inside 320×240
// at a low bit rate (H.264), the sound as mono AAC, the index at the front of the file so
// playback can start before the whole file arrives.
//
// Threading: a converter keeps no state between calls; any thread may call it, several at once.
// A conversion runs on the calling thread until the file is written.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

struct ConvertOptions {
  int maxWidth = 320;
  int maxHeight = 240;
  int64_t videoBitRate = 256000;
  int sampleRate = 44100;
  int64_t audioBitRate = 64000;
};

class MediaConverter {
 public:
  virtual ~MediaConverter() = default;
  // True when |path| holds a picture track that decodes: a video the low-quality export can
  // take.
  virtual bool canConvert(const std::string& path) = 0;
  // Writes the converted |input| to |output| (replaced when it exists). On failure |output| is
  // removed: an Error of kind Media when |input| cannot be decoded or encoded, kind File when
  // |output| cannot be written.
  virtual OptionalError convert(const std::string& input, const std::string& output,
                                const ConvertOptions& options) = 0;
};

// The media plug-in's converter.
std::unique_ptr<MediaConverter> makeMediaConverter();

}  // namespace nembra
