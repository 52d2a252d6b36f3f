// The window adapter under a real X server (Xvfb): screenshots read back from the renderer and
// checked at known points.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/media/media_player_engine.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/testing/xvfb_display.h"
#include "platform/ui/window_ui.h"
#include "viewer/viewer_screens.h"

namespace nembra {
namespace {

bool near(std::array<uint8_t, 3> got, std::array<int, 3> want, int tolerance = 40) {
  for (int i = 0; i < 3; ++i) {
    if (std::abs(got[i] - want[i]) > tolerance) return false;
  }
  return true;
}

// Writes |shot| as a PPM beside the test's name when NEMBRA_SCREENSHOT_DIR is set.
void keep(const WindowScreenshot& shot, const std::string& name) {
  const char* dir = std::getenv("NEMBRA_SCREENSHOT_DIR");
  if (!dir) return;
  std::ofstream out(std::string(dir) + "/" + name + ".ppm", std::ios::binary);
  out << "P6\n" << shot.width << " " << shot.height << "\n255\n";
  for (size_t i = 0; i < shot.rgba.size(); i += 4)
    out.write(reinterpret_cast<const char*>(&shot.rgba[i]), 3);
}

class AlertScreen final : public Screen {
 public:
  std::string name() const override { return "alert"; }
  int answered = -1;

 protected:
  void viewDidLoad() override {
    view().setButton("play", {"play-white", "Play", true, false});
    view().showAlert({"Upload failed", "The network connection was lost.", {"Cancel", "Retry"}},
                     [this](int button) { answered = button; });
  }
};

class VideoScreen final : public Screen {
 public:
  std::string name() const override { return "video"; }
  VideoSurface* surface = nullptr;

 protected:
  void viewDidLoad() override { surface = view().videoSurface(); }
};

class WindowScreenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (xvfb_.display().empty()) GTEST_SKIP() << "Xvfb cannot be started";
    ::setenv("DISPLAY", xvfb_.display().c_str(), 1);
    ::unsetenv("WAYLAND_DISPLAY");
    WindowUi::Options options;
    options.width = 640;
    options.height = 480;
    OptionalError error;
    window_ = WindowUi::open(queue_, options, error);
    ASSERT_TRUE(window_) << error->message;
    presenter_ = std::make_shared<ScreenPresenter>(*window_, queue_);
  }
  void TearDown() override {
    presenter_.reset();
    window_.reset();
  }
  WindowScreenshot shoot() {
    WindowScreenshot shot;
    window_->screenshot(shot);
    return shot;
  }

  testing::XvfbDisplay xvfb_;
  MainQueue queue_;
  std::unique_ptr<WindowUi> window_;
  std::shared_ptr<ScreenPresenter> presenter_;
};

TEST_F(WindowScreenTest, ViewerShowsThePictureColoursWhereTheyBelong) {
  testing::MediaTestFiles files;
  // Left half red, right half blue, the window's aspect.
  const std::string path = files.make(
      "halves.png",
      {"-f", "lavfi", "-i", "color=c=red:s=320x240,drawbox=x=160:y=0:w=160:h=240:color=blue:t=fill",
       "-frames:v", "1"});
  ASSERT_FALSE(path.empty());
  Nembra nembra("app", queue_);
  nembra.setScreenPresenter(presenter_);
  installViewerScreens();
  nembra.showImageFromUri(path);
  WindowScreenshot shot;
  const bool shown = queue_.runUntil([&] {
    shot = shoot();
    return near(shot.at(160, 240), {255, 0, 0});
  });
  keep(shot, "viewer");
  ASSERT_TRUE(shown);
  EXPECT_TRUE(near(shot.at(480, 240), {0, 0, 255}));
  EXPECT_TRUE(near(shot.at(300, 200), {255, 0, 0}));
  EXPECT_TRUE(near(shot.at(340, 200), {0, 0, 255}));
  // The close button's cross, white, at the end of the bottom row.
  presenter_->dismissAll();
  queue_.runUntilIdle();
  EXPECT_TRUE(near(shoot().at(480, 240), {0, 0, 0}));
}

TEST_F(WindowScreenTest, AlertShowsItsBoxAndTextAndAnswersFromTheKeyboard) {
  auto screen = std::make_shared<AlertScreen>();
  presenter_->present(screen);
  WindowScreenshot shot = shoot();
  keep(shot, "alert");
  // The box is light grey, centred; its title row holds dark text pixels.
  EXPECT_TRUE(near(shot.at(320, 240), {238, 238, 238}, 6));
  int dark = 0;
  for (int y = 180; y < 230; ++y) {
    for (int x = 140; x < 500; ++x) {
      auto p = shot.at(x, y);
      if (p[0] < 90 && p[1] < 90 && p[2] < 90) ++dark;
    }
  }
  EXPECT_GT(dark, 100) << "no title text drawn in the alert";
  // Around the box the window is dimmed.
  EXPECT_TRUE(near(shot.at(10, 10), {0, 0, 0}, 10));

  SDL_Event key{};
  key.type = SDL_KEYDOWN;
  key.key.keysym.sym = SDLK_RETURN;
  SDL_PushEvent(&key);
  window_->pump();
  EXPECT_EQ(screen->answered, 1);  // enter takes the last button
}

