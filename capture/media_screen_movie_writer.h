// ScreenMovieWriter over the media plug-in's file writer: H.264 at the video input's size and
// AAC as the audio input says, in a QuickTime movie.
//
// Threading: see ScreenMovieWriter; state shared with the finishing thread is under mutex_.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

#include "capture/screen_movie_writer.h"
#include "platform/media/media_file_writer.h"

namespace nembra {

class MediaScreenMovieWriter final : public ScreenMovieWriter {
 public:
  explicit MediaScreenMovieWriter(std::string path) : path_(std::move(path)) {}
  ~MediaScreenMovieWriter() override;

  static ScreenMovieWriterFactory factory();

  bool canAddVideoInput(const VideoSettings& settings) override;
  void addVideoInput(const VideoSettings& settings) override { video_ = settings; }
  bool canAddAudioInput(const AudioSettings& settings) override;
  void addAudioInput(const AudioSettings& settings) override { audio_ = settings; }

  bool startWriting() override;
  void startSessionAtSourceTime(double seconds) override;
  Status status() const override;
  std::string error() const override;

  bool isVideoInputReady() const override;
  bool isAudioInputReady() const override;
  bool appendVideo(const RawMediaFrame& frame, double seconds) override;
  bool appendAudio(const RawMediaFrame& frame, double seconds) override;
  void markVideoInputAsFinished() override { videoFinished_ = true; }
  void markAudioInputAsFinished() override { audioFinished_ = true; }
  void finishWriting(std::function<void()> completion) override;

  int64_t videoFramesWritten() const;

 private:
  void fail(const Error& error);

  const std::string path_;
  std::optional<VideoSettings> video_;
  std::optional<AudioSettings> audio_;
  mutable std::mutex mutex_;
  Status status_ = Status::Unknown;  // guarded by mutex_
  std::string error_;                // guarded by mutex_
  std::unique_ptr<MediaFileWriter> writer_;
  std::optional<double> sessionStart_;
  std::atomic<bool> videoFinished_{false};
  std::atomic<bool> audioFinished_{false};
  std::thread finisher_;
};

}  // namespace nembra
