#include "viewer/image_viewer_screen.h"

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <sstream>

#include "api/nembra.h"
#include "api/nembra_screens.h"
#include "platform/dispatch/main_queue.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "viewer/viewer_screens.h"

namespace nembra {
namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class ImageViewerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    nembra_.cacheConfig().setCacheRoot(scratch_.path() + "/");
    nembra_.config().useSingleServer("http://127.0.0.1:9");  // error reports stay here
    presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
    nembra_.setScreenPresenter(presenter_);
    installViewerScreens();
  }
  void TearDown() override { NembraScreens::install(nullptr); }

  std::string still(const std::string& name, const std::string& size) {
    return files_.make(name, {"-f", "lavfi", "-i", "color=c=green:s=" + size, "-frames:v", "1"});
  }
  HeadlessScreenView& view() { return *ui_.topView(); }
  // Pumps the main queue until the status label shows something other than "loading".
  std::string settledStatus() {
    queue_.runUntil([&] {
      auto* v = ui_.topView();
      return v && !v->label("status").empty() && v->label("status") != "loading" &&
             v->label("status") != "loading the full image";
    });
    return view().label("status");
  }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_;
  testing::MediaTestFiles files_;
  testing::ScratchDirectory scratch_;
};

TEST_F(ImageViewerTest, StepsThroughPicturesAndClosesWithTheButtonsAndKeys) {
  const std::string a = still("a.png", "320x240");
  const std::string b = still("b.jpg", "640x360");
  nembra_.showImageFromUris({a, "file://" + b});
  ASSERT_NE(ui_.topView(), nullptr);
  EXPECT_EQ(view().screenName(), "image-viewer");
  EXPECT_EQ(settledStatus(), "320 x 240 png");
  EXPECT_EQ(view().label("position"), "1 / 2");
  EXPECT_FALSE(view().button("previous")->enabled);
  EXPECT_FALSE(view().press("previous"));

  view().pressKey("right");
  EXPECT_EQ(settledStatus(), "640 x 360 jpeg");
  EXPECT_EQ(view().label("position"), "2 / 2");
  EXPECT_FALSE(view().button("next")->enabled);
  ASSERT_TRUE(view().picture());
  EXPECT_EQ(view().picture()->width, 640);

  ASSERT_TRUE(view().press("previous"));
  EXPECT_EQ(settledStatus(), "320 x 240 png");

  view().pressKey("q");
  queue_.runUntilIdle();
  EXPECT_EQ(presenter_->depth(), 0u);
  EXPECT_EQ(ui_.topView(), nullptr);
}

TEST_F(ImageViewerTest, ZoomsFromFitToOneToOneAndPansWithinThePicture) {
  nembra_.showImageFromUri(still("wide.png", "2560x1440"));
  view().resize(1280, 720);
  settledStatus();
  EXPECT_EQ(view().viewport().scale, 0);  // fit
  // Decoded to the picture area, not to the source.
  EXPECT_LE(view().picture()->width, 1280);

  view().pressKey("1");
  EXPECT_DOUBLE_EQ(view().viewport().scale, 1.0);
  // 1:1 asks for a sharper decode in the background.
  queue_.runUntil([&] { return view().picture()->width == 2560; });
  EXPECT_EQ(view().picture()->width, 2560);

  view().drag(-100000, 0);  // far past the right edge
  EXPECT_DOUBLE_EQ(view().viewport().centerX, 1.0);
  view().drag(640, 0);
  EXPECT_NEAR(view().viewport().centerX, 1.0 - 640.0 / 2560, 1e-9);

  view().press("zoom-out");
  EXPECT_NEAR(view().viewport().scale, 0.8, 1e-9);
  view().zoom(0.01);
  EXPECT_EQ(view().viewport().scale, 0);  // zooming out past the fit stays at fit
  view().press("zoom-in");
  EXPECT_NEAR(view().viewport().scale, 0.5 * 1.25, 1e-9);
  view().press("fit");
  EXPECT_EQ(view().viewport().scale, 0);
  EXPECT_EQ(view().viewport().centerX, 0.5);
}

TEST_F(ImageViewerTest, AnimatedGifPlays) {
  nembra_.showImageFromUri(
      files_.make("moving.gif", {"-f", "lavfi", "-i", "testsrc2=size=64x48:rate=10:duration=1"}));
  EXPECT_EQ(settledStatus(), "64 x 48 gif, 10 frames");
  const size_t first = view().pictureFrame();
  EXPECT_TRUE(
      queue_.runUntil([&] { return view().pictureFrame() != first; }, std::chrono::seconds(2)));
}

