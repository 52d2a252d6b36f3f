#include "capture/media_screen_movie_writer.h"

#include <cmath>

#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"

namespace nembra {

MediaScreenMovieWriter::~MediaScreenMovieWriter() {
  if (finisher_.joinable()) finisher_.join();
}

ScreenMovieWriterFactory MediaScreenMovieWriter::factory() {
  return [](const std::string& path, OptionalError& error) -> std::unique_ptr<ScreenMovieWriter> {
    if (path.empty()) {
      error = Error::invalidArgument("no file for the movie");
      return nullptr;
    }
    return std::make_unique<MediaScreenMovieWriter>(path);
  };
}

bool MediaScreenMovieWriter::canAddVideoInput(const VideoSettings& settings) {
  return !video_ && settings.codec == "H.264" && settings.width >= 2 && settings.height >= 2 &&
         status() == Status::Unknown;
}

bool MediaScreenMovieWriter::canAddAudioInput(const AudioSettings& settings) {
  return !audio_ && settings.format == "MPEG-4 AAC" && settings.channels > 0 &&
         settings.sampleRate > 0 && status() == Status::Unknown;
}

bool MediaScreenMovieWriter::startWriting() {
  MediaFileWriterSettings settings;
  settings.path = path_;
  settings.container = "mov";
  if (video_) {
    settings.width = static_cast<int>(std::lround(video_->width));
    settings.height = static_cast<int>(std::lround(video_->height));
    settings.frameRate = 30;
  }
  if (audio_) {
    settings.audioCodec = "aac";
    settings.channels = audio_->channels;
    settings.sampleRate = static_cast<int>(audio_->sampleRate);
    settings.audioBitRate = audio_->bitRate;
  }
  OptionalError error;
  auto writer = createMediaFileWriter(settings, error);
  std::lock_guard lock(mutex_);
  if (!writer) {
    status_ = Status::Failed;
    error_ = error ? error->message : "can't write " + path_;
    return false;
  }
  writer_ = std::move(writer);
  status_ = Status::Writing;
  return true;
}

void MediaScreenMovieWriter::startSessionAtSourceTime(double seconds) { sessionStart_ = seconds; }

ScreenMovieWriter::Status MediaScreenMovieWriter::status() const {
  std::lock_guard lock(mutex_);
  return status_;
}

std::string MediaScreenMovieWriter::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void MediaScreenMovieWriter::fail(const Error& error) {
  std::lock_guard lock(mutex_);
  if (status_ == Status::Writing) {
    status_ = Status::Failed;
    error_ = error.message;
  }
}

bool MediaScreenMovieWriter::isVideoInputReady() const {
  return video_ && !videoFinished_ && status() == Status::Writing;
}

bool MediaScreenMovieWriter::isAudioInputReady() const {
  return audio_ && !audioFinished_ && status() == Status::Writing;
}

bool MediaScreenMovieWriter::appendVideo(const RawMediaFrame& frame, double seconds) {
  if (status() != Status::Writing || !sessionStart_ || videoFinished_) return false;
  if (auto error = writer_->appendVideo(frame, seconds - *sessionStart_)) {
    fail(*error);
    return false;
  }
  return true;
}

bool MediaScreenMovieWriter::appendAudio(const RawMediaFrame& frame, double seconds) {
  if (status() != Status::Writing || !sessionStart_ || audioFinished_) return false;
  if (seconds < *sessionStart_) return false;
  if (auto error = writer_->appendAudio(frame)) {
    fail(*error);
    return false;
  }
  return true;
}

void MediaScreenMovieWriter::finishWriting(std::function<void()> completion) {
  if (finisher_.joinable()) return;
  finisher_ = std::thread([this, completion = std::move(completion)] {
    setCurrentThreadName("com.nembra.screenRecorder.finish");
    OptionalError error;
    if (writer_) error = writer_->finish();
    if (completion) completion();
    std::lock_guard lock(mutex_);
    if (error) {
      status_ = Status::Failed;
      error_ = error->message;
    } else if (status_ == Status::Writing) {
      status_ = Status::Completed;
    }
  });
}

int64_t MediaScreenMovieWriter::videoFramesWritten() const {
  return writer_ ? writer_->videoFramesWritten() : 0;
}

}  // namespace nembra
