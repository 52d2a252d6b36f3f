// `nembra demo`: runs every main job the SDK can do against the configured service, step by
// step, printing what it does and reading each result back.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>
#include <type_traits>

#include "api/vast_ad_resolver.h"
#include "api/vast_tracker.h"
#include "capture/capture_screens_module.h"
#include "capture/nembra_audio_recorder.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_images.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "nembra/reply_status.h"
#include "platform/files/file_system.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/media_backend.h"
#include "platform/media/media_log.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_sample_writer.h"
#include "platform/system/child_process.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/ui_adapter.h"
#include "platform/ui/window_ui.h"
#include "playback/playback_module.h"
#include "recorder/image_recorder.h"
#include "recorder/nembra_recorder.h"
#include "recorder/recorder_screens.h"
#include "streaming/live_publisher.h"
#include "streaming/stream_log.h"
#include "viewer/viewer_screens.h"

namespace nembra {

namespace {

using Clock = std::chrono::steady_clock;

struct JsonResult {
  std::optional<Json> json;
  HttpResponse response;
  OptionalError error;
};

// Runs a JSON request and waits for its answer (the connection calls back on its own queue).
template <typename Start>
JsonResult waitForJson(Start start) {
  auto done = std::make_shared<std::promise<JsonResult>>();
  start([done](const std::optional<Json>& json, const HttpResponse& response,
               const OptionalError& error) {
    done->set_value({json, response, error});
  });
  return done->get_future().get();
}

std::string describeFailure(const JsonResult& result) {
  if (result.error) return result.error->message;
  return "HTTP " + std::to_string(result.response.status);
}

class DemoRun {
 public:
  explicit DemoRun(CliContext& context) : context_(context), nembra_(context.nembra()) {}

  int run() {
    const auto started = Clock::now();
    std::cout << "Nembra demo against " << nembra_.config().server_api_url << " as application \""
              << nembra_.token() << "\"\n";
    step("This machine", [this] { return showDevice(); });
    step("Open a session", [this] { return openSession(); });
    step("List the application's videos", [this] { return listVideos(); });
    step("Report an error event and read it back", [this] { return reportError(); });
    step("Upload a video, find it in the list, download it", [this] { return roundTrip(VIDEO); });
    step("Upload an audio, find it in the list, download it", [this] { return roundTrip(AUDIO); });
    step("Upload an image, find it in the list, download it", [this] { return roundTrip(IMAGE); });
    step("Stream live, then watch the recording become the video's file",
         [this] { return liveStream(); });
    step("Record 3 s from the virtual camera, upload it with its default cover, read it back",
         [this] { return recordVideo(); });
    step("Show an image in the window", [this] { return showImage(); });
    step("Play the uploaded video through the caching loader", [this] { return playVideo(); });
    step("Resolve the sample ad tag, fire its pixels, count them on the service",
         [this] { return adPixels(); });
    step("Record 2 s of audio from the virtual microphone, upload it, read it back",
         [this] { return recordAudio(); });
    step("Record 2 s of the screen, then hand the movie over for upload",
         [this] { return recordScreen(); });
    step("Take a picture with the virtual camera, upload it, read it back",
         [this] { return snapPicture(); });
    auto seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::cout << "\n" << passed_ << " of " << total_ - skipped_ << " steps passed";
    if (skipped_ > 0) std::cout << " (" << skipped_ << " skipped)";
    std::cout << " in " << seconds << " s\n";
    return passed_ == total_ - skipped_ ? 0 : 1;
  }

 private:
  // What a step returns: a bool, or Outcome when it may not apply to this service.
  enum class Outcome { Failed, Passed, Skipped };

  template <typename F>
  void step(const std::string& title, F body) {
    ++total_;
    std::cout << "\n[" << total_ << "] " << title << "\n" << std::flush;
    const auto started = Clock::now();
    Outcome outcome;
    if constexpr (std::is_same_v<decltype(body()), Outcome>) {
      outcome = body();
    } else {
      outcome = body() ? Outcome::Passed : Outcome::Failed;
    }
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    const char* verdict = outcome == Outcome::Passed    ? "    ok"
                          : outcome == Outcome::Skipped ? "    skipped"
                                                        : "    FAILED";
    std::cout << verdict << " (" << ms << " ms)\n" << std::flush;
    if (outcome == Outcome::Passed) ++passed_;
    if (outcome == Outcome::Skipped) ++skipped_;
  }

