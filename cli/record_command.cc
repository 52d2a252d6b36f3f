// `nembra record`: the camera recorder in the UI the global --ui picks (window: preview,
// countdown, duration and buttons; terminal: space record/stop, p pause, c camera, q close, the
// rest on the status line). Every option sets one RecorderConfig field. With --ui none the
// recording starts by itself, --max-duration ends it, and the recorded preview and the cover
// choice are answered as a user taking the defaults would ("Use Video", the default cover).
// Prints the upload's progress and the video token once the service has it; an upload that
// fails names the service and leaves the recording where it was written. `--recover` only
// finishes recordings a killed process left behind.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <iostream>

#include "api/utils.h"
#include "cli/cli_context.h"
#include "cli/progress_board.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/screen_host.h"
#include "platform/media/media_log.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/cover_selector_controller.h"
#include "recorder/nembra_recorded_video_preview.h"
#include "recorder/nembra_recorder.h"
#include "recorder/recorder_screens.h"
#include "recorder/recording_recovery.h"

namespace nembra {
namespace {

struct RecordArguments {
  std::string camera = "";
  std::string microphone = "";
  std::string quality;
  std::string facing;
  int startDelay = -1;
  bool noAutoStart = false;
  int64_t maxDuration = -1;
  bool pauseMode = false;
  bool confirmStop = false;
  bool sendImmediately = false;
  bool coverShot = false;
  bool faceOutline = false;
  bool live = false;
  std::string rerecord;
  std::vector<std::string> extra;
  bool recover = false;
};

int fail(const std::string& message) {
  std::cout << std::flush;
  std::cerr << "nembra record: " << message << "\n";
  return 1;
}

// "HOST:PORT" of a service URL, for messages.
std::string serviceAddress(const std::string& url) {
  std::string rest = url;
  if (const size_t scheme = rest.find("://"); scheme != std::string::npos) {
    rest = rest.substr(scheme + 3);
  }
  return rest.substr(0, rest.find('/'));
}

// With no UI nobody answers the screens after the recording: take the defaults a user would.
// True when a screen was answered.
bool answerForTheUser(ScreenPresenter& presenter, NembraRecorder& recorder, Screen*& answered) {
  Screen* top = presenter.topmost();
  // Each screen once: it may stay on top a moment after its answer.
  if (!top || top == answered) return false;
  answered = top;
  if (top == recorder.recordedVideoPreview().get()) {
    recorder.recordedVideoPreview()->upload();
    return true;
  }
  if (auto* selector = dynamic_cast<CoverSelectorController*>(top)) {
    selector->useDefaultCover();
    return true;
  }
  return false;
}

int recoverAll() {
  const std::string directory = Utils::getDocumentsDirectory();
  int failures = 0;
  for (const std::string& path : RecordingRecovery::findInterrupted(directory)) {
    if (OptionalError error = RecordingRecovery::finish(path)) {
      ++failures;
      std::cerr << "nembra record: " << path << ": " << error->message << "\n";
    } else {
      std::printf("recovered: %s\n", path.c_str());
    }
  }
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

OptionalError configure(const RecordArguments& args, RecorderConfig& config) {
  if (!args.quality.empty()) {
    if (args.quality == "high") {
      config.setVideoQuality(QUALITY_HIGH);
    } else if (args.quality == "medium") {
      config.setVideoQuality(QUALITY_MEDIUM);
    } else if (args.quality == "low") {
      config.setVideoQuality(QUALITY_LOW);
    } else {
      return Error::invalidArgument("--quality takes high, medium or low");
    }
  }
  if (!args.facing.empty()) {
    if (args.facing != "back" && args.facing != "front") {
      return Error::invalidArgument("--facing takes back or front");
    }
    config.setFacing(args.facing == "front" ? FACING_FRONT : FACING_BACK);
  }
  if (args.startDelay >= 0) config.setStartDelay(args.startDelay);
  if (args.noAutoStart) config.setShouldAutoStartRecording(false);
  if (args.maxDuration >= 0) config.setMaxDuration(args.maxDuration);
  if (args.pauseMode) config.setIsPausedMode(true);
  if (args.confirmStop) config.setShouldConfirmStopRecording(true);
  if (args.sendImmediately) config.setShouldSendImmediately(true);
  if (args.coverShot) config.setShouldEnableCoverShot(true);
  if (args.faceOutline) config.setShouldShowFaceOutline(true);
  if (args.live) config.setIsLiveStreaming(true);
  std::string badExtra;
  Json extra = parseNameValues(args.extra, badExtra);
  if (extra.is_null()) return Error::invalidArgument("--extra " + badExtra);
  if (!extra.empty()) config.addExtraArgs(extra);
  return std::nullopt;
}

int runRecord(CliContext& context, const RecordArguments& args) {
  if (args.recover) return recoverAll();
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Warnings : MediaLogLevel::Quiet);
  if (OptionalError error = configure(args, nembra.recorderConfig())) return fail(error->message);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  OptionalError error;
  std::unique_ptr<NembraScreenHost> host = NembraScreenHost::start(kind, nembra.mainQueue(), error);
  if (!host) return fail(error ? error->message : "cannot start the UI");

  // What the recording leads to, all on the main queue.
  struct Outcome {
    bool stopped = false;
    bool uploading = false;
    bool done = false;
    std::string token;
    std::string failure;
    bool unreachable = false;  // the service could not be reached at all
  };
  auto outcome = std::make_shared<Outcome>();
  ProgressBoard board(stderr, isatty(STDERR_FILENO) != 0);
  auto delegate = std::make_shared<NembraRecorderDelegate>();
  delegate->recorderStopped = [outcome](const std::string& url) {
    outcome->stopped = true;
    std::printf("recorded: %s\n", url.c_str());
    std::fflush(stdout);
  };
  delegate->recorderCountdown = [kind](int seconds) {
    if (kind == UiKind::None) std::fprintf(stderr, "recording in %d\n", seconds);
  };
  nembra.setRecorderDelegate(delegate);
  auto uploads = std::make_shared<NembraUploadingDelegate>();
  std::map<std::string, size_t> lines;
  uploads->uploadProgressWithPath = [&board, &lines](const std::string& path, const std::string&,
                                                     const std::string&, int64_t sent,
                                                     int64_t expected) {
    auto it = lines.find(path);
    if (it == lines.end()) it = lines.emplace(path, board.add("upload")).first;
    board.update(it->second, sent, expected);
    board.draw();
  };
  uploads->uploadFinishedWithPath = [outcome](const std::string& path, const std::string& token,
                                              const std::string&) {
    outcome->token = token;
    // A live stream is done once its submit has answered.
    if (path == "live") outcome->done = true;
  };
  nembra.setUploadingDelegate(uploads);

  MainQueue& mainQueue = nembra.mainQueue();
  std::shared_ptr<NembraRecorder> recorder;
  RecorderScreens::install(std::make_shared<RecorderModuleScreens>(
      [&args, outcome, &mainQueue](RecorderEnvironment& env) {
        env.capture.camera = args.camera;
        env.capture.microphone = args.microphone;
        auto wrap = [outcome, &mainQueue](RecorderEnvironment::UploadCallback done) {
          outcome->uploading = true;
          return [outcome, &mainQueue, done](const std::optional<Json>& json,
                                             const OptionalError& error) {
            if (done) done(json, error);
            mainQueue.async([outcome, json, error] {
              if (error) outcome->failure = error->message;
              outcome->unreachable = error && (error->kind == ErrorKind::Transport ||
                                               error->kind == ErrorKind::Timeout);
              if (!error && outcome->token.empty() && json && json->is_object() &&
                  json->contains("token") && (*json)["token"].is_string()) {
                outcome->token = (*json)["token"].get<std::string>();
              }
              outcome->done = true;
            });
          };
        };
        auto create = env.createVideo;
        env.createVideo = [create, wrap](const Json& data, const std::string& path,
                                         StillImagePtr cover,
                                         RecorderEnvironment::UploadCallback done) {
          create(data, path, std::move(cover), wrap(std::move(done)));
        };
        auto rerecord = env.rerecordVideo;
        env.rerecordVideo = [rerecord, wrap](const std::string& token, const std::string& path,
                                             const Json& data,
                                             RecorderEnvironment::UploadCallback done) {
          rerecord(token, path, data, wrap(std::move(done)));
        };
      },
      [&recorder](const std::shared_ptr<NembraRecorder>& made) { recorder = made; }));
  nembra.setScreenPresenter(host->presenter());
  if (args.rerecord.empty()) {
    nembra.record();
  } else {
    nembra.record(args.rerecord);
  }
  if (!recorder) return fail("the recorder could not be shown");
  // Whichever way the command ends, the recorder's session work is done before the application
  // object goes.
  struct SessionDrain {
    std::shared_ptr<NembraRecorder>& recorder;
    ~SessionDrain() {
      if (recorder) recorder->waitForSessionQueue();
    }
  } drain{recorder};
  mainQueue.runUntil([&] { return recorder->state() != RecorderState::Configuring; },
                     std::chrono::seconds(30));
  if (recorder->state() == RecorderState::Failed ||
      recorder->state() == RecorderState::NotAuthorised) {
    const std::string text =
        recorder->state() == RecorderState::NotAuthorised
            ? "AVCam doesn't have permission to use the camera, please change privacy settings"
            : "Unable to capture media";
    host->closeAll();
    return fail(text + " (" + recorder->setupError() + ")");
  }
  if (!args.microphone.empty() && args.microphone != "none" &&
      !recorder->microphoneError().empty()) {
    host->closeAll();
    return fail("no microphone: " + recorder->microphoneError());
  }
  if (kind == UiKind::None) {
    // Nobody can press record: start as the button would.
    const RecorderConfig& config = nembra.recorderConfig();
    if (!(config.shouldAutoStartRecording() && config.getStartDelay() > 0)) {
      mainQueue.runUntilIdle();
      recorder->toggleMovieRecording();
    }
  }
  // Without a UI nobody can answer the live-streaming "Error" alert: it ends the command.
  std::shared_ptr<ScreenPresenter> presenter = host->presenter();
  Screen* answered = recorder.get();
  mainQueue.runUntil(
      [&] {
        if (kind == UiKind::None) answerForTheUser(*presenter, *recorder, answered);
        return host->screensShown() == 0 ||
               (kind == UiKind::None && !recorder->lastStreamingError().empty());
      },
      std::chrono::hours(24));
  if (!recorder->recordingError().empty()) {
    std::cerr << "nembra record: the recording stopped early (" << recorder->recordingError()
              << "); what was recorded is kept\n";
  }
  if (host->screensShown() > 0) {
    const std::string message = recorder->lastStreamingError();
    host->closeAll();
    mainQueue.runUntilIdle();
    return fail("Error: " + message);
  }
  // Dismissed for the upload: wait for it to end.
  if (outcome->stopped || nembra.recorderConfig().isLiveStreaming()) {
    // The upload starts once the default cover is taken; a cover that cannot be taken means
    // no upload.
    const auto stopped = std::chrono::steady_clock::now();
    mainQueue.runUntil(
        [&] {
          return outcome->done ||
                 (!outcome->uploading &&
                  std::chrono::steady_clock::now() - stopped > std::chrono::seconds(30));
        },
        std::chrono::minutes(60));
    if (!outcome->done && !outcome->uploading && !nembra.recorderConfig().isLiveStreaming()) {
      return fail("nothing was uploaded: no cover could be taken from the recording");
    }
  }
  const std::string recorded = recorder->recordedPath();
  recorder->waitForSessionQueue();
  recorder.reset();
  for (auto& [path, line] : lines) board.finish(line, outcome->failure.empty() ? "done" : "failed");
  if (!outcome->failure.empty()) {
    std::string message = "upload failed: ";
    if (outcome->unreachable) {
      message += "service unreachable at " + serviceAddress(nembra.config().server_api_url) + " (" +
                 outcome->failure + ")";
    } else {
      message += outcome->failure;
    }
    // The SDK removes a recording only once the service has it.
    if (!recorded.empty() && ::access(recorded.c_str(), F_OK) == 0) {
      message += "; the recording is kept at " + recorded;
    }
    return fail(message);
  }
  if (!outcome->token.empty()) std::printf("video token: %s\n", outcome->token.c_str());
  std::fflush(stdout);
  return 0;
}

}  // namespace

void registerRecordCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static RecordArguments args;
  CLI::App* command = app.add_subcommand(
      "record", "Record a video with the camera and microphone and upload it (or stream live)");
  command->add_option("--camera", args.camera,
                      "V4L2 device, lavfi for the virtual camera, or lavfi:GRAPH");
  command->add_option("--mic", args.microphone,
                      "Microphone: a device (pulse:NAME, alsa:NAME), lavfi for a tone, or none");
  command->add_option("--quality", args.quality, "high, medium or low");
  command->add_option("--facing", args.facing, "back or front");
  command->add_option("--start-delay", args.startDelay, "Countdown seconds");
  command->add_flag("--no-auto-start", args.noAutoStart, "Wait for the record button");
  command->add_option("--max-duration", args.maxDuration, "Stop after SECONDS (0: no limit)");
  command->add_flag("--pause-mode", args.pauseMode, "Offer the pause button");
  command->add_flag("--confirm-stop", args.confirmStop, "Ask before stopping");
  command->add_flag("--send-immediately", args.sendImmediately, "Upload without the preview");
  command->add_flag("--cover-shot", args.coverShot, "Choose the cover before the upload");
  command->add_flag("--face-outline", args.faceOutline, "Show the face outline");
  command->add_flag("--live", args.live, "Stream live instead of recording a file");
  command->add_option("--rerecord", args.rerecord, "Replace the stream of the video TOKEN");
  command->add_option("--extra", args.extra, "NAME=VALUE sent with the video (repeatable)");
  command->add_flag("--recover", args.recover,
                    "Finish recordings a killed process left behind, then exit");
  command->callback([&context, &exitCode] { exitCode = runRecord(context, args); });
}

}  // namespace nembra
