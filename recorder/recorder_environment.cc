#include "recorder/recorder_environment.h"

#include <cstdio>

#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_videos.h"
#include "platform/dispatch/timer.h"
#include "platform/media/media_backend.h"
#include "recorder/cover_selector_controller.h"
#include "recorder/media_capture_session.h"

namespace nembra {

namespace {

class MainQueueTimer final : public RecorderTimer {
 public:
  explicit MainQueueTimer(std::unique_ptr<Timer> timer) : timer_(std::move(timer)) {}
  ~MainQueueTimer() override { timer_->cancel(); }

 private:
  std::unique_ptr<Timer> timer_;
};

}  // namespace

RecorderEnvironment RecorderEnvironment::platform(Nembra& application) {
  RecorderEnvironment env;
  MainQueue& mainQueue = application.mainQueue();
  env.makeCaptureSession = [] { return std::make_unique<MediaCaptureSession>(); };
  env.makeWriter = [](const std::string& path, const MovieWriterSettings& settings,
                      OptionalError& error) {
    return MediaBackend::shared().createMovieWriter(path, settings, error);
  };
  env.repeatingTimer = [&mainQueue](std::chrono::milliseconds period, std::function<void()> tick) {
    return std::make_unique<MainQueueTimer>(Timer::repeating(mainQueue, period, std::move(tick)));
  };
  env.defaultCover = [&mainQueue](const std::string& path,
                                  std::function<void(StillImagePtr)> done) {
    CoverSelectorController::getDefaultCoverWithPath(path, mainQueue, std::move(done));
  };
  env.createVideo = [&application](const Json& data, const std::string& path, StillImagePtr cover,
                                   UploadCallback done) {
    application.videos().createVideoWithData(
        data, path, std::move(cover),
        [done, path](const std::optional<Json>& json, const HttpResponse&,
                     const OptionalError& error) {
          // The recording is the SDK's own file: it goes once the service has it.
          if (!error) std::remove(path.c_str());
          if (done) done(json, error);
        },
        {});
  };
  env.rerecordVideo = [&application](const std::string& token, const std::string& path,
                                     const Json& data, UploadCallback done) {
    application.videos().rerecordVideoWithToken(
        token, path, data,
        [done](const std::optional<Json>& json, const HttpResponse&, const OptionalError& error) {
          if (done) done(json, error);
        },
        {});
  };
  env.makeFaceDetector = [](OptionalError& error) { return nembra::makeFaceDetector(error); };
  env.recordingsDirectory = Utils::getDocumentsDirectory();
  env.capture.camera = "";
  env.capture.microphone = "";
  return env;
}

}  // namespace nembra