  // Starts an endpoint call whose answer comes on the main queue, and pumps that queue until
  // it has come.
  template <typename Answer, typename Start>
  std::optional<Answer> awaitOnMainQueue(Start start,
                                         std::chrono::seconds timeout = std::chrono::seconds(60)) {
    std::optional<Answer> answer;
    start([&answer](Answer value) { answer = std::move(value); });
    nembra_.mainQueue().runUntil([&] { return answer.has_value(); }, timeout);
    return answer;
  }

  // Downloads a media file into the SDK's cache; its path, or nothing with the reason said.
  std::optional<std::string> downloadToCache(int type, const std::string& token) {
    std::string failure = "no answer";
    auto cached = awaitOnMainQueue<std::optional<std::string>>(
        [&](auto deliver) {
          nembra_.uploadingHandler().downloadWithType(
              type, token,
              [deliver, &failure](const std::optional<std::string>& path,
                                  const OptionalError& error) {
                if (error) failure = error->message;
                deliver(path);
              });
        },
        std::chrono::minutes(5));
    if (cached && *cached) return *cached;
    std::cout << "    download of " << mediaTypeName(type) << " " << token << " failed: " << failure
              << "\n";
    return std::nullopt;
  }

  // The camera recorder on the virtual camera and microphone, with no screen: it starts at once,
  // stops itself after 3 s and uploads at once with the middle frame as cover.
  bool recordVideo() {
    const RecorderConfig saved = nembra_.recorderConfig();
    RecorderConfig& config = nembra_.recorderConfig();
    config.setStartDelay(0);
    config.setMaxDuration(3);
    config.setShouldSendImmediately(true);
    config.setVideoQuality(QUALITY_LOW);
    std::optional<std::string> file;
    std::optional<std::pair<std::optional<Json>, OptionalError>> uploaded;
    std::shared_ptr<NembraRecorder> recorder;
    RecorderScreens::install(std::make_shared<RecorderModuleScreens>(
        [&](RecorderEnvironment& env) {
          env.capture.camera = "lavfi";
          env.capture.microphone = "lavfi";
          auto create = env.createVideo;
          env.createVideo = [&, create](const Json& data, const std::string& path,
                                        StillImagePtr cover,
                                        RecorderEnvironment::UploadCallback done) {
            file = path;
            std::cout << "    recorded " << path << ", cover " << (cover ? cover->width : 0)
                      << " x " << (cover ? cover->height : 0) << "\n";
            create(data, path, cover,
                   [&, done](const std::optional<Json>& json, const OptionalError& error) {
                     if (done) done(json, error);
                     nembra_.mainQueue().async([&, json, error] { uploaded.emplace(json, error); });
                   });
          };
        },
        [&](const std::shared_ptr<NembraRecorder>& made) { recorder = made; }));
    HeadlessUi ui;
    auto presenter = std::make_shared<ScreenPresenter>(ui, nembra_.mainQueue());
    nembra_.setScreenPresenter(presenter);
    nembra_.record();
    nembra_.mainQueue().runUntil(
        [&] { return recorder && recorder->state() != RecorderState::Configuring; },
        std::chrono::seconds(20));
    bool started = recorder && recorder->state() == RecorderState::Idle;
    if (started) recorder->toggleMovieRecording();
    nembra_.mainQueue().runUntil([&] { return uploaded.has_value(); }, std::chrono::seconds(90));
    presenter->dismissAll();
    nembra_.mainQueue().runUntilIdle();
    nembra_.setRecorderConfig(saved);
    recorder.reset();
    if (!started || !uploaded) {
      std::cout << "    " << (!started ? "the recorder did not start" : "nothing was uploaded")
                << "\n";
      return false;
    }
    if (uploaded->second) {
      std::cout << "    upload failed: " << uploaded->second->message << "\n";
      return false;
    }
    std::string token;
    if (uploaded->first && uploaded->first->is_object() && uploaded->first->contains("token")) {
      token = (*uploaded->first)["token"].get<std::string>();
    }
    auto video = awaitOnMainQueue<std::pair<Video, int>>([&](auto done) {
      nembra_.videos().get(
          token, Json::object(),
          [done](const Video& v, const HttpResponse& response, const OptionalError&) {
            done({v, response.status});
          });
    });
    if (!video || video->second != 200 || video->first.token != token) {
      std::cout << "    video " << token << " could not be read back\n";
      return false;
    }
    std::cout << "    uploaded as video " << token << " and read back\n";
    return true;
  }

