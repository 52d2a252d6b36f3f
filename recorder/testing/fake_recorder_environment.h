// A recorder environment for tests: a capture the test feeds by hand, a writer that records what
// it was given, a timer the test ticks, and uploads and covers that only take note.
//
// Threading: main queue (the test's); the test plays the capture thread itself.
#pragma once

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "nembra/main_queue.h"
#include "recorder/recorder_environment.h"

namespace nembra::testing {

struct FakeRecorderLog {
  struct Writer {
    std::string path;
    MovieWriterSettings settings;
    std::vector<double> video;  // stamps appended
    std::vector<double> audio;
    int finishes = 0;
    bool finished = false;
    // Appends after this many video frames fail with |failure| (-1: none fail).
    int failVideoAfter = -1;
    Error failure;
  };
  std::vector<std::shared_ptr<Writer>> writers;
  std::function<void()> tick;  // the running countdown timer, empty when none
  int timersMade = 0;
  bool captureRunning = false;
  // What the fake camera's configure answers.
  OptionalError configureError;
  // Handed to the next writer made (see Writer).
  int failVideoAfter = -1;
  Error writeFailure;
  std::vector<std::string> covers;  // paths a default cover was asked for
  struct Upload {
    std::string kind;  // "create" or "rerecord"
    std::string path;
    std::string token;
    bool withCover = false;
  };
  std::vector<Upload> uploads;
};

class FakeCaptureSession final : public CaptureSession {
 public:
  explicit FakeCaptureSession(std::shared_ptr<FakeRecorderLog> log) : log_(std::move(log)) {}
  OptionalError configure(const CaptureSettings&, OptionalError&) override {
    return log_->configureError;
  }
  bool hasMicrophone() const override { return true; }
  int cameraPositions() const override { return 2; }
  int facing() const override { return 0; }
  void startRunning(CaptureSampleSink&) override { log_->captureRunning = true; }
  void stopRunning() override { log_->captureRunning = false; }
  bool isRunning() const override { return log_->captureRunning; }
  OptionalError changeCamera() override { return std::nullopt; }

 private:
  std::shared_ptr<FakeRecorderLog> log_;
};

class FakeMovieWriter final : public MovieWriter {
 public:
  explicit FakeMovieWriter(std::shared_ptr<FakeRecorderLog::Writer> log) : log_(std::move(log)) {}
  OptionalError appendVideo(const RawMediaFrame&, double pts) override {
    if (log_->failVideoAfter >= 0 &&
        log_->video.size() >= static_cast<size_t>(log_->failVideoAfter)) {
      return log_->failure;
    }
    log_->video.push_back(pts);
    return none();
  }
  OptionalError appendAudio(const RawMediaFrame&, double pts) override {
    log_->audio.push_back(pts);
    return none();
  }
  OptionalError finish() override {
    ++log_->finishes;
    log_->finished = true;
    std::ofstream(log_->path) << "movie";
    return std::nullopt;
  }
  const std::string& path() const override { return log_->path; }
  double writtenDuration() const override { return 0; }

 private:
  static OptionalError none() { return std::nullopt; }
  std::shared_ptr<FakeRecorderLog::Writer> log_;
};

class FakeTimer final : public RecorderTimer {
 public:
  explicit FakeTimer(std::shared_ptr<FakeRecorderLog> log) : log_(std::move(log)) {}
  ~FakeTimer() override { log_->tick = nullptr; }

 private:
  std::shared_ptr<FakeRecorderLog> log_;
};

inline RecorderEnvironment fakeRecorderEnvironment(MainQueue& queue,
                                                   std::shared_ptr<FakeRecorderLog> log,
                                                   const std::string& directory) {
  RecorderEnvironment env;
  // Session work runs when the test pumps the main queue.
  env.sessionQueue = std::shared_ptr<TaskQueue>(&queue, [](TaskQueue*) {});
  env.makeCaptureSession = [log] { return std::make_unique<FakeCaptureSession>(log); };
  env.makeWriter = [log](const std::string& path, const MovieWriterSettings& settings,
                         OptionalError&) -> std::unique_ptr<MovieWriter> {
    auto writer = std::make_shared<FakeRecorderLog::Writer>();
    writer->path = path;
    writer->settings = settings;
    writer->failVideoAfter = log->failVideoAfter;
    writer->failure = log->writeFailure;
    log->writers.push_back(writer);
    return std::make_unique<FakeMovieWriter>(writer);
  };
  env.repeatingTimer = [log](std::chrono::milliseconds, std::function<void()> tick) {
    ++log->timersMade;
    log->tick = std::move(tick);
    return std::make_unique<FakeTimer>(log);
  };
  env.defaultCover = [log, &queue](const std::string& path,
                                   std::function<void(StillImagePtr)> done) {
    log->covers.push_back(path);
    auto image = std::make_shared<StillImage>();
    image->format = "jpeg";
    queue.async([done, image] { done(image); });
  };
  env.createVideo = [log](const Json&, const std::string& path, StillImagePtr cover,
                          RecorderEnvironment::UploadCallback) {
    log->uploads.push_back({"create", path, "", cover != nullptr});
  };
  env.rerecordVideo = [log](const std::string& token, const std::string& path, const Json&,
                            RecorderEnvironment::UploadCallback) {
    log->uploads.push_back({"rerecord", path, token, false});
  };
  env.recordingsDirectory = directory;
  return env;
}

}  // namespace nembra::testing
