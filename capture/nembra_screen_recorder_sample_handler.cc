#include "capture/nembra_screen_recorder_sample_handler.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

#include "api/utils.h"
#include "capture/media_screen_movie_writer.h"
#include "platform/files/file_system.h"

namespace nembra {

namespace {

// A random (version 4) UUID in upper case, as the platform prints them.
std::string newUuidString() {
  std::random_device random;
  std::uniform_int_distribution<unsigned> byte(0, 255);
  unsigned char b[16];
  for (auto& value : b) value = static_cast<unsigned char>(byte(random));
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return text;
}

}  // namespace

NembraScreenRecorderSampleHandler::NembraScreenRecorderSampleHandler()
    : writerFactory_(MediaScreenMovieWriter::factory()),
      log_([](const std::string& line) { std::cerr << line << std::endl; }) {}

NembraScreenRecorderSampleHandler::~NembraScreenRecorderSampleHandler() = default;

void NembraScreenRecorderSampleHandler::log(const std::string& line) const {
  if (log_) log_(line);
}

std::string NembraScreenRecorderSampleHandler::getApplicationGroup() {
  log("Please specify non-empty value in the return value of the method getApplicationGroup in "
      "the class SampleHandler");
  return "";
}

std::string NembraScreenRecorderSampleHandler::movedTo() const {
  std::lock_guard lock(movedMutex_);
  return movedTo_;
}

void NembraScreenRecorderSampleHandler::broadcastStartedWithSetupInfo(
    const std::map<std::string, std::string>&) {
  OptionalError directoryError;
  const std::string temporary = FileSystem::shared().temporaryDirectory(&directoryError);
  const std::string uuid = newUuidString();
  videoOutputFullFileName_ = directoryError || uuid.empty() ? "" : temporary + "/" + uuid + ".mov";
  log("Video file name: " + videoOutputFullFileName_);
  log("Starting screen capture...");

  ScreenMovieWriter::VideoSettings videoSettings;
  videoSettings.width = screenWidth_;
  videoSettings.height = screenHeight_;
  videoSettings.codec = "H.264";

  if (videoOutputFullFileName_.empty()) {
    log("Failed to generate videoOutputFullFileName");
    return;
  }
  std::error_code ignored;
  std::filesystem::remove(videoOutputFullFileName_, ignored);

  OptionalError error;
  videoWriter_ = writerFactory_(videoOutputFullFileName_, error);
  if (!videoWriter_) {
    log("Failed to initialize videoWriter");
    return;
  }
  // The video input, expecting real-time data, with 32-bit ARGB pictures of the screen's size.
  if (videoSettings.width < 2 || videoSettings.height < 2) {
    log("Failed to instantiate AVAssetWriterInput");
    videoWriter_.reset();
    return;
  }
  if (!videoWriter_->canAddVideoInput(videoSettings)) {
    // A writer refusing its one video input is a programming error; a library must not end the
    // host's process for it, so it is logged and the handler stays without a writer.
    log("Assertion failed: [videoWriter canAddInput:videoWriterInput] in "
        "broadcastStartedWithSetupInfo:");
    videoWriter_.reset();
    return;
  }
  videoWriter_->addVideoInput(videoSettings);
  hasVideoInput_ = true;

  ScreenMovieWriter::AudioSettings audioSettings;
  if (videoWriter_->canAddAudioInput(audioSettings)) {
    videoWriter_->addAudioInput(audioSettings);
    hasAudioInput_ = true;
  }
}

void NembraScreenRecorderSampleHandler::processSampleBuffer(const RawMediaFrame& sample,
                                                            double seconds, SampleBufferType type) {
  switch (type) {
    case SampleBufferType::Video:
      captureOutput(sample, seconds);
      break;
    case SampleBufferType::AudioMic:
      captureAudioOutput(sample, seconds);
      break;
    case SampleBufferType::AudioApp:
      break;
  }
}

void NembraScreenRecorderSampleHandler::captureOutput(const RawMediaFrame& sample, double seconds) {
  if (!videoWriter_) return;
  const ScreenMovieWriter::Status status = videoWriter_->status();
  if (status == ScreenMovieWriter::Status::Unknown) {
    if (videoWriter_->startWriting()) {
      // This frame opens the session; it is not appended itself.
      videoWriter_->startSessionAtSourceTime(seconds);
      isRecordingVideo_ = true;
    } else {
      log("Failed to start writing");
    }
  } else if (status != ScreenMovieWriter::Status::Failed) {
    log("Capturing sample buffer");
    if (videoWriter_->isVideoInputReady()) {
      videoWriter_->appendVideo(sample, seconds);
      log("Capture success");
    } else {
      log("Error: videoWriterInput?.isReadyForMoreMediaData == false");
    }
  } else {
    log("Error: videoWriter!.status == .failed with error " + videoWriter_->error());
  }
}

void NembraScreenRecorderSampleHandler::captureAudioOutput(const RawMediaFrame& sample,
                                                           double seconds) {
  if (!videoWriter_ || !hasAudioInput_) return;
  // Before the first frame the writer has not started and lets the sound go.
  if (videoWriter_->isAudioInputReady()) videoWriter_->appendAudio(sample, seconds);
}

void NembraScreenRecorderSampleHandler::broadcastFinished() {
  if (!videoWriter_) return;
  log("Finishing capture");
  log("videoWriter.status: " + std::to_string(static_cast<long>(videoWriter_->status())));
  if (hasVideoInput_ && videoWriter_->isVideoInputReady()) {
    if (hasAudioInput_ && videoWriter_->isAudioInputReady()) {
      videoWriter_->markAudioInputAsFinished();
    }
    if (videoWriter_->status() != ScreenMovieWriter::Status::Failed) {
      log("videoWriterInput?.markAsFinished()...");
      videoWriter_->markVideoInputAsFinished();
      log("OK");
      log("videoWriter?.finishWriting()...");
      videoWriter_->finishWriting([this] { finishWritingCompleted(); });
      log("videoWriter.status: " + std::to_string(static_cast<long>(videoWriter_->status())));
      log("OK. finishWriting() is now continue running asynchronously...");
    }
  }
  while (videoWriter_->status() == ScreenMovieWriter::Status::Writing && isRecordingVideo_) {
    std::this_thread::sleep_for(pollInterval_);
  }
  if (videoWriter_->status() == ScreenMovieWriter::Status::Failed) {
    log("Error: videoWriter!.status == .failed with error " + videoWriter_->error());
  }
}

void NembraScreenRecorderSampleHandler::finishWritingCompleted() {
  log("videoWriter?.finishWriting() DONE!");
  log("Output file size: " + std::to_string(Utils::fileSize(videoOutputFullFileName_)));
  if (videoOutputFullFileName_.empty()) return;
  const auto directory = Utils::getSharedScreenRecordingDirectoryForAppGroup(getApplicationGroup());
  if (!directory) {
    log("Failed to get screen recording directory");
    return;
  }
  if (!Utils::moveFileWithSource(videoOutputFullFileName_, *directory)) {
    std::lock_guard lock(movedMutex_);
    movedTo_ =
        *directory + "/" + std::filesystem::path(videoOutputFullFileName_).filename().string();
  }
  isRecordingVideo_ = false;
}

}  // namespace nembra
