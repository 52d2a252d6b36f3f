// Where live media comes from: a file whose H.264 and AAC pass through untouched, or a device
// or test pattern whose raw pictures and PCM still need encoding.
#pragma once

#include <string>
#include <utility>
#include <variant>

#include "nembra/error.h"
#include "platform/media/media_encoder_samples.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

struct MediaSourceInfo {
  std::string description;  // for status lines, e.g. "file clip.mp4" or "lavfi testsrc2+sine"
  bool hasVideo = false;
  bool hasAudio = false;
  // True when the source delivers encoded samples for the track (files), false when it delivers
  // raw frames that need an encoder (devices, test patterns).
  bool videoEncoded = false;
  bool audioEncoded = false;
  int width = 0;
  int height = 0;
  double frameRate = 0.0;
  // Encoded video whose frames are stored out of presentation order (B-frames). Passed through,
  // it plays with its frames in decode order: the FLV path sends no composition time.
  bool videoReordered = false;
  int sampleRate = 0;
  int channels = 0;
  double duration = 0.0;  // seconds; 0 when endless or unknown
};

using MediaSourceItem = std::variant<EncodedVideoSample, EncodedAudioSample, RawMediaFrame>;

// What a file source does with one demuxed sample: |convert| fills a Sample from it and
// returns false for a sample with nothing to send (or sets |error| when the file is broken).
enum class SampleStep { Delivered, Skipped, Failed };

template <typename Sample, typename Convert>
SampleStep deliverSample(double pts, const OptionalError& error, MediaSourceItem& item,
                         Convert convert) {
  Sample sample;
  const bool usable = convert(sample);
  if (error) return SampleStep::Failed;
  if (!usable) return SampleStep::Skipped;
  sample.pts = pts;
  item = std::move(sample);
  return SampleStep::Delivered;
}

// Threading: read() is called from one thread (the capture thread); interrupt() may be called
// from any thread. No callbacks.
class MediaSource {
 public:
  virtual ~MediaSource() = default;

  virtual const MediaSourceInfo& info() const = 0;

  // Blocks until the next item is there. Returns false at the end of the media, with |error|
  // empty, or on a failure, with |error| set; it then keeps returning false.
  virtual bool read(MediaSourceItem& item, OptionalError& error) = 0;

  // Makes a blocked or later read() return false soon (with an error of kind Cancelled).
  virtual void interrupt() = 0;
};

}  // namespace nembra
