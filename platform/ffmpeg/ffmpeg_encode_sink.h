// Encodes raw pictures and sound into a new media file: H.264 (libx264, else MPEG-4 Part 2)
// pictures scaled to the configured size and AAC sound resampled to the configured rate, muxed
// into the container the file name's extension (or the given format) asks for, MP4 with its
// index moved to the front. The media converter and the sample writer both write through it.
//
// Threading: one thread at a time; several sinks may run at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nembra/error.h"

struct AVFrame;

namespace nembra {

struct EncodeSettings {
  std::string format;  // FFmpeg's short name ("mp4", "adts"); empty: from the file name
  bool fastStart = true;
  // Pictures; width 0 means no picture track.
  int width = 0;
  int height = 0;
  int frameRate = 25;
  int64_t videoBitRate = 256000;
  // Sound; sampleRate 0 means no sound track.
  int sampleRate = 0;
  int channels = 1;
  int64_t audioBitRate = 64000;
};

class MediaEncodeSink {
 public:
  // Opens |path| for writing (replacing it) with the tracks |settings| asks for.
  static OptionalError open(const std::string& path, const EncodeSettings& settings,
                            std::unique_ptr<MediaEncodeSink>& sink);
  // Removes the file unless finish() succeeded.
  ~MediaEncodeSink();
  MediaEncodeSink(const MediaEncodeSink&) = delete;
  MediaEncodeSink& operator=(const MediaEncodeSink&) = delete;

  // A picture of any size and pixel format, shown at |seconds|. Pictures must come in
  // presentation order.
  OptionalError writePicture(const AVFrame& picture, double seconds);
  // Sound of any sample format, rate and layout; |frame|'s samples follow the previous ones.
  OptionalError writeSound(const AVFrame& frame);
  // Flushes the encoders and writes the file's index.
  OptionalError finish();

 private:
  struct State;
  explicit MediaEncodeSink(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace nembra
