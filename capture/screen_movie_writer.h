// What the screen recorder's sample handler writes its movie with: an asset writer with a video
// and an audio input, in the shape the handler's steps need (start writing, open the session at
// the first frame's time, append while the inputs are ready, mark them finished, finish on a
// queue of its own). MediaScreenMovieWriter is the real one; tests give their own.
//
// Threading: appends and status from the broadcast's thread; finishWriting's completion runs on
// the writer's own thread, "com.nembra.screenRecorder.finish".
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

class ScreenMovieWriter {
 public:
  // The values are the statuses the handler logs.
  enum class Status { Unknown = 0, Writing = 1, Completed = 2, Failed = 3, Cancelled = 4 };
  struct VideoSettings {
    double width = 0;
    double height = 0;
    std::string codec = "H.264";
  };
  struct AudioSettings {
    std::string format = "MPEG-4 AAC";
    int channels = 2;
    double sampleRate = 44100;
    int bitRate = 128000;
  };

  virtual ~ScreenMovieWriter() = default;

  virtual bool canAddVideoInput(const VideoSettings& settings) = 0;
  virtual void addVideoInput(const VideoSettings& settings) = 0;
  virtual bool canAddAudioInput(const AudioSettings& settings) = 0;
  virtual void addAudioInput(const AudioSettings& settings) = 0;

  virtual bool startWriting() = 0;
  // Times are seconds on the broadcast's clock; the movie starts at |seconds|.
  virtual void startSessionAtSourceTime(double seconds) = 0;
  virtual Status status() const = 0;
  virtual std::string error() const = 0;

  // Only while writing, until the input is marked finished.
  virtual bool isVideoInputReady() const = 0;
  virtual bool isAudioInputReady() const = 0;
  // Dropped unless writing, and (sound) before the session's start.
  virtual bool appendVideo(const RawMediaFrame& frame, double seconds) = 0;
  virtual bool appendAudio(const RawMediaFrame& frame, double seconds) = 0;
  virtual void markVideoInputAsFinished() = 0;
  virtual void markAudioInputAsFinished() = 0;

  // Finishes the file on the writer's thread, then runs |completion| there; the status leaves
  // Writing only once |completion| has returned.
  virtual void finishWriting(std::function<void()> completion) = 0;
};

// Makes the writer of a QuickTime movie at |path| (null, with |error|, when it cannot).
using ScreenMovieWriterFactory = std::function<std::unique_ptr<ScreenMovieWriter>(
    const std::string& path, OptionalError& error)>;

}  // namespace nembra
