// The video player through its caching loader, against a local `nembra serve`:
//   - time to first frame from the player's cache and from the service (targets 150 ms and
//     400 ms), beside ffmpeg decoding its first frame from the same URL in the same run;
//   - a full play of a large video (1 GiB by default, --size-mb to change) with three seeks
//     (forward, back into what was fetched, forward past the end of the fetch): the bytes the
//     loader fetched against the file's size (target 1.05) and this process's peak resident size
//     (target 64 MB).
// The large file is generated here (x264 ultrafast over noise) in a temporary directory and
// deleted afterwards. Needs ffmpeg; says so and stops without it.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/testing/local_service.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "platform/media/media_log.h"
#include "playback/nembra_player.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Remembers when the first picture arrived.
class FirstFrameSurface final : public VideoSurface {
 public:
  void present(SharedVideoFrame) override {
    if (!seen_.exchange(true)) at_ = Clock::now();
  }
  void clear() override {}
  bool seen() const { return seen_; }
  Clock::time_point at() const { return at_; }

 private:
  std::atomic<bool> seen_{false};
  Clock::time_point at_;
};

int run(const std::string& command) { return std::system(command.c_str()); }

double msSince(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double, std::milli>(end - start).count();
}

// Plays |token| until its first picture; the time to it in ms, or -1.
double timeToFirstFrame(Nembra& nembra, const std::string& token, bool* fromCache) {
  auto surface = std::make_shared<FirstFrameSurface>();
  const auto start = Clock::now();
  auto player = NembraPlayer::initWithNembraApplication(nembra, token);
  *fromCache = !player->item(0).asset->resourceLoaderDelegate();
  player->setOutputs(surface, nullptr);
  player->play();
  nembra.mainQueue().runUntil([&] { return surface->seen(); }, std::chrono::seconds(20));
  double ms = surface->seen() ? msSince(start, surface->at()) : -1;
  player->close();
  return ms;
}

long peakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace
}  // namespace nembra

int main(int argc, char** argv) {
  using namespace nembra;
  long sizeMb = 1024;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--size-mb") sizeMb = std::atol(argv[i + 1]);
  }
  if (run("ffmpeg -version > /dev/null 2>&1") != 0) {
    std::printf("ffmpeg is not installed: nothing measured\n");
    return 0;
  }
  setMediaLogLevel(MediaLogLevel::Errors);
  const fs::path scratch =
      fs::temp_directory_path() / ("nembra-loader-bench-" + std::to_string(getpid()));
  fs::create_directories(scratch / "home");
  setenv("HOME", (scratch / "home").c_str(), 1);

  testing::LocalService service;
  if (!service.start(testing::LocalService::defaultTool(), "player_loader_bench")) return 1;
  auto upload = [&](const fs::path& file) {
    return service.upload(testing::LocalService::defaultTool(), "bench", file.string());
  };

  MainQueue queue;
  Nembra nembra("bench", queue);
  nembra.config().useSingleServer(service.url());
  nembra.cacheConfig().setCacheRoot((scratch / "cache").string() + "/");
  fs::create_directories(scratch / "cache");

  // Time to first frame: a 10 s 720p clip.
  const fs::path clip = scratch / "clip.mp4";
  run("ffmpeg -loglevel error -y -f lavfi -i testsrc2=size=1280x720:rate=30:duration=10 -f lavfi "
      "-i sine=duration=10 -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -movflags "
      "+faststart " +
      clip.string());
  const std::string clipToken = upload(clip);
  if (clipToken.empty()) {
    std::printf("the upload failed\n");
    return 1;
  }
  const std::string url =
      service.url() + "/cdn/v1/applications/bench/videos/" + clipToken + "/video.mp4";
  bool cached = false;
  const double fromService = timeToFirstFrame(nembra, clipToken, &cached);
  // The first play stops at its first picture, before the loader has the whole file to cache;
  // the cache entry a full play leaves is the uploaded file under the token.
  const fs::path cachedClip =
      nembra.playerCacheManager().getCacheFilePathWithType(VIDEO, clipToken);
  if (!fs::exists(cachedClip)) {
    fs::create_directories(cachedClip.parent_path());
    fs::copy_file(clip, cachedClip);
  }
  const double fromCacheMs = timeToFirstFrame(nembra, clipToken, &cached);
  auto peerStart = Clock::now();
  run("ffmpeg -loglevel error -i " + url + " -frames:v 1 -f null - > /dev/null 2>&1");
  const double peer = msSince(peerStart, Clock::now());
  std::printf(
      "time to first frame from the service: %.1f ms (target 400): %s; ffmpeg's first "
      "frame from the same URL %.1f ms, ratio %.2f\n",
      fromService, fromService >= 0 && fromService <= 400 ? "met" : "missed", peer,
      fromService / peer);
  std::printf("time to first frame from the cache (%s): %.1f ms (target 150): %s\n",
              cached ? "local file" : "NOT cached", fromCacheMs,
              fromCacheMs >= 0 && fromCacheMs <= 150 ? "met" : "missed");

  // The large file: noise at a high rate, so every second weighs the same.
  const fs::path big = scratch / "big.mp4";
  const long frames = sizeMb * 1024 * 1024 / (600 * 1024);  // about 600 KB a picture
  run("ffmpeg -loglevel error -y -f rawvideo -pix_fmt gray -s 960x540 -r 25 -i /dev/urandom "
      "-frames:v " +
      std::to_string(frames) +
      " -vf format=yuv420p -c:v libx264 -preset ultrafast -qp 12 -movflags +faststart " +
      big.string());
  const uint64_t bigSize = fs::file_size(big);
  const std::string bigToken = upload(big);
  fs::remove(big);
  if (bigToken.empty()) {
    std::printf("the large upload failed\n");
    return 1;
  }
  auto player = NembraPlayer::initWithNembraApplication(nembra, bigToken);
  auto loader = player->item(0).asset->resourceLoaderDelegate();
  player->setOutputs(std::make_shared<FirstFrameSurface>(), nullptr);
  player->play();
  bool ended = false;
  player->setDidFinishPlaying([&](const std::string&, const OptionalError&) { ended = true; });
  auto waitFor = [&](double seconds) {
    queue.runUntil([&] { return ended; },
                   std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
  };
  waitFor(2);
  const double duration = player->duration();
  for (double at : {0.5, 0.2, 0.93}) {
    player->seek(duration * at);
    waitFor(2);
  }
  queue.runUntil([&] { return ended; }, std::chrono::minutes(10));
  const uint64_t fetched = loader ? loader->bytesReceived() : 0;
  player->close();
  player.reset();
  const double ratio = static_cast<double>(fetched) / static_cast<double>(bigSize);
  const long rssMb = peakRssKb() / 1024;
  std::printf(
      "%.0f MB video, %.0f s, full play with three seeks: fetched %.3f x its size (target "
      "1.05): %s; peak resident size %ld MB (target 64): %s\n",
      bigSize / 1e6, duration, ratio, ratio <= 1.05 ? "met" : "missed", rssMb,
      rssMb <= 64 ? "met" : "missed");
  std::error_code ec;
  fs::remove_all(scratch, ec);
  return 0;
}
