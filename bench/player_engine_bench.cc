// The player engine beside ffplay, in one run, on the same 60 s 1080p30 H.264+AAC file and the
// same 1920×1080 SDL window under Xvfb (started here on a free display):
//   - CPU (user + system) of the engine's process against `ffplay -autoexit`'s, as a ratio;
//   - pictures drawn as a share of the file's 1800;
//   - the 99th percentile of |picture time − audio clock| at the moment each picture is drawn.
// Both draw with SDL_UpdateYUVTexture and the renderer ffplay picks. Neither has a sound card
// here: ffplay gets SDL's dummy driver and the engine an output that pulls in real time; both
// decode, resample and pace the audio in full.
//
// Needs ffmpeg, ffplay and Xvfb; skips (with a message) when one is missing.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/testing/child_run.h"
#include "bench/testing/frame_handoff_surface.h"
#include "bench/testing/picture_window.h"
#include "bench/testing/virtual_display.h"
#include "nembra/main_queue.h"
#include "platform/ffmpeg/testing/realtime_audio_output.h"
#include "platform/media/media_player_engine.h"

namespace nembra {
namespace {

using testing::cpuSeconds;
using testing::onPath;
using testing::runChild;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFrames = 60 * 30;

// The frames ffplay dropped, from the last "fd=" of its status line; -1 when not found.
int ffplayDroppedFrames(const std::string& statusPath) {
  std::ifstream in(statusPath, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  const size_t at = text.rfind("fd=");
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 3);
}

class EndObserver final : public MediaPlayerObserver {
 public:
  void playerItemDidPlayToEnd(size_t) override { ended = true; }
  void playerItemDidFail(size_t, const Error& error) override {
    std::fprintf(stderr, "player_engine_bench: %s\n", error.message.c_str());
    ended = true;
  }
  bool ended = false;
};

struct EngineRun {
  double cpu = 0;
  int drawn = 0;
  std::atomic<int> presented{0};
  std::vector<double> offsets;           // seconds, absolute, when drawn
  std::vector<double> presentedOffsets;  // when handed to the surface (engine thread only)
  std::vector<double> drawTimes;         // seconds from taking a frame to the end of its present
};

double percentile99(std::vector<double> values) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  return values[values.size() * 99 / 100];
}

bool playWithEngine(const std::string& path, const std::string& display, EngineRun& run) {
  testing::PictureWindow window;
  if (!window.open(display, kWidth, kHeight)) return false;

  MainQueue main;
  auto surface = std::make_shared<testing::FrameHandoffSurface>();
  auto observer = std::make_shared<EndObserver>();
  MediaPlayerEngineOptions options;
  options.surface = surface;
  options.audioOutput = std::make_unique<testing::RealtimeAudioOutput>();
  options.postCallback = callbacksOn(main);
  options.observer = observer;

  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  auto engine = makeMediaPlayerEngine(std::move(options));
  surface->onPresent = [&](const VideoFrame& frame) {
    ++run.presented;
    run.presentedOffsets.push_back(std::fabs(frame.pts - engine->currentTime()));
  };
  engine->setItems({MediaPlayerItem::file(path)});
  engine->play();
  while (!observer->ended) {
    main.runUntilIdle();
    window.pumpEvents();
    SharedVideoFrame frame = surface->take(std::chrono::milliseconds(10));
    if (!frame) continue;
    run.drawTimes.push_back(window.draw(*frame));
    ++run.drawn;
    run.offsets.push_back(std::fabs(frame->pts - engine->currentTime()));
  }
  engine->close();
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  run.cpu = cpuSeconds(after) - cpuSeconds(before);
  return true;
}

void BM_PlayerEngineBesideFfplay(benchmark::State& state) {
  for (const char* program : {"ffmpeg", "ffplay", "Xvfb"}) {
    if (!onPath(program)) {
      state.SkipWithError((std::string(program) + " is not installed").c_str());
      return;
    }
  }
  const std::string path = testing::playerTestClip();
  if (path.empty()) {
    state.SkipWithError("could not make the test file");
    return;
  }
  testing::VirtualDisplay display;
  if (display.display().empty()) {
    state.SkipWithError("Xvfb did not start");
    return;
  }
  for (auto _ : state) {
    rusage ffplayUsage{};
    const std::string status = path + ".ffplay-status.txt";
    const auto ffplayStart = std::chrono::steady_clock::now();
    const int rc =
        runChild({"ffplay", "-hide_banner", "-loglevel", "error", "-stats", "-autoexit", "-x",
                  std::to_string(kWidth), "-y", std::to_string(kHeight), path},
                 {"DISPLAY=" + display.display(), "SDL_AUDIODRIVER=dummy"}, ffplayUsage, status);
    const int ffplayDropped = ffplayDroppedFrames(status);
    std::filesystem::remove(status);
    const double ffplayWall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - ffplayStart).count();
    if (rc != 0) {
      state.SkipWithError("ffplay failed");
      return;
    }
    EngineRun run;
    if (!playWithEngine(path, display.display(), run)) {
      state.SkipWithError("no SDL window on the virtual display");
      return;
    }
    const double p99 = percentile99(run.offsets) * 1000.0;
    const double presentedP99 = percentile99(run.presentedOffsets) * 1000.0;
    const double drawP99 = percentile99(run.drawTimes) * 1000.0;
    const double ffplayCpu = cpuSeconds(ffplayUsage);
    const double ratio = run.cpu / ffplayCpu;
    const double shown = 100.0 * run.drawn / kFrames;
    state.counters["ffplay_cpu_s"] = ffplayCpu;
    state.counters["engine_cpu_s"] = run.cpu;
    state.counters["cpu_ratio"] = ratio;
    state.counters["shown_pct"] = shown;
    state.counters["av_p99_ms"] = p99;
    std::printf(
        "ffplay: %.2f s CPU over %.1f s, %d pictures dropped (%.1f%% shown)\n"
        "engine: %.2f s CPU (%.2fx ffplay, target <= 1.10)\n"
        "pictures drawn: %d of %d (%.1f%%, target >= 99%%), %d handed to the surface\n"
        "audio/video offset p99: %.1f ms when drawn (target <= 40), %.1f ms when handed over;"
        " drawing one picture takes up to %.1f ms (p99)\n",
        ffplayCpu, ffplayWall, ffplayDropped, 100.0 * (kFrames - ffplayDropped) / kFrames, run.cpu,
        ratio, run.drawn, kFrames, shown, run.presented.load(), p99, presentedP99, drawP99);
  }
}
BENCHMARK(BM_PlayerEngineBesideFfplay)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
}  // namespace nembra

BENCHMARK_MAIN();
