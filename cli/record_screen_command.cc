// `nembra record-screen --app-group G [--source portal|x11] [--display :N] [--mic DEV|lavfi|none]
// [--duration S]`: the screen recorder's sample handler driven by a screen broadcast (a Wayland
// session's ScreenCast portal when it answers, else X11); the movie lands in the group's shared
// directory, whose path is printed. Ends after --duration seconds, or on Ctrl-C / SIGTERM.
//
// `nembra watch-screen-recordings --app-group G`: the main application's side, uploading every
// movie that lands there (printing "token<TAB>file" for each) until interrupted.
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "capture/nembra_screen_recorder_sample_handler.h"
#include "capture/screen_broadcast.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/nembra_videos.h"
#include "platform/media/media_log.h"

namespace nembra {
namespace {

struct RecordScreenArguments {
  std::string appGroup;
  std::string source;  // "portal", "x11", or "" to choose
  std::string display;
  std::string mic = "";
  double duration = 0;
};

std::atomic<ScreenBroadcast*> runningBroadcast{nullptr};
std::atomic<bool> interrupted{false};

extern "C" void stopOnSignal(int) {
  interrupted = true;
  if (ScreenBroadcast* broadcast = runningBroadcast.load()) broadcast->stop();
}

class CliSampleHandler final : public NembraScreenRecorderSampleHandler {
 public:
  explicit CliSampleHandler(std::string group) : group_(std::move(group)) {}
  // Without a group the base's warning is what the user should see.
  std::string getApplicationGroup() override {
    return group_.empty() ? NembraScreenRecorderSampleHandler::getApplicationGroup() : group_;
  }

 private:
  std::string group_;
};

int fail(const std::string& command, const std::string& message) {
  std::cout << std::flush;
  std::cerr << "nembra " << command << ": " << message << "\n";
  return 1;
}

int runRecordScreen(CliContext& context, const RecordScreenArguments& arguments) {
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  if (arguments.duration < 0) return fail("record-screen", "--duration must not be negative");
  CliSampleHandler handler(arguments.appGroup);
  const bool debug = context.options.debug;
  handler.setLog([debug](const std::string& line) {
    // One line per frame is for --debug only.
    if (!debug && (line == "Capturing sample buffer" || line == "Capture success")) return;
    std::cerr << line << "\n";
  });
  ScreenBroadcastOptions options;
  options.source = arguments.source == "portal" ? ScreenSourceKind::Portal
                   : arguments.source == "x11"  ? ScreenSourceKind::X11
                                                : ScreenSourceKind::Automatic;
  options.display = arguments.display;
  options.withMicrophone = arguments.mic != "none";
  options.microphone = arguments.mic;
  options.duration = arguments.duration;
  OptionalError error;
  auto broadcast = ScreenBroadcast::open(options, handler, error);
  if (!broadcast) return fail("record-screen", error->message);
  std::cerr << "recording the screen"
            << (broadcast->source() == ScreenSourceKind::Portal ? " through the screen-cast portal"
                                                                : " from X11")
            << " (" << broadcast->width() << " x " << broadcast->height() << ")"
            << (arguments.duration > 0 ? "" : " until interrupted") << "\n";
  runningBroadcast = broadcast.get();
  auto previousInt = std::signal(SIGINT, stopOnSignal);
  auto previousTerm = std::signal(SIGTERM, stopOnSignal);
  if (interrupted) broadcast->stop();
  const OptionalError ended = broadcast->run();
  runningBroadcast = nullptr;
  std::signal(SIGINT, previousInt);
  std::signal(SIGTERM, previousTerm);
  if (ended) std::cerr << "nembra record-screen: " << ended->message << "\n";
  const std::string moved = handler.movedTo();
  if (moved.empty()) {
    if (broadcast->framesDelivered() == 0) return fail("record-screen", "no frame was recorded");
    return fail("record-screen", "the movie stays at " + handler.videoOutputFullFileName());
  }
  // The movie was saved even when the display went away; the exit code still says so.
  std::cout << moved << "\n";
  // A writer that failed (a full disk) still hands its file over; that file is not playable.
  const ScreenMovieWriter* writer = handler.videoWriter();
  if (writer && writer->status() == ScreenMovieWriter::Status::Failed) {
    return fail("record-screen", "the movie could not be finished (" + writer->error() +
                                     "): " + moved + " will not play");
  }
  return ended ? 1 : 0;
}

int runWatch(CliContext& context, const std::string& appGroup) {
  if (appGroup.empty()) return fail("watch-screen-recordings", "--app-group must not be empty");
  Nembra& nembra = context.nembra();
  nembra.setLogSink([debug = context.options.debug](const std::string& line) {
    if (debug) std::cerr << line << "\n";
  });
  nembra.enableDebugLogs = true;
  NembraVideos& videos = nembra.videos();
  videos.setAppGroup(appGroup);
  int failures = 0;
  videos.onScreenRecordingUploaded = [&failures](const std::string& path, const std::string& token,
                                                 const OptionalError& error) {
    if (error) {
      ++failures;
      std::cerr << "nembra watch-screen-recordings: " << path << ": " << error->message << "\n";
      return;
    }
    std::cout << token << "\t" << path << std::endl;
  };
  if (!videos.setupFileWatcher()) {
    return fail("watch-screen-recordings", "cannot watch the shared directory of " + appGroup);
  }
  std::cerr << "watching the screen recordings of " << appGroup << "\n";
  auto previousInt = std::signal(SIGINT, stopOnSignal);
  auto previousTerm = std::signal(SIGTERM, stopOnSignal);
  while (!interrupted) {
    nembra.mainQueue().runUntil([] { return interrupted.load(); }, std::chrono::milliseconds(200));
  }
  std::signal(SIGINT, previousInt);
  std::signal(SIGTERM, previousTerm);
  return failures == 0 ? 0 : 1;
}

}  // namespace

void registerRecordScreenCommands(CLI::App& app, CliContext& context, int& exitCode) {
  static RecordScreenArguments arguments;
  CLI::App* command = app.add_subcommand(
      "record-screen",
      "Record the screen and the microphone into a movie that lands in the application "
      "group's shared directory; prints its path");
  command->add_option("--app-group", arguments.appGroup, "Application group")->required();
  command
      ->add_option("--source", arguments.source,
                   "Screen: portal (Wayland's ScreenCast portal) or x11; default: the portal "
                   "when WAYLAND_DISPLAY is set and it answers, else X11")
      ->check(CLI::IsMember({"portal", "x11"}));
  command->add_option("--display", arguments.display, "X11 display (default $DISPLAY)");
  command->add_option("--mic", arguments.mic,
                      "Microphone: lavfi (a virtual tone), pulse:NAME, alsa:NAME, none; default: "
                      "the default PulseAudio source, else ALSA's");
  command->add_option("--duration", arguments.duration, "Stop after S seconds (default: Ctrl-C)");
  command->callback([&context, &exitCode] { exitCode = runRecordScreen(context, arguments); });

  static std::string watchGroup;
  CLI::App* watch = app.add_subcommand(
      "watch-screen-recordings",
      "Upload every screen recording that lands in the application group's shared directory, "
      "until interrupted; prints token and file of each");
  watch->add_option("--app-group", watchGroup, "Application group")->required();
  watch->callback([&context, &exitCode] { exitCode = runWatch(context, watchGroup); });
}

}  // namespace nembra
