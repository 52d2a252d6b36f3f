// `nembra record-audio [--mic DEV|lavfi] [--pause-mode] [--max-duration S] [--extra
// NAME=VALUE...]`: the audio recorder screen in the window or the terminal (level bar and time
// while recording; play, slider, record again, upload). Prints the audio's token once the service
// confirms the upload. With --ui none there is no one to press the buttons: it records for
// --max-duration seconds (3 by default) and uploads the take.
#include <CLI/CLI.hpp>
#include <atomic>
#include <iostream>

#include "capture/capture_screens_module.h"
#include "capture/nembra_audio_recorder.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/reply_status.h"
#include "nembra/screen_host.h"
#include "platform/media/media_log.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

struct RecordAudioArguments {
  std::string mic;
  bool pauseMode = false;
  int64_t maxDuration = 0;
  std::vector<std::string> extra;
};

int fail(const std::string& message) {
  std::cout << std::flush;
  std::cerr << "nembra record-audio: " << message << "\n";
  return 1;
}

int runRecordAudio(CliContext& context, const RecordAudioArguments& arguments) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  std::string badExtra;
  Json extra = parseNameValues(arguments.extra, badExtra);
  if (extra.is_null()) return fail("--extra " + badExtra);
  if (arguments.maxDuration < 0) return fail("--max-duration must not be negative");
  RecorderConfig& config = nembra.recorderConfig();
  config.setIsPausedMode(arguments.pauseMode);
  config.setExtraArgs(extra);
  const bool scripted = kind == UiKind::None;
  config.setMaxDuration(scripted && arguments.maxDuration == 0 ? 3 : arguments.maxDuration);

  // The outcome: the token once confirmed, or why there is none.
  std::atomic<bool> done{false};
  std::string token;
  std::string failure;
  auto uploads = std::make_shared<NembraUploadingDelegate>();
  uploads->uploadStartedWithPath = [&](const std::string&, const std::string& t, const std::string&,
                                       std::shared_ptr<HttpTask>) { token = t; };
  uploads->uploadVerifiedWithPath = [&](const std::string&, const std::string& t,
                                        const std::string&, const HttpResponse& response,
                                        const OptionalError& error,
                                        const std::optional<Json>& json) {
    OptionalError problem = error;
    if (!problem) problem = ReplyStatus::check("the confirm request", response, json);
    if (problem) failure = "the service did not confirm the upload: " + problem->message;
    token = t;
    done = true;
  };
  uploads->errorWithError = [&](const Error& error) {
    failure = error.message;
    done = true;
  };
  uploads->errorWithInfo = [&](const std::optional<Json>&, const Error& error, int32_t) {
    failure = error.message;
    done = true;
  };
  nembra.setUploadingDelegate(uploads);
  bool submitted = false;
  auto recorder = std::make_shared<NembraRecorderDelegate>();
  recorder->recorderManuallySubmitted = [&] { submitted = true; };
  nembra.setRecorderDelegate(recorder);
  // Runs on whichever thread logs, and may outlive this function: it holds nothing of its frame.
  nembra.setLogSink([debug = context.options.debug](const std::string& line) {
    if (debug) std::cerr << line << "\n";
  });
  nembra.enableDebugLogs = true;

  auto module = installCaptureScreens();
  module->configureAudioRecorder = [&arguments](NembraAudioRecorder& screen) {
    screen.setMicrophone(arguments.mic);
  };

  if (scripted) {
    HeadlessUi ui;
    auto presenter = std::make_shared<ScreenPresenter>(ui, nembra.mainQueue());
    nembra.setScreenPresenter(presenter);
    nembra.startAudioRecorder();
    nembra.mainQueue().runUntilIdle();
    HeadlessScreenView* view = ui.topView();
    if (!view || !view->press("record")) return fail("the recorder did not open");
    nembra.mainQueue().runUntil(
        [&] { return view->label("status") != "Recording" || view->alert().has_value(); },
        std::chrono::seconds(config.getMaxDuration() + 30));
    if (view->alert()) return fail(view->alert()->message);
    std::cerr << "recorded " << view->label("duration") << "\n";
    if (!view->press("upload")) return fail("nothing was recorded");
    nembra.mainQueue().runUntil([&] { return done.load(); }, std::chrono::minutes(30));
  } else {
    OptionalError error;
    auto host = NembraScreenHost::start(kind, nembra.mainQueue(), error);
    if (!host) return fail(error ? error->message : "cannot start the UI");
    nembra.setScreenPresenter(host->presenter());
    nembra.startAudioRecorder();
    host->runUntilClosed(std::chrono::hours(24));
    if (!submitted) return fail("closed without uploading");
    nembra.mainQueue().runUntil([&] { return done.load(); }, std::chrono::minutes(30));
  }
  if (!done) return fail(failure.empty() ? "the upload did not finish" : failure);
  if (!failure.empty()) return fail(failure);
  std::cout << token << "\n";
  return 0;
}

}  // namespace

void registerRecordAudioCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static RecordAudioArguments arguments;
  CLI::App* command = app.add_subcommand(
      "record-audio",
      "Record audio from the microphone and upload it; prints the audio token. With --ui none "
      "it records --max-duration seconds (3 by default) and uploads at once");
  command->add_option("--mic", arguments.mic,
                      "Microphone: lavfi (a virtual tone), pulse:NAME, alsa:NAME; default: the "
                      "default PulseAudio source, else ALSA's");
  command->add_flag("--pause-mode", arguments.pauseMode, "Offer pause and resume while recording");
  command->add_option("--max-duration", arguments.maxDuration, "Stop recording after S seconds");
  command->add_option("--extra", arguments.extra, "Extra upload argument name=value")->take_all();
  command->callback([&context, &exitCode] { exitCode = runRecordAudio(context, arguments); });
}

}  // namespace nembra
