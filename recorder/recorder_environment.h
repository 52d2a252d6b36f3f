// What the camera recorder needs from the platform and the service, gathered so that tests can
// replace each piece (a fake capture, writer, timer, cover and upload) and drive the recorder
// through the headless view. platform() gives the real ones.
//
// Threading: the functions are called on the queues the recorder documents for each step.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "nembra/json.h"
#include "nembra/still_image.h"
#include "platform/media/movie_writer.h"
#include "platform/vision/face_detector.h"
#include "recorder/capture_session.h"

namespace nembra {

class Nembra;
class TaskQueue;

// A repeating timer; destroying it stops it.
class RecorderTimer {
 public:
  virtual ~RecorderTimer() = default;
};

struct RecorderEnvironment {
  using UploadCallback =
      std::function<void(const std::optional<Json>& result, const OptionalError&)>;

  // Serial queue for session changes, recording start and stop. Null: one of the recorder's own
  // ("com.nembra.recorder.session").
  std::shared_ptr<TaskQueue> sessionQueue;
  std::function<std::unique_ptr<CaptureSession>()> makeCaptureSession;
  std::function<std::unique_ptr<MovieWriter>(
      const std::string& path, const MovieWriterSettings& settings, OptionalError& error)>
      makeWriter;
  // Calls |tick| on the main queue every |period|.
  std::function<std::unique_ptr<RecorderTimer>(std::chrono::milliseconds period,
                                               std::function<void()> tick)>
      repeatingTimer;
  // The middle frame of the recording at |path|; |done| is called at most once, on the main
  // queue, and only when the frame could be taken.
  std::function<void(const std::string& path, std::function<void(StillImagePtr)> done)>
      defaultCover;
  // The videos endpoint's create and re-record flows.
  std::function<void(const Json& data, const std::string& path, StillImagePtr cover,
                     UploadCallback done)>
      createVideo;
  std::function<void(const std::string& token, const std::string& path, const Json& data,
                     UploadCallback done)>
      rerecordVideo;
  // The face detector the outline uses; null, with the error set, when there is none.
  std::function<std::unique_ptr<FaceDetector>(OptionalError& error)> makeFaceDetector;
  // Where recordings are written (the documents directory).
  std::string recordingsDirectory;
  // The interface orientation: 1 portrait, 2 upside down, 3 landscape right, 4 landscape left.
  int orientation = 3;
  // Camera and microphone devices; facing and size are filled in from the configuration.
  CaptureSettings capture;

  // The real capture (FFmpeg devices), writer, main-queue timers, frame grabber and
  // application.videos().
  static RecorderEnvironment platform(Nembra& application);
};

}  // namespace nembra
