// `nembra stream`: publishes a file, a test pattern or a camera live to an RTMP server.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <thread>

#include "cli/cli_context.h"
#include "nembra/json.h"
#include "platform/media/media_backend.h"
#include "platform/media/media_file_source.h"
#include "platform/media/media_log.h"
#include "streaming/live_publisher.h"
#include "streaming/stream_log.h"
#include "streaming/uri.h"

namespace nembra {

namespace {

struct StreamOptions {
  std::string url;
  std::string name;
  std::string source;
  double duration = 0.0;
  std::string size;
  int fps = 0;
  std::string bitrate;
  bool asFastAsPossible = false;
  bool reencode = false;
};

// Set by SIGINT / SIGTERM; the status loop turns it into a stop.
volatile std::sig_atomic_t interruptSignal = 0;

extern "C" void onInterrupt(int signalNumber) {
  interruptSignal = signalNumber;
  // A second Ctrl-C ends the program at once.
  std::signal(signalNumber, SIG_DFL);
}

constexpr auto kStatusInterval = std::chrono::milliseconds(100);

bool parseSize(const std::string& text, int& width, int& height) {
  const auto x = text.find('x');
  if (x == std::string::npos) return false;
  try {
    size_t used = 0;
    width = std::stoi(text.substr(0, x), &used);
    if (used != x) return false;
    height = std::stoi(text.substr(x + 1), &used);
    if (used != text.size() - x - 1) return false;
  } catch (const std::exception&) {
    return false;
  }
  return width > 0 && height > 0;
}

// "2500000", "2500k" or "2.5M" bits per second.
bool parseBitrate(const std::string& text, int& bitrate) {
  try {
    size_t used = 0;
    double value = std::stod(text, &used);
    const std::string suffix = text.substr(used);
    if (suffix == "k" || suffix == "K") {
      value *= 1e3;
    } else if (suffix == "m" || suffix == "M") {
      value *= 1e6;
    } else if (!suffix.empty()) {
      return false;
    }
    if (!(value >= 1e3 && value <= 1e9)) return false;
    bitrate = static_cast<int>(value);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

std::string minutesAndSeconds(double seconds) {
  char text[32];
  const int whole = static_cast<int>(seconds);
  std::snprintf(text, sizeof(text), "%02d:%02d.%d", whole / 60, whole % 60,
                static_cast<int>((seconds - whole) * 10));
  return text;
}

double kilobitsPerSecond(const LivePublisherStats& stats) {
  return stats.elapsed > 0 ? static_cast<double>(stats.sent.bytes) * 8 / 1000 / stats.elapsed : 0;
}

std::string statusLine(const LivePublisherStats& stats) {
  char text[160];
  std::snprintf(text, sizeof(text),
                "elapsed %s  media %s  frames %llu video / %llu audio  bitrate %.0f kbit/s  "
                "queue %zu",
                minutesAndSeconds(stats.elapsed).c_str(),
                minutesAndSeconds(stats.mediaTime).c_str(),
                static_cast<unsigned long long>(stats.sent.videoFrames),
                static_cast<unsigned long long>(stats.sent.audioFrames), kilobitsPerSecond(stats),
                stats.queueDepth);
  return text;
}

std::unique_ptr<MediaSource> openSource(const StreamOptions& options, int width, int height,
                                        std::string& error) {
  OptionalError failure;
  std::unique_ptr<MediaSource> source;
  if (options.source == "lavfi") {
    source = openTestPatternSource(width > 0 ? width : 1280, height > 0 ? height : 720,
                                   options.fps > 0 ? options.fps : 30, failure);
  } else if (options.source.rfind("/dev/video", 0) == 0) {
    source = openCameraSource(options.source, width, height, options.fps, failure);
  } else if (options.reencode) {
    source = openDecodedFileSource(options.source, failure);
  } else {
    source = openMediaFileSource(options.source, failure);
  }
  if (failure) error = failure->message;
  return source;
}

int runStream(const StreamOptions& options, CliContext& context) {
  const bool json = context.options.json;
  // The streaming core's event lines are for debugging; the status line is for people.
  StreamLog::SetSink([debug = context.options.debug](const std::string& line) {
    if (debug) std::fprintf(stderr, "%s\n", line.c_str());
  });
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);

  LivePublisherOptions publish;
  if (!options.size.empty() && !parseSize(options.size, publish.width, publish.height)) {
    std::cerr << "error: --size must be WIDTHxHEIGHT, e.g. 1280x720\n";
    return 2;
  }
  if (!options.bitrate.empty() && !parseBitrate(options.bitrate, publish.videoBitrate)) {
    std::cerr << "error: --bitrate must be bits per second, e.g. 2500000, 2500k or 2.5M\n";
    return 2;
  }
  publish.framerate = options.fps;
  publish.duration = options.duration;
  publish.realTime = !options.asFastAsPossible;

  // The client takes the application from every path segment but the last and names the stream
  // itself, so an address that names only the application gets the stream name appended.
  const std::vector<std::string> segments = Uri::Parse(options.url).GetSegments();
  publish.streamName = options.name;
  if (publish.streamName.empty() && segments.size() >= 2) publish.streamName = segments.back();
  if (publish.streamName.empty()) {
    std::cerr << "error: give the stream a --name (or end RTMP_URL with it)\n";
    return 2;
  }
  publish.targetAddress = options.url;
  if (segments.size() < 2) {
    publish.targetAddress += (options.url.ends_with("/") ? "" : "/") + publish.streamName;
  }

  std::string error;
  std::unique_ptr<MediaSource> source = openSource(options, publish.width, publish.height, error);
  if (!source) {
    std::cerr << "error: " << error << "\n";
    return 1;
  }
  const std::string description = source->info().description;
  if (source->info().videoReordered) {
    // Said before anything is sent: FLV carries no composition time here, so such a file
    // plays with its frames in decode order.
    std::cerr << "warning: " << options.source
              << " has B-frames (frames stored out of display order); passed through, they play "
                 "out of order. Give --reencode to send it through the encoder, which makes "
                 "none.\n";
  }

  interruptSignal = 0;
  auto previousInt = std::signal(SIGINT, onInterrupt);
  auto previousTerm = std::signal(SIGTERM, onInterrupt);
  struct RestoreSignals {
    decltype(previousInt) sigint, sigterm;
    ~RestoreSignals() {
      std::signal(SIGINT, sigint);
      std::signal(SIGTERM, sigterm);
    }
  } restore{previousInt, previousTerm};

  LivePublisher publisher(std::move(source), publish);
  if (!json)
    std::cout << "publishing " << description << " to " << publish.targetAddress << "\n"
              << std::flush;
  if (!publisher.start(error)) {
    std::cerr << "error: " << error << "\n";
    return 1;
  }

  const bool terminal = !json && isatty(STDOUT_FILENO);
  auto lastPrint = std::chrono::steady_clock::now();
  const auto plainInterval = std::chrono::seconds(1);
  while (!publisher.done()) {
    if (interruptSignal != 0) publisher.requestStop();
    if (publisher.waitDone(kStatusInterval)) break;
    const auto now = std::chrono::steady_clock::now();
    if (terminal) {
      std::cout << "\r" << statusLine(publisher.stats()) << "\x1b[K" << std::flush;
    } else if (!json && now - lastPrint >= plainInterval) {
      std::cout << statusLine(publisher.stats()) << "\n" << std::flush;
      lastPrint = now;
    }
  }
  const std::string failure = publisher.failure();
  publisher.finish();
  const LivePublisherStats stats = publisher.stats();
  if (terminal) std::cout << "\n";

  const bool interrupted = interruptSignal != 0 || publisher.stoppedByRequest();
  if (json) {
    Json summary = {{"target", publish.targetAddress},
                    {"stream", publish.streamName},
                    {"source", description},
                    {"elapsed", stats.elapsed},
                    {"media_time", stats.mediaTime},
                    {"video_frames", stats.sent.videoFrames},
                    {"audio_frames", stats.sent.audioFrames},
                    {"bytes", stats.sent.bytes},
                    {"interrupted", interrupted}};
    if (!failure.empty()) summary["error"] = failure;
    std::cout << summary.dump() << "\n";
  } else {
    std::printf(
        "%s %llu video and %llu audio frames, %llu bytes, %s of media in %.1f s "
        "(%.0f kbit/s)\n",
        interrupted ? "stopped after" : "published",
        static_cast<unsigned long long>(stats.sent.videoFrames),
        static_cast<unsigned long long>(stats.sent.audioFrames),
        static_cast<unsigned long long>(stats.sent.bytes),
        minutesAndSeconds(stats.mediaTime).c_str(), stats.elapsed, kilobitsPerSecond(stats));
  }
  std::fflush(stdout);
  if (!failure.empty()) {
    std::cerr << "error: " << failure << "\n";
    return 1;
  }
  return 0;
}

}  // namespace

void registerStreamCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto options = std::make_shared<StreamOptions>();
  CLI::App* command = app.add_subcommand(
      "stream",
      "Publish live to an RTMP server: a media file (H.264 and AAC sent as they are), the lavfi "
      "test pattern, or a V4L2 camera with the default microphone");
  command->add_option("RTMP_URL", options->url, "rtmp://HOST[:PORT]/APP[/STREAM]")->required();
  command->add_option("--name", options->name,
                      "Stream name (default: the last segment of RTMP_URL after the application)");
  command->add_option("--source", options->source, "A media file, lavfi, or a camera /dev/videoN")
      ->required();
  command->add_option("--duration", options->duration, "Seconds of media to send (default: all)")
      ->check(CLI::NonNegativeNumber);
  command->add_option("--size", options->size,
                      "WIDTHxHEIGHT of encoded video (lavfi default 1280x720)");
  command->add_option("--fps", options->fps, "Frames per second of encoded video (default 30)")
      ->check(CLI::PositiveNumber);
  command->add_option("--bitrate", options->bitrate,
                      "Video bitrate of encoded video, e.g. 2500k (default 2.5M)");
  command->add_flag("--as-fast-as-possible", options->asFastAsPossible,
                    "Send without real-time pacing (benchmarks)");
  command->add_flag("--reencode", options->reencode,
                    "Decode a media file and encode it again (H.264 without B-frames, AAC) "
                    "instead of passing its samples through");
  command->callback([options, &context, &exitCode] { exitCode = runStream(*options, context); });
}

}  // namespace nembra