  // Opens the image viewer on a sample picture in a window for a moment and reads the window
  // back to see it drawn.
  Outcome showImage() {
    OptionalError error;
    auto window = WindowUi::open(nembra_.mainQueue(), WindowUi::Options{}, error);
    if (!window) {
      std::cout << "    skipped the window: " << error->message << "\n";
      return Outcome::Skipped;
    }
    auto sample = makeSample(IMAGE);
    if (!sample) return Outcome::Failed;
    installViewerScreens();
    auto presenter = std::make_shared<ScreenPresenter>(*window, nembra_.mainQueue());
    nembra_.setScreenPresenter(presenter);
    nembra_.showImageFromUri(*sample);
    WindowScreenshot shot;
    const bool drawn = nembra_.mainQueue().runUntil(
        [&] {
          window->screenshot(shot);
          auto middle = shot.at(shot.width / 2, shot.height / 2);
          return middle[0] + middle[1] + middle[2] > 0;
        },
        std::chrono::seconds(10));
    // Leaves it up long enough to be seen.
    nembra_.mainQueue().runUntil([] { return false; }, std::chrono::milliseconds(1500));
    presenter->dismissAll();
    nembra_.mainQueue().runUntilIdle();
    std::cout << "    " << (drawn ? "shown" : "nothing drawn") << " in a " << shot.width << " x "
              << shot.height << " window\n";
    return drawn ? Outcome::Passed : Outcome::Failed;
  }

  // Plays the video uploaded earlier (in a window when there is a display, else with no
  // screen), its bytes coming through the caching loader, and checks that the whole file
  // landed in the player's cache.
  Outcome playVideo() {
    if (videoToken_.empty()) {
      std::cout << "    no uploaded video to play\n";
      return Outcome::Failed;
    }
    NembraCacheManager& cache = nembra_.playerCacheManager();
    const std::string cached = cache.getCacheFilePathWithType(VIDEO, videoToken_);
    // The download step may have cached it already; the player is to fetch it itself.
    cache.removeFile(cached);
    OptionalError error;
    std::unique_ptr<UiAdapter> adapter =
        WindowUi::open(nembra_.mainQueue(), WindowUi::Options{}, error);
    const bool window = adapter != nullptr;
    if (!adapter) adapter = makeUiAdapter(UiKind::None, nembra_.mainQueue(), error);
    std::cout << "    playing " << videoToken_ << (window ? " in a window" : " with no screen")
              << "\n";
    bool ended = false;
    OptionalError failure;
    PlaybackModuleOptions options;
    options.withSound = false;
    options.onFinished = [&](const std::string&, const OptionalError& e) {
      ended = true;
      failure = e;
    };
    installPlaybackScreens(options);
    auto presenter = std::make_shared<ScreenPresenter>(*adapter, nembra_.mainQueue());
    nembra_.setScreenPresenter(presenter);
    nembra_.playVideo(videoToken_);
    nembra_.mainQueue().runUntil([&] { return ended && presenter->depth() == 0; },
                                 std::chrono::seconds(60));
    presenter->dismissAll();
    nembra_.mainQueue().runUntil([&] { return cache.fileExists(cached); }, std::chrono::seconds(5));
    PlaybackScreens::install(nullptr);
    if (failure) {
      std::cout << "    playback failed: " << failure->message << "\n";
      return Outcome::Failed;
    }
    const bool same = cache.fileExists(cached) && readAll(cached) == videoBytes_;
    std::cout << "    " << (ended ? "played to the end" : "did not end") << "; cache "
              << (same ? "written: " + cached : std::string("NOT written")) << "\n";
    return ended && same ? Outcome::Passed : Outcome::Failed;
  }

  bool showDevice() {
    printDeviceReport(collectDeviceReport(context_), std::cout);
    return true;
  }

  bool openSession() {
    auto done = std::make_shared<std::promise<std::pair<std::string, std::string>>>();
    nembra_.connect().getSession(
        [done](const std::optional<std::string>& key, const std::optional<std::string>& value) {
          done->set_value({key.value_or(""), value.value_or("")});
          return NembraConnect::TaskHandle();
        });
    auto [key, value] = done->get_future().get();
    if (value.empty()) {
      std::cout << "    the service gave no session token\n";
      return false;
    }
    std::cout << "    session parameter " << key << " = " << value << "\n";
    return true;
  }

  std::string videosUrl() const {
    return nembra_.config().server_api_url + "/v1/applications/" + nembra_.token() + "/videos";
  }

