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
#include <SDL.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nembra/main_queue.h"
#include "platform/ffmpeg/testing/realtime_audio_output.h"
#include "platform/media/media_player_engine.h"

extern char** environ;

namespace nembra {
namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFrames = 60 * 30;

double cpuSeconds(const rusage& usage) {
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool onPath(const char* program) {
  for (const char* dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
    if (::access((std::string(dir) + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

// Starts |argv| with |extraEnv| added; its pid, or -1.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
            const std::string& stdoutPath = "/dev/null",
            const std::string& stderrPath = "/dev/null") {
  std::vector<std::string> env(extraEnv);
  for (char** entry = environ; *entry; ++entry) env.emplace_back(*entry);
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& entry : env) envp.push_back(const_cast<char*>(entry.c_str()));
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Runs to completion; its exit status and resource use.
int runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
             rusage& usage, const std::string& stderrPath = "/dev/null") {
  pid_t pid = spawn(argv, env, "/dev/null", stderrPath);
  if (pid < 0) return -1;
  int status = 0;
  ::wait4(pid, &status, 0, &usage);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The test file, made once and kept in the temporary directory between runs.
std::string testFile() {
  const std::string path =
      (std::filesystem::temp_directory_path() / "nembra-player-bench-1080p30.mp4").string();
  if (std::filesystem::exists(path)) return path;
  const std::string partial = path + ".part.mp4";
  rusage ignored{};
  const int rc = runChild({"ffmpeg",
                           "-hide_banner",
                           "-loglevel",
                           "error",
                           "-y",
                           "-f",
                           "lavfi",
                           "-i",
                           "testsrc2=size=1920x1080:rate=30:duration=60",
                           "-f",
                           "lavfi",
                           "-i",
                           "sine=frequency=440:duration=60",
                           "-c:v",
                           "libx264",
                           "-preset",
                           "veryfast",
                           "-pix_fmt",
                           "yuv420p",
                           "-c:a",
                           "aac",
                           "-b:a",
                           "128k",
                           "-movflags",
                           "+faststart",
                           partial},
                          {}, ignored);
  if (rc != 0) return "";
  std::filesystem::rename(partial, path);
  return path;
}

// Xvfb on a display it picks itself; stopped at destruction.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    output_ =
        (std::filesystem::temp_directory_path() / ("nembra-xvfb-" + std::to_string(::getpid())))
            .string();
    pid_ = spawn({"Xvfb", "-displayfd", "1", "-screen", "0", "1920x1080x24", "-nolisten", "tcp"},
                 {}, output_);
    for (int i = 0; i < 100 && pid_ > 0 && display_.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      std::ifstream in(output_);
      std::string number;
      if (std::getline(in, number) && !number.empty()) display_ = ":" + number;
    }
  }
  ~VirtualDisplay() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    std::filesystem::remove(output_);
  }
  const std::string& display() const { return display_; }

 private:
  pid_t pid_ = -1;
  std::string output_;
  std::string display_;
};

// The frames ffplay dropped, from the last "fd=" of its status line; -1 when not found.
int ffplayDroppedFrames(const std::string& statusPath) {
  std::ifstream in(statusPath, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  const size_t at = text.rfind("fd=");
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 3);
}

// Keeps the newest frame for the window loop, as a window's surface does.
class LatestFrameSurface final : public VideoSurface {
 public:
  // On the engine's thread, for each frame handed over.
  std::function<void(const VideoFrame&)> onPresent;

  void present(SharedVideoFrame frame) override {
    if (onPresent) onPresent(*frame);
    std::lock_guard lock(mutex_);
    latest_ = std::move(frame);
    fresh_ = true;
    wake_.notify_one();
  }
  void clear() override {}
  SharedVideoFrame take(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, wait, [this] { return fresh_; });
    if (!fresh_) return nullptr;
    fresh_ = false;
    return latest_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  SharedVideoFrame latest_;
  bool fresh_ = false;
};

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
  ::setenv("DISPLAY", display.c_str(), 1);
  if (SDL_Init(SDL_INIT_VIDEO) != 0) return false;
  SDL_Window* window = SDL_CreateWindow("player engine", SDL_WINDOWPOS_UNDEFINED,
                                        SDL_WINDOWPOS_UNDEFINED, kWidth, kHeight, 0);
  // The flags ffplay asks for, and its fallback.
  SDL_Renderer* renderer =
      window ? SDL_CreateRenderer(window, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC)
             : nullptr;
  if (window && !renderer) renderer = SDL_CreateRenderer(window, -1, 0);
  SDL_Texture* texture = renderer ? SDL_CreateTexture(renderer, SDL_PIXELFORMAT_IYUV,
                                                      SDL_TEXTUREACCESS_STREAMING, kWidth, kHeight)
                                  : nullptr;
  if (!texture) {
    SDL_Quit();
    return false;
  }

  MainQueue main;
  auto surface = std::make_shared<LatestFrameSurface>();
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
    SDL_Event event;
    while (SDL_PollEvent(&event)) {
    }
    SharedVideoFrame frame = surface->take(std::chrono::milliseconds(10));
    if (!frame) continue;
    const auto drawStart = std::chrono::steady_clock::now();
    SDL_UpdateYUVTexture(texture, nullptr, frame->planes[0].data(), frame->strides[0],
                         frame->planes[1].data(), frame->strides[1], frame->planes[2].data(),
                         frame->strides[2]);
    SDL_RenderClear(renderer);
    SDL_RenderCopy(renderer, texture, nullptr, nullptr);
    SDL_RenderPresent(renderer);
    ++run.drawn;
    run.drawTimes.push_back(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - drawStart).count());
    run.offsets.push_back(std::fabs(frame->pts - engine->currentTime()));
  }
  engine->close();
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  run.cpu = cpuSeconds(after) - cpuSeconds(before);

  SDL_DestroyTexture(texture);
  SDL_DestroyRenderer(renderer);
  SDL_DestroyWindow(window);
  SDL_Quit();
  return true;
}

void BM_PlayerEngineBesideFfplay(benchmark::State& state) {
  for (const char* program : {"ffmpeg", "ffplay", "Xvfb"}) {
    if (!onPath(program)) {
      state.SkipWithError((std::string(program) + " is not installed").c_str());
      return;
    }
  }
  const std::string path = testFile();
  if (path.empty()) {
    state.SkipWithError("could not make the test file");
    return;
  }
  VirtualDisplay display;
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
