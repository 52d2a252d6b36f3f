// A ScreenMovieWriter that records what the handler asks of it and "finishes" by writing a small
// file at its path, synchronously, before running the completion.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "capture/screen_movie_writer.h"

namespace nembra::testing {

class FakeScreenMovieWriter final : public ScreenMovieWriter {
 public:
  struct Record {
    std::vector<double> videoTimes;
    std::vector<double> audioTimes;
    std::optional<double> sessionStart;
    bool finishAsked = false;
    bool videoMarked = false;
    bool audioMarked = false;
  };

  FakeScreenMovieWriter(std::string path, Record& record)
      : path_(std::move(path)), record_(record) {}

  bool canAddVideoInput(const VideoSettings&) override { return true; }
  void addVideoInput(const VideoSettings&) override {}
  bool canAddAudioInput(const AudioSettings&) override { return true; }
  void addAudioInput(const AudioSettings&) override {}
  bool startWriting() override {
    status_ = failStart ? Status::Failed : Status::Writing;
    return !failStart;
  }
  void startSessionAtSourceTime(double seconds) override { record_.sessionStart = seconds; }
  Status status() const override { return status_; }
  std::string error() const override { return status_ == Status::Failed ? "disk full" : ""; }
  bool isVideoInputReady() const override {
    return status_ == Status::Writing && !record_.videoMarked;
  }
  bool isAudioInputReady() const override {
    return status_ == Status::Writing && !record_.audioMarked;
  }
  bool appendVideo(const RawMediaFrame&, double seconds) override {
    if (status_ != Status::Writing) return false;
    record_.videoTimes.push_back(seconds);
    return true;
  }
  bool appendAudio(const RawMediaFrame&, double seconds) override {
    // As the real one: nothing before the writer has started.
    if (status_ != Status::Writing) return false;
    record_.audioTimes.push_back(seconds);
    return true;
  }
  void markVideoInputAsFinished() override { record_.videoMarked = true; }
  void markAudioInputAsFinished() override { record_.audioMarked = true; }
  void finishWriting(std::function<void()> completion) override {
    record_.finishAsked = true;
    std::ofstream(path_, std::ios::binary) << "movie";
    completion();
    status_ = Status::Completed;
  }

  bool failStart = false;

 private:
  std::string path_;
  Record& record_;
  Status status_ = Status::Unknown;
};

}  // namespace nembra::testing