  bool listVideos() {
    auto result = waitForJson([this](NembraConnect::JsonCallback callback) {
      nembra_.connect().getJsonArrayWithPath(videosUrl(), Json{{"limit", 10}}, callback);
    });
    // The connection gives no JSON for a body of two bytes or fewer: "[]", an empty list.
    if (result.response.status != 200 || result.error ||
        (result.json && !result.json->is_array())) {
      std::cout << "    " << describeFailure(result) << "\n";
      return false;
    }
    const Json videos = result.json.value_or(Json::array());
    std::cout << "    " << videos.size() << " video(s)\n";
    for (const auto& video : videos) {
      std::cout << "    - " << video.value("token", "") << "  " << video.value("title", "") << "\n";
    }
    return true;
  }

  bool reportError() {
    const std::string marker =
        "demo event " + std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
    bool logs = nembra_.enableDebugLogs;
    nembra_.enableDebugLogs = false;  // the event is the point here, not the console line
    nembra_.logError(marker);
    nembra_.enableDebugLogs = logs;
    // The report is fire-and-forget; poll the service's event list until it shows up.
    for (int attempt = 0; attempt < 50; ++attempt) {
      auto result = waitForJson([this](NembraConnect::JsonCallback callback) {
        nembra_.connect().getJsonArrayWithPath(nembra_.config().server_api_url + "/debugger",
                                               Json::object(), callback);
      });
      if (result.response.status != 200 || result.error) {
        std::cout << "    cannot list events: " << describeFailure(result) << "\n";
        return false;
      }
      // No JSON from a 200 is "[]": nothing recorded yet.
      for (const auto& event : result.json.value_or(Json::array())) {
        if (event.dump().find(marker) != std::string::npos) {
          std::cout << "    the service recorded: " << event.dump() << "\n";
          return true;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::cout << "    the event did not arrive\n";
    return false;
  }

  static std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }

  // Made here rather than shipped: a short test pattern with a tone, a tone, a still.
  std::optional<std::string> makeSample(int type) {
    const std::string base = FileSystem::shared().temporaryDirectory() + "/demo-sample";
    std::string path;
    OptionalError error;
    if (type == VIDEO) {
      path = base + ".mp4";
      error = MediaSampleWriter::writeVideo(path, 2.0, 320, 240);
    } else if (type == AUDIO) {
      path = base + ".aac";
      error = MediaSampleWriter::writeAudio(path, 2.0);
    } else {
      path = base + ".jpg";
      error = MediaSampleWriter::writePicture(path, 640, 360);
    }
    if (error) {
      std::cout << "    cannot make a sample " << mediaTypeName(type) << ": " << error->message
                << "\n";
      return std::nullopt;
    }
    return path;
  }

  // The tokens of the type's first page, through its endpoint's models.
  std::optional<std::vector<std::string>> listTokens(int type) {
    auto done = std::make_shared<std::promise<std::vector<std::string>>>();
    bool failed = false;
    auto collect = [&](const auto& models, const HttpResponse& response,
                       const OptionalError& answered) {
      std::vector<std::string> tokens;
      for (const auto& model : models) tokens.push_back(model.token);
      OptionalError error = answered;
      if (!error) error = ReplyStatus::check("the index request", response);
      if (error) {
        std::cout << "    cannot list: " << error->message << "\n";
        failed = true;
      }
      done->set_value(tokens);
    };
    Json page{{"limit", 100}};
    if (type == VIDEO) {
      nembra_.videos().index(page, [&](const std::vector<Video>& all, const HttpResponse& r,
                                       const OptionalError& e) { collect(all, r, e); });
    } else if (type == AUDIO) {
      nembra_.audios().index(page, [&](const std::vector<Audio>& all, const HttpResponse& r,
                                       const OptionalError& e) { collect(all, r, e); });
    } else {
      nembra_.images().index(page, [&](const std::vector<Image>& all, const HttpResponse& r,
                                       const OptionalError& e) { collect(all, r, e); });
    }
    auto future = done->get_future();
    nembra_.mainQueue().runUntil(
        [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        std::chrono::seconds(60));
    if (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready || failed) {
      return std::nullopt;
    }
    return future.get();
  }

  // The still-image recorder's work on the virtual camera: one 640x360 picture as a JPEG,
  // uploaded as an image, then fetched from the service and decoded.
  bool snapPicture() {
    CameraFeedOptions camera;
    camera.camera = CameraCatalog::kVirtualCamera;
    camera.width = 640;
    camera.height = 360;
    OptionalError error;
    auto feed = CameraFeed::open(camera, error);
    if (!feed) {
      std::cout << "    " << error->message << "\n";
      return false;
    }
    auto recorder = std::make_shared<ImageRecorder>(nembra_);
    feed->addObserver(recorder);
    std::optional<ImageRecorderResult> done;
    ImageRecorder::Callbacks callbacks;
    callbacks.captured = [&](const ImageRecorderResult& result) {
      feed->stop();
      if (result.error) done = result;
    };
    callbacks.uploaded = [&](const ImageRecorderResult& result) { done = result; };
    recorder->takePicture(std::move(callbacks));
    feed->start();
    nembra_.mainQueue().runUntil([&] { return done.has_value(); }, std::chrono::minutes(2));
    feed->stop();
    if (!done || done->error) {
      std::cout << "    " << (done ? done->error->message : "no picture came") << "\n";
      return false;
    }
    std::cout << "    image " << done->token << ": " << done->width << "x" << done->height
              << " JPEG\n";
    const auto cached = downloadToCache(IMAGE, done->token);
    if (!cached) return false;
    const std::string bytes = readAll(*cached);
    ImageInfo info;
    if (auto bad = MediaBackend::shared().makeImageCodec()->inspect(
            {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, info)) {
      std::cout << "    the downloaded picture does not decode: " << bad->message << "\n";
      return false;
    }
    std::cout << "    downloaded: " << info.width << "x" << info.height << " " << info.format
              << "\n";
    return info.format == "jpeg" && info.width == 640 && info.height == 360;
  }

  bool roundTrip(int type) {
    setMediaLogLevel(context_.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
    auto sample = makeSample(type);
    if (!sample) return false;
    // The SDK deletes the file once the service confirms it; its bytes are kept to compare.
    const std::string uploaded = readAll(*sample);
    std::cout << "    " << *sample << ": " << uploaded.size() << " bytes\n";

    const std::string token = awaitConfirmedUpload([&] {
      nembra_.uploadingHandler().uploadWithType(type, *sample, Json{{"title", "nembra demo"}});
    });
    if (token.empty()) return false;
    std::cout << "    uploaded as " << mediaTypeName(type) << " " << token << "\n";
    if (type == VIDEO) {
      videoToken_ = token;
      videoBytes_ = uploaded;
    }

    auto tokens = listTokens(type);
    if (!tokens) return false;
    if (std::find(tokens->begin(), tokens->end(), token) == tokens->end()) {
      std::cout << "    " << token << " is not in the list of " << tokens->size() << "\n";
      return false;
    }
    std::cout << "    listed among " << tokens->size() << "\n";

    const auto cached = downloadToCache(type, token);
    if (!cached) return false;
    const std::string back = readAll(*cached);
    bool same = back == uploaded;
    std::cout << "    downloaded " << back.size() << " bytes to " << *cached << ": "
              << (same ? "identical to the upload" : "DIFFERENT from the upload") << "\n";
    return same;
  }

  // Waits on the main queue for the service to confirm an upload; its token, or "" (said why).
  std::string awaitConfirmedUpload(const std::function<void()>& start) {
    auto delegate = std::make_shared<NembraUploadingDelegate>();
    std::string token;
    std::string failure;
    bool ended = false;
    delegate->uploadVerifiedWithPath = [&](const std::string&, const std::string& media,
                                           const std::string&, const HttpResponse& response,
                                           const OptionalError& error,
                                           const std::optional<Json>& json) {
      token = media;
      OptionalError refused = error;
      if (!refused) refused = ReplyStatus::check("the confirm request", response, json);
      if (refused) failure = "not confirmed: " + refused->message;
      ended = true;
    };
    delegate->errorWithError = [&](const Error& error) {
      failure = error.message;
      ended = true;
    };
    delegate->errorWithInfo = [&](const std::optional<Json>&, const Error& error, int32_t) {
      failure = error.message;
      ended = true;
    };
    auto previous = nembra_.getUploadingDelegate();
    nembra_.setUploadingDelegate(delegate);
    start();
    nembra_.mainQueue().runUntil([&] { return ended; }, std::chrono::minutes(5));
    nembra_.setUploadingDelegate(previous);
    if (!ended || !failure.empty()) {
      std::cout << "    upload failed: " << (ended ? failure : "no answer") << "\n";
      return "";
    }
    return token;
  }

  // The audio recorder screen, driven headless: two seconds of the virtual tone, uploaded; the
  // audio is downloaded again and probed.
  bool recordAudio() {
    setMediaLogLevel(context_.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
    HeadlessUi ui;
    auto presenter = std::make_shared<ScreenPresenter>(ui, nembra_.mainQueue());
    auto previousPresenter = nembra_.screenPresenter();
    nembra_.setScreenPresenter(presenter);
    auto module = installCaptureScreens();
    module->configureAudioRecorder = [](NembraAudioRecorder& recorder) {
      recorder.setMicrophone("lavfi");
    };
    RecorderConfig& config = nembra_.recorderConfig();
    const int64_t previousMaximum = config.getMaxDuration();
    config.setMaxDuration(2);
    nembra_.startAudioRecorder();
    nembra_.mainQueue().runUntilIdle();
    HeadlessScreenView* view = ui.topView();
    std::string token;
    if (view && view->press("record")) {
      nembra_.mainQueue().runUntil([&] { return view->label("status") != "Recording"; },
                                   std::chrono::seconds(30));
      std::cout << "    recorded " << view->label("duration") << " of ALAC\n";
      token = awaitConfirmedUpload([&] { view->press("upload"); });
    } else {
      std::cout << "    the audio recorder did not open\n";
    }
    config.setMaxDuration(previousMaximum);
    nembra_.setScreenPresenter(previousPresenter);
    if (token.empty()) return false;
    std::cout << "    uploaded as audio " << token << "\n";
    const auto cached = downloadToCache(AUDIO, token);
    MediaProbeResult probed;
    if (!cached || makeMediaProbe()->probe(*cached, probed)) {
      std::cout << "    the audio could not be read back\n";
      return false;
    }
    std::cout << "    read back: " << probed.audioCodec << ", " << probed.duration << " s\n";
    return probed.audioCodec == "alac" && std::abs(probed.duration - 2.0) <= 0.5;
  }

  // An Xvfb server on a free display number; its name (":N"), or "" when none started.
  static std::string startXvfb(std::unique_ptr<ChildProcess>& process) {
    for (int number = 90; number < 140; ++number) {
      const std::string socket = "/tmp/.X11-unix/X" + std::to_string(number);
      const std::string lock = "/tmp/.X" + std::to_string(number) + "-lock";
      if (std::filesystem::exists(socket) || std::filesystem::exists(lock)) continue;
      const std::string name = ":" + std::to_string(number);
      ChildProcessOptions options;
      options.argv = {"Xvfb", name, "-screen", "0", "1280x720x24", "-nolisten", "tcp"};
      options.stderrPath = "/dev/null";
      if (ChildProcess::start(options, process)) return "";
      for (int i = 0; i < 100 && process->isRunning(); ++i) {
        if (std::filesystem::exists(socket)) return name;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      process.reset();
    }
    return "";
  }

  // The screen broadcast (`nembra record-screen` on the display, or on an Xvfb started for it)
  // leaves a movie in the group's shared directory; the main application's watcher uploads it.
  Outcome recordScreen() {
    std::unique_ptr<ChildProcess> xvfb;
    std::vector<std::string> arguments = {"--mic", "lavfi", "--duration", "2"};
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
      const std::string started = startXvfb(xvfb);
      if (started.empty()) {
        std::cout << "    no display and no Xvfb to record\n";
        return Outcome::Skipped;
      }
      arguments.insert(arguments.end(), {"--display", started});
    }
    const std::string group = "nembra-demo";
    NembraVideos& videos = nembra_.videos();
    std::string token;
    std::string failure;
    bool ended = false;
    videos.onScreenRecordingUploaded = [&](const std::string& path, const std::string& media,
                                           const OptionalError& error) {
      std::cout << "    " << path << " uploaded\n";
      token = media;
      if (error) failure = error->message;
      ended = true;
    };
    if (auto error = nembra_.startScreenRecorderWithAppGroup(group, "", arguments)) {
      std::cout << "    the broadcast did not start: " << error->message << "\n";
      return Outcome::Failed;
    }
    if (!videos.setupFileWatcher()) return Outcome::Failed;
    nembra_.mainQueue().runUntil([&] { return ended; }, std::chrono::seconds(60));
    const auto code = nembra_.stopScreenRecorder(std::chrono::seconds(10));
    videos.onScreenRecordingUploaded = nullptr;
    if (!ended || !failure.empty()) {
      std::cout << "    " << (ended ? failure : "no movie was uploaded") << " (broadcast exit "
                << (code ? std::to_string(*code) : "?") << ")\n";
      return Outcome::Failed;
    }
    std::cout << "    uploaded as video " << token << "\n";
    return Outcome::Passed;
  }

  // The recorder's live hand-off with a test pattern for a camera: a live video, three seconds
  // published to the service's ingest, the stream submitted; the service turns the recording
  // into the video's file, which is downloaded and probed.
  Outcome liveStream() {
    setMediaLogLevel(context_.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
    // The streaming core logs every event; here only with --debug, and on standard error.
    StreamLog::SetSink([debug = context_.options.debug](const std::string& line) {
      if (debug) std::cerr << line << "\n";
    });
    auto created = awaitOnMainQueue<JsonResult>([this](auto deliver) {
      nembra_.videos().createLiveVideoWithData(
          Json{{"title", "nembra demo live"}},
          [deliver](const std::optional<Json>& json, const HttpResponse& response,
                    const OptionalError& error) {
            deliver(JsonResult{json, response, error});
          });
    });
    if (!created || created->error || !created->json) {
      std::cout << "    cannot create a live video: "
                << (created ? describeFailure(*created) : "no answer") << "\n";
      return Outcome::Failed;
    }
    const Json& reply = *created->json;
    // The local service says where its ingest listens only when it runs one.
    if (!reply.contains("rtmp")) {
      std::cout << "    the service has no RTMP ingest (it needs nginx and its RTMP module)\n";
      return Outcome::Skipped;
    }
    const std::string video = reply["video"].value("token", "");
    const std::string stream = reply["stream"].value("token", "");
    const std::string target = nembra_.config().wowza_url + "\u00DF";
    const std::string name = "applications/" + nembra_.token() + "/videos/" + video + "/streams/" +
                             stream + "/video.mp4";
    std::cout << "    live video " << video << ", publishing to " << nembra_.config().wowza_url
              << "\n";

    OptionalError sourceError;
    auto source = openTestPatternSource(640, 360, 30, sourceError);
    if (!source) {
      std::cout << "    cannot open the test pattern: " << sourceError->message << "\n";
      return Outcome::Failed;
    }
    LivePublisherOptions options;
    options.targetAddress = target;
    options.streamName = name;
    options.duration = 3.0;
    options.videoBitrate = 1'000'000;
    LivePublisher publisher(std::move(source), options);
    std::string failure;
    if (!publisher.start(failure)) {
      std::cout << "    the ingest refused the stream: " << failure << "\n";
      return Outcome::Failed;
    }
    publisher.waitDone(std::chrono::seconds(30));
    failure = publisher.failure();
    publisher.finish();
    const auto sent = publisher.stats().sent;
    std::cout << "    sent " << sent.videoFrames << " pictures and " << sent.audioFrames
              << " audio frames, " << sent.bytes << " bytes\n";
    if (!failure.empty()) {
      std::cout << "    the stream failed: " << failure << "\n";
      return Outcome::Failed;
    }

    auto submitted = awaitOnMainQueue<JsonResult>([&](auto deliver) {
      nembra_.videos().recorderSubmitWithVideoToken(
          video, stream, Json::object(),
          [deliver](const std::optional<Json>& json, const HttpResponse& response,
                    const OptionalError& error) {
            deliver(JsonResult{json, response, error});
          });
    });
    if (!submitted || submitted->error) {
      std::cout << "    submit failed: " << (submitted ? describeFailure(*submitted) : "no answer")
                << "\n";
      return Outcome::Failed;
    }
    // The recording becomes the file once nginx has closed it and the service has remuxed it.
    std::optional<Video> ready;
    for (int attempt = 0; attempt < 100 && !ready; ++attempt) {
      auto got = awaitOnMainQueue<std::optional<Video>>([&](auto deliver) {
        nembra_.videos().get(
            video, Json::object(),
            [deliver](const Video& model, const HttpResponse&, const OptionalError& error) {
              deliver(error ? std::nullopt : std::optional<Video>(model));
            });
      });
      if (got && *got && (*got)->stateString == "ready") {
        ready = **got;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    }
    if (!ready) {
      std::cout << "    the recording did not become ready\n";
      return Outcome::Failed;
    }
    std::cout << "    the service says: ready, " << ready->defaultStream.duration << " s\n";

    const auto cached = downloadToCache(VIDEO, video);
    if (!cached) return Outcome::Failed;
    MediaProbeResult probed;
    if (auto error = makeMediaProbe()->probe(*cached, probed)) {
      std::cout << "    the recording does not probe: " << error->message << "\n";
      return Outcome::Failed;
    }
    std::cout << "    downloaded " << *cached << ": " << probed.videoCodec << " " << probed.width
              << "x" << probed.height << " + " << probed.audioCodec << ", " << probed.duration
              << " s\n";
    const bool whole = probed.videoCodec == "h264" && probed.audioCodec == "aac" &&
                       probed.width == 640 && probed.height == 360 &&
                       std::abs(probed.duration - options.duration) <= 0.5;
    if (!whole) std::cout << "    that is not the 3 s, 640x360 stream that was sent\n";
    return whole ? Outcome::Passed : Outcome::Failed;
  }

  // The local service's wrapper tag through the VAST client, every tracking event fired as a
  // played ad fires them (each twice: the second must be dropped), and the service's count read
  // back: one hit per event and document level.
  Outcome adPixels() {
    const std::string base = nembra_.config().server_api_url;
    CurlHttpClient http;
    auto fetch = [&http](const std::string& method, const std::string& url) {
      auto done = std::make_shared<std::promise<std::pair<int, std::string>>>();
      HttpRequest request;
      request.method = method;
      request.url = url;
      HttpTaskEvents events;
      events.completion = [done](HttpTask&, std::vector<uint8_t> body, const HttpResponse& response,
                                 const OptionalError&) {
        done->set_value({response.status, std::string(body.begin(), body.end())});
      };
      http.dataTask(std::move(request), std::move(events))->resume();
      auto future = done->get_future();
      if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        return std::pair<int, std::string>{0, ""};
      }
      return future.get();
    };
    if (fetch("DELETE", base + "/ads/tracking").first != 200) {
      std::cout << "    the service has no sample ads (it is not `nembra serve`)\n";
      return Outcome::Skipped;
    }
    VastAdResolver resolver(http);
    std::promise<VastAdResolver::Outcome> resolved;
    resolver.resolve(base + "/ads/vast/wrapper.xml", {1280, 720},
                     [&resolved](VastAdResolver::Outcome outcome) { resolved.set_value(outcome); });
    auto outcome = resolved.get_future().get();
    if (auto* failure = std::get_if<VastFailure>(&outcome)) {
      std::cout << "    VAST error " << static_cast<int>(failure->code) << ": " << failure->message
                << "\n";
      return Outcome::Failed;
    }
    const auto& ad = std::get<ResolvedVastAd>(outcome);
    auto clip = fetch("GET", ad.mediaFile.url);
    std::cout << "    ad " << ad.adId << ": " << ad.durationSeconds << " s, " << ad.mediaFile.width
              << "x" << ad.mediaFile.height << " " << ad.mediaFile.type << ", "
              << clip.second.size() << " bytes\n";
    if (clip.first != 200 || clip.second.empty()) return Outcome::Failed;
    VastTracker tracker(http, ad.tracking, ad.errorUrls);
    for (int round = 0; round < 2; ++round) {
      tracker.fire(VastEvent::Impression);
      for (double at = 0; at <= ad.durationSeconds; at += 0.5) {
        tracker.progress(at, ad.durationSeconds);
      }
      tracker.fire(VastEvent::Complete);
    }
    Json counts;
    for (int attempt = 0; attempt < 100; ++attempt) {
      counts = Json::parse(fetch("GET", base + "/ads/tracking").second, nullptr, false);
      if (counts.value("inline", Json::object()).size() == 6 &&
          counts.value("wrapper", Json::object()).size() == 6) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::cout << "    the service counted " << counts.dump() << "\n";
    bool once = !counts.contains("error");
    for (const char* level : {"inline", "wrapper"}) {
      const Json events = counts.value(level, Json::object());
      once = once && events.size() == 6;
      for (const auto& count : events) once = once && count == 1;
    }
    return once ? Outcome::Passed : Outcome::Failed;
  }

  CliContext& context_;
  // The video the round trip uploaded, for the player step.
  std::string videoToken_;
  std::string videoBytes_;
  Nembra& nembra_;
  int total_ = 0;
  int passed_ = 0;
  int skipped_ = 0;
};

}  // namespace

void registerDemoCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto* command = app.add_subcommand(
      "demo",
      "Run every main job of the SDK against the configured service (see `nembra serve`),\n"
      "printing each step and reading its result back. Exit code 0 when every step passed.");
  command->callback([&context, &exitCode] {
    if (context.options.server.empty() && context.options.apiUrl.empty()) {
      std::cerr << "nembra demo: give the service with --server URL (e.g. from `nembra serve`)\n";
      exitCode = 2;
      return;
    }
    exitCode = DemoRun(context).run();
  });
}

}  // namespace nembra
