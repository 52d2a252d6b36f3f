// The video player through its caching loader beside ffplay, in one run: the same 60 s 1080p30
// H.264+AAC file served by a local `nembra serve` (started here), played from its URL by
// `ffplay -autoexit` and by NembraPlayer (loader, span store, player engine), both drawing to a
// 1920×1080 SDL window under Xvfb, both decoding and pacing the sound without a sound card
// (ffplay with SDL's dummy driver, the player with the null output). Prints each side's CPU
// time (user + system), their ratio (target 1.10), and the pictures the player drew.
//
// Needs ffmpeg, ffplay and Xvfb; says so and stops without one.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/testing/child_run.h"
#include "bench/testing/frame_handoff_surface.h"
#include "bench/testing/local_service.h"
#include "bench/testing/picture_window.h"
#include "bench/testing/virtual_display.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/audio/audio_output.h"
#include "platform/media/media_log.h"
#include "playback/nembra_player.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using testing::cpuSeconds;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFrames = 60 * 30;

struct PlayerRun {
  double cpu = 0;
  int drawn = 0;
  uint64_t fetched = 0;
  bool throughLoader = false;
  bool ended = false;
};

// Plays |token| to its end through the loader into |window|.
PlayerRun playThroughLoader(Nembra& nembra, MainQueue& queue, const std::string& token,
                            testing::PictureWindow& window) {
  PlayerRun run;
  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  auto player = NembraPlayer::initWithNembraApplication(nembra, token);
  auto loader = player->item(0).asset->resourceLoaderDelegate();
  run.throughLoader = loader != nullptr;
  auto surface = std::make_shared<testing::FrameHandoffSurface>();
  player->setOutputs(surface, [] { return makeNullAudioOutput(); });
  player->setDidFinishPlaying([&](const std::string&, const OptionalError&) { run.ended = true; });
  player->play();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
  while (!run.ended && std::chrono::steady_clock::now() < deadline) {
    queue.runUntilIdle();
    window.pumpEvents();
    SharedVideoFrame frame = surface->take(std::chrono::milliseconds(10));
    if (!frame) continue;
    window.draw(*frame);
    ++run.drawn;
  }
  run.fetched = loader ? loader->bytesReceived() : 0;
  player->close();
  player.reset();
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  run.cpu = cpuSeconds(after) - cpuSeconds(before);
  return run;
}

}  // namespace
}  // namespace nembra

int main() {
  using namespace nembra;
  for (const char* program : {"ffmpeg", "ffplay", "Xvfb"}) {
    if (!testing::onPath(program)) {
      std::printf("%s is not installed: nothing measured\n", program);
      return 0;
    }
  }
  setMediaLogLevel(MediaLogLevel::Errors);
  const std::string clip = testing::playerTestClip();
  if (clip.empty()) {
    std::printf("could not make the test file\n");
    return 1;
  }
  const fs::path scratch =
      fs::temp_directory_path() / ("nembra-loader-cpu-bench-" + std::to_string(getpid()));
  fs::create_directories(scratch / "home");
  fs::create_directories(scratch / "cache");
  setenv("HOME", (scratch / "home").c_str(), 1);

  testing::LocalService service;
  if (!service.start(testing::LocalService::defaultTool(), "player_loader_cpu_bench")) return 1;
  const std::string token = service.upload(testing::LocalService::defaultTool(), "bench", clip);
  if (token.empty()) {
    std::printf("the upload failed\n");
    return 1;
  }
  const std::string url =
      service.url() + "/cdn/v1/applications/bench/videos/" + token + "/video.mp4";
  testing::VirtualDisplay display;
  if (display.display().empty()) {
    std::printf("Xvfb did not start\n");
    return 1;
  }

  rusage ffplayUsage{};
  const int rc =
      testing::runChild({"ffplay", "-hide_banner", "-loglevel", "error", "-autoexit", "-x",
                         std::to_string(kWidth), "-y", std::to_string(kHeight), url},
                        {"DISPLAY=" + display.display(), "SDL_AUDIODRIVER=dummy"}, ffplayUsage);
  if (rc != 0) {
    std::printf("ffplay failed on %s\n", url.c_str());
    return 1;
  }
  const double ffplayCpu = cpuSeconds(ffplayUsage);

  MainQueue queue;
  Nembra nembra("bench", queue);
  nembra.config().useSingleServer(service.url());
  nembra.cacheConfig().setCacheRoot((scratch / "cache").string() + "/");
  testing::PictureWindow window;
  if (!window.open(display.display(), kWidth, kHeight)) {
    std::printf("no SDL window on the virtual display\n");
    return 1;
  }
  const PlayerRun run = playThroughLoader(nembra, queue, token, window);
  const double ratio = run.cpu / ffplayCpu;
  std::printf(
      "60 s 1080p30 from the local service, both with a window under Xvfb:\n"
      "ffplay on the URL: %.2f s CPU\n"
      "player through the loader (%s, %.1f MB fetched): %.2f s CPU, %.2fx ffplay (target "
      "1.10): %s\n"
      "pictures drawn: %d of %d%s\n",
      ffplayCpu, run.throughLoader ? "loader" : "NOT the loader", run.fetched / 1e6, run.cpu, ratio,
      ratio <= 1.10 ? "met" : "missed", run.drawn, kFrames,
      run.ended ? "" : " (did not reach the end)");
  std::error_code ec;
  fs::remove_all(scratch, ec);
  return 0;
}