TEST_F(ImageViewerTest, RemotePicturesComeFromTheNetworkOnceThenFromDisk) {
  testing::HttpTestServer server;
  const std::string png = readText(still("remote.png", "200x100"));
  server.on("GET", "/image.png", [&](const httplib::Request&, httplib::Response& reply) {
    reply.set_content(png, "image/png");
  });
  server.on("GET", "/missing.png", [](const httplib::Request&, httplib::Response& reply) {
    reply.status = 404;
    reply.set_content("<html>gone</html>", "text/html");
  });
  server.on("GET", "/page.png", [](const httplib::Request&, httplib::Response& reply) {
    reply.set_content("<html><body>a login page</body></html>", "text/html");
  });
  server.start();

  nembra_.showImageFromUris(
      {server.url("/image.png"), server.url("/missing.png"), server.url("/page.png")});
  const std::string status = settledStatus();
  EXPECT_EQ(status.rfind("200 x 100 png, ", 0), 0u) << status;
  EXPECT_NE(status.find("MB/s"), std::string::npos) << status;
  EXPECT_GT(nembra_.imageLoader()->downloadSpeed(), 0);

  view().press("next");
  EXPECT_EQ(settledStatus(), server.url("/missing.png") + ": the server answered HTTP 404");
  view().press("next");
  EXPECT_EQ(settledStatus(), server.url("/page.png") + ": the answer is text/html, not a picture");

  // Another loader (no memory cache) finds the picture in the disk cache.
  RemoteImageLoader fresh(nembra_);
  std::string source;
  fresh.load(server.url("/image.png"), PictureLimits{},
             [&](const ImageLoadResult& result, const OptionalError&) { source = result.source; });
  queue_.runUntil([&] { return !source.empty(); });
  EXPECT_EQ(source, "disk");
  EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(ImageViewerTest, TransportFailuresAreRetried) {
  const int port = testing::HttpTestServer::closedPort();
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/late.png";
  RemoteImageLoader::Options options;
  options.retries = 3;
  options.retryDelay = std::chrono::milliseconds(300);
  RemoteImageLoader loader(nembra_, nullptr, options);
  std::optional<std::string> outcome;
  loader.load(url, PictureLimits{}, [&](const ImageLoadResult& result, const OptionalError& e) {
    outcome = e ? e->message : result.picture->format;
  });
  // The server comes up after the first attempt was refused.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  auto server = std::make_unique<httplib::Server>();
  const std::string png = readText(still("late.png", "20x20"));
  server->Get("/late.png", [&](const httplib::Request&, httplib::Response& reply) {
    reply.set_content(png, "image/png");
  });
  ASSERT_TRUE(server->bind_to_port("127.0.0.1", port));
  std::thread serving([&] { server->listen_after_bind(); });
  queue_.runUntil([&] { return outcome.has_value(); });
  server->stop();
  serving.join();
  EXPECT_EQ(outcome.value_or("no answer"), "png");
}

TEST_F(ImageViewerTest, WithoutAPresenterNothingIsShownAndTheErrorIsLogged) {
  // The error report's own failure is logged later from the HTTP queue, after this test: the
  // sink keeps its lines alive and locked.
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> all;
  };
  auto lines = std::make_shared<Lines>();
  nembra_.enableDebugLogs = true;
  nembra_.setLogSink([lines](const std::string& line) {
    std::lock_guard lock(lines->mutex);
    lines->all.push_back(line);
  });
  nembra_.setScreenPresenter({});
  nembra_.showImageFromUri("/nowhere.png");
  EXPECT_EQ(ui_.topView(), nullptr);
  std::lock_guard lock(lines->mutex);
  ASSERT_FALSE(lines->all.empty());
  EXPECT_NE(lines->all[0].find("no UI adapter is set"), std::string::npos);
}

TEST_F(ImageViewerTest, TokensBecomeMediaServerUrls) {
  nembra_.config().file_server_url = "http://127.0.0.1:9";
  nembra_.showImages({"tok1", "tok2"});
  ASSERT_NE(ui_.topView(), nullptr);
  EXPECT_EQ(view().title(), "http://127.0.0.1:9/v1/applications/app/images/tok1/image.jpg");
  EXPECT_EQ(view().label("position"), "1 / 2");
}

}  // namespace
}  // namespace nembra
