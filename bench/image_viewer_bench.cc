// Image viewer: time from showImageFromUri to the first full picture on screen for a 4000 × 3000
// JPEG served over loopback HTTP, cold (download and decode) and from the disk cache. Target:
// at most 150 ms. Uses the window when a display is set, the headless view otherwise.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "api/remote_image_loader.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/window_ui.h"
#include "viewer/viewer_screens.h"

namespace nembra {
namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void BM_FirstFullImageOnScreen(benchmark::State& state) {
  testing::MediaTestFiles files;
  const std::string jpeg = readText(files.make(
      "big.jpg", {"-f", "lavfi", "-i", "testsrc2=size=4000x3000", "-frames:v", "1", "-q:v", "3"}));
  testing::HttpTestServer server;
  server.on("GET", "/big.jpg", [&](const httplib::Request&, httplib::Response& reply) {
    reply.set_content(jpeg, "image/jpeg");
  });
  server.start();
  testing::ScratchDirectory scratch;
  MainQueue queue;
  OptionalError error;
  std::unique_ptr<UiAdapter> ui = WindowUi::open(queue, WindowUi::Options{}, error);
  auto* window = dynamic_cast<WindowUi*>(ui.get());
  if (!ui) ui = std::make_unique<HeadlessUi>();
  auto* headless = dynamic_cast<HeadlessUi*>(ui.get());
  installViewerScreens();
  const bool cold = state.range(0) == 0;
  double worst = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Nembra nembra("bench", queue);
    nembra.cacheConfig().setCacheRoot(scratch.path() + "/");
    if (cold) std::remove(nembra.imageLoader()->diskCachePath(server.url("/big.jpg")).c_str());
    auto presenter = std::make_shared<ScreenPresenter>(*ui, queue);
    nembra.setScreenPresenter(presenter);
    state.ResumeTiming();
    const auto started = std::chrono::steady_clock::now();
    nembra.showImageFromUri(server.url("/big.jpg"));
    queue.runUntil([&] {
      if (headless) return headless->topView() && headless->topView()->picture();
      WindowScreenshot shot;
      window->screenshot(shot);  // on screen: drawn and read back
      auto p = shot.at(shot.width / 2, shot.height / 2);
      return p[0] + p[1] + p[2] > 0;
    });
    worst = std::max(
        worst, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
                   .count());
    state.PauseTiming();
    presenter->dismissAll();
    queue.runUntilIdle();
    state.ResumeTiming();
  }
  state.counters["worst_ms"] = worst;
  state.SetLabel(std::string(window ? "window" : "headless") + (cold ? ", download" : ", disk"));
}
BENCHMARK(BM_FirstFullImageOnScreen)->Arg(0)->Arg(1)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nembra

BENCHMARK_MAIN();
