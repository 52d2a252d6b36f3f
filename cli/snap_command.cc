// `nembra snap [--camera DEV|lavfi] [--facing back|front] [--size WxH] [--extra k=v ...]
// [--capture-after S]`: one picture from the camera, uploaded as an image; prints the image's
// token once the service has confirmed it. With a UI the still-image recorder shows the preview
// and takes the picture on space (or by itself after --capture-after); with --ui none the first
// picture is taken at once.
#include <CLI/CLI.hpp>
#include <iostream>

#include "cli/camera_options.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/reply_status.h"
#include "nembra/screen_host.h"
#include "nembra/uploading_config.h"
#include "platform/media/media_log.h"
#include "recorder/capture_aid_module.h"
#include "recorder/image_recorder.h"

namespace nembra {
namespace {

struct SnapArguments {
  CameraArguments camera;
  std::vector<std::string> extra;
  double captureAfter = 0;
};

int fail(const std::string& message) {
  std::cerr << "nembra snap: " << message << "\n";
  return 1;
}

// Follows the picture's upload through the uploading delegate: its token, and the confirm.
struct SnapUpload {
  std::string path;
  std::string token;
  bool ended = false;
  std::string failure;
};

std::shared_ptr<NembraUploadingDelegate> followUpload(SnapUpload& upload) {
  auto delegate = std::make_shared<NembraUploadingDelegate>();
  delegate->uploadStartedWithPath = [&upload](const std::string& path, const std::string& token,
                                              const std::string&, std::shared_ptr<HttpTask>) {
    upload.path = path;
    upload.token = token;
  };
  delegate->uploadVerifiedWithPath = [&upload](const std::string&, const std::string& token,
                                               const std::string&, const HttpResponse& response,
                                               const OptionalError& error,
                                               const std::optional<Json>& json) {
    upload.token = token;
    upload.ended = true;
    OptionalError failure = error;
    if (!failure) failure = ReplyStatus::check("the confirm request", response, json);
    if (failure) upload.failure = "the service did not confirm the upload: " + failure->message;
  };
  delegate->errorWithError = [&upload](const Error& error) {
    upload.ended = true;
    upload.failure = "the upload URL request failed: " + error.message;
  };
  delegate->errorWithInfo = [&upload](const std::optional<Json>&, const Error& error, int32_t) {
    upload.ended = true;
    upload.failure = "the upload failed: " + error.message;
  };
  return delegate;
}

int runSnap(CliContext& context, const SnapArguments& arguments) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  CaptureAidScreenOptions options;
  std::string problem;
  if (!cameraFeedOptions(arguments.camera, options.camera, problem)) return fail(problem);
  options.captureAfter = std::chrono::milliseconds(static_cast<int>(arguments.captureAfter * 1000));
  std::string badExtra;
  Json extra = parseNameValues(arguments.extra, badExtra);
  if (extra.is_null()) return fail("--extra " + badExtra);
  nembra.uploadingConfig().addExtraArgs(extra);

  SnapUpload upload;
  auto delegate = followUpload(upload);
  nembra.setUploadingDelegate(delegate);

  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  std::unique_ptr<NembraScreenHost> host;
  std::shared_ptr<CameraFeed> feed;
  std::shared_ptr<ImageRecorder> recorder;
  std::string captureFailure;
  if (kind == UiKind::None) {
    OptionalError error;
    feed = CameraFeed::open(options.camera, error);
    if (!feed) return fail(error->message);
    recorder = std::make_shared<ImageRecorder>(nembra);
    feed->addObserver(recorder);
    ImageRecorder::Callbacks callbacks;
    callbacks.captured = [&](const ImageRecorderResult& result) {
      feed->stop();
      if (result.error) captureFailure = result.error->message;
    };
    recorder->takePicture(std::move(callbacks));
    feed->start();
  } else {
    OptionalError error;
    host = NembraScreenHost::start(kind, nembra.mainQueue(), error);
    if (!host) return fail(error ? error->message : "cannot start the UI");
    installCaptureAidScreens(options);
    nembra.setScreenPresenter(host->presenter());
    nembra.startImageRecorder();
  }
  // Until the upload ends, the picture fails, or the screen closes with no picture taken.
  nembra.mainQueue().runUntil(
      [&] {
        return upload.ended || !captureFailure.empty() ||
               (host && host->screensShown() == 0 && upload.path.empty());
      },
      std::chrono::hours(24));
  if (feed) feed->stop();
  host.reset();
  if (!captureFailure.empty()) return fail(captureFailure);
  if (!upload.ended) return fail("no picture taken");
  if (!upload.failure.empty()) return fail(upload.failure);
  std::cout << upload.token << "\n";
  return 0;
}

}  // namespace

void registerSnapCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static SnapArguments arguments;
  CLI::App* command = app.add_subcommand(
      "snap", "Take one picture with the camera, upload it as an image and print its token");
  addCameraOptions(*command, arguments.camera);
  command->add_option("--extra", arguments.extra, "Extra request argument name=value")->take_all();
  command->add_option("--capture-after", arguments.captureAfter,
                      "With a UI, take the picture by itself after SECONDS");
  command->callback([&context, &exitCode] { exitCode = runSnap(context, arguments); });
}

}  // namespace nembra