TEST_F(WindowScreenTest, VideoFramesAreDrawnWithTheirAspectKept) {
  auto screen = std::make_shared<VideoScreen>();
  presenter_->present(screen);
  ASSERT_NE(screen->surface, nullptr);
  // A 16:9 frame, left half Y/U/V of pure red, right half of pure blue (BT.601 limited range).
  auto frame = std::make_shared<VideoFrame>();
  frame->width = 320;
  frame->height = 180;
  frame->strides[0] = 320;
  frame->strides[1] = frame->strides[2] = 160;
  frame->planes[0].resize(320 * 180);
  frame->planes[1].resize(160 * 90);
  frame->planes[2].resize(160 * 90);
  for (int y = 0; y < 180; ++y) {
    for (int x = 0; x < 320; ++x) frame->planes[0][y * 320 + x] = x < 160 ? 81 : 41;
  }
  for (int y = 0; y < 90; ++y) {
    for (int x = 0; x < 160; ++x) {
      frame->planes[1][y * 160 + x] = x < 80 ? 90 : 240;
      frame->planes[2][y * 160 + x] = x < 80 ? 240 : 110;
    }
  }
  screen->surface->present(frame);
  WindowScreenshot shot = shoot();
  keep(shot, "video");
  // 640 wide at 16:9 is 360 high: black bars of 60 above and below.
  EXPECT_TRUE(near(shot.at(160, 240), {255, 0, 0}, 50));
  EXPECT_TRUE(near(shot.at(480, 240), {0, 0, 255}, 50));
  EXPECT_TRUE(near(shot.at(320, 30), {0, 0, 0}, 10));
  EXPECT_TRUE(near(shot.at(160, 70), {255, 0, 0}, 50));

  // Resized to a tall window the bars move to the sides.
  window_->resize(400, 600);
  queue_.runUntil([&] { return shoot().width == 400; }, std::chrono::seconds(3));
  shot = shoot();
  keep(shot, "video-tall");
  ASSERT_EQ(shot.width, 400);
  EXPECT_TRUE(near(shot.at(100, 300), {255, 0, 0}, 50));
  EXPECT_TRUE(near(shot.at(200, 150), {0, 0, 0}, 10));  // 400 wide gives 225 high, centred
}

// A file played by the engine reaches the window: SMPTE colour bars, 16:9, letterboxed in 4:3.
TEST_F(WindowScreenTest, EngineShowsAPlayedFilesColourBars) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
  testing::MediaTestFiles files;
  const std::string bars =
      files.make("bars.mp4", {"-f", "lavfi", "-i", "smptebars=size=640x360:rate=25:duration=3",
                              "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
  ASSERT_FALSE(bars.empty());

  auto screen = std::make_shared<VideoScreen>();
  presenter_->present(screen);
  ASSERT_NE(screen->surface, nullptr);
  MediaPlayerEngineOptions options;
  // The surface belongs to the screen's view, which outlives the engine here.
  options.surface = std::shared_ptr<VideoSurface>(screen, screen->surface);
  options.postCallback = callbacksOn(queue_);
  auto engine = makeMediaPlayerEngine(std::move(options));
  MediaPlayerItem item;
  item.path = bars;
  engine->setItems({item});
  engine->seek(1.0);  // shown at once, paused
  // Top two thirds: grey, yellow, cyan, green, magenta, red, blue at 75 %.
  const std::array<std::array<int, 3>, 7> expected = {{{191, 191, 191},
                                                       {191, 191, 0},
                                                       {0, 191, 191},
                                                       {0, 191, 0},
                                                       {191, 0, 191},
                                                       {191, 0, 0},
                                                       {0, 0, 191}}};
  auto barsShown = [&](const WindowScreenshot& shot) {
    for (int i = 0; i < 7; ++i) {
      const int x = static_cast<int>((i + 0.5) * 640 / 7);
      if (!near(shot.at(x, 60 + 100), expected[i], 50)) return false;
    }
    return near(shot.at(320, 30), {0, 0, 0}, 10);  // the bar above the 16:9 picture
  };
  WindowScreenshot shot;
  const bool shown = queue_.runUntil(
      [&] {
        shot = shoot();
        return barsShown(shot);
      },
      std::chrono::seconds(10));
  keep(shot, "engine-bars");
  EXPECT_TRUE(shown);
  engine->close();
}

TEST(WindowWithoutDisplayTest, SaysThereIsNoDisplay) {
  const char* saved = std::getenv("DISPLAY");
  const std::string display = saved ? saved : "";
  ::unsetenv("DISPLAY");
  ::unsetenv("WAYLAND_DISPLAY");
  MainQueue queue;
  OptionalError error;
  EXPECT_FALSE(WindowUi::open(queue, WindowUi::Options{}, error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("no display"), std::string::npos);

  WindowUi::Options noFont;
  noFont.fontPath = "/nonexistent/DejaVuSans.ttf";
  ::setenv("DISPLAY", ":0", 1);
  error.reset();
  EXPECT_FALSE(WindowUi::open(queue, noFont, error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("fonts-dejavu-core"), std::string::npos);
  if (display.empty()) {
    ::unsetenv("DISPLAY");
  } else {
    ::setenv("DISPLAY", display.c_str(), 1);
  }
}

}  // namespace
}  // namespace nembra
