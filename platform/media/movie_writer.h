// The recorder's asset writer: raw camera pictures and microphone PCM in, an MP4 file out
// (H.264 at the configured average bit rate and size, AAC at the configured rate, 2 channels).
//
// Crash safety: while recording, the file is written as fragmented MP4 to partPath(path) (a
// fragment at every key frame and at least once a second), so a process killed mid-recording
// leaves every fragment but the last readable. finish() turns it into an ordinary MP4 at |path|
// with its index at the front; finishInterruptedMovie() does the same for a part file a killed
// process left behind.
//
// Threading: one caller at a time (the recorder's capture thread, then its session queue for
// finish()); no callbacks.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

struct MovieWriterSettings {
  int width = 0;
  int height = 0;
  int videoBitrate = 0;  // bits per second, average
  int frameRate = 30;
  bool hasAudio = true;
  int audioSampleRate = 48000;
  int audioChannels = 2;
  int audioBitrate = 65536;
};

class MovieWriter {
 public:
  virtual ~MovieWriter() = default;

  // |pts| in seconds on the capture clock; the first picture appended starts the file's
  // timeline (audio stamped before it is dropped). Stamps must increase within a track.
  virtual OptionalError appendVideo(const RawMediaFrame& frame, double pts) = 0;
  virtual OptionalError appendAudio(const RawMediaFrame& frame, double pts) = 0;
  // Drains the encoders, closes the fragmented file and writes the ordinary MP4 at path(),
  // removing the part file. Whatever was appended before a failure is kept when possible.
  virtual OptionalError finish() = 0;

  virtual const std::string& path() const = 0;
  // Seconds of video written so far (last picture's end on the file's timeline).
  virtual double writtenDuration() const = 0;
};

// Where a recording to |path| lives while it is being written.
inline std::string moviePartPath(const std::string& path) { return path + ".part"; }

}  // namespace nembra
