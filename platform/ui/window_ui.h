// The window adapter: one SDL2 window (X11 or Wayland) showing the topmost screen's view, text
// drawn with SDL2_ttf and a DejaVu font (Debian's fonts-dejavu-core).
//
// How events reach the screens: the adapter has no thread of its own. A repeating task on the
// main queue (every 10 ms) polls SDL's events, hands them to the topmost view (whose listener,
// the screen, then runs on the main queue) and repaints when something changed or a new video
// frame arrived. So the host only has to keep pumping MainQueue (run() or runUntil()).
//
// Threading: main queue only. REQUIRES: views it made are destroyed before it.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "platform/ui/ui_adapter.h"
#include "platform/ui/window_screen_view.h"

namespace nembra {

class Timer;

struct WindowScreenshot {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;  // rows packed, 4 bytes a pixel

  // {r, g, b} at (x, y).
  std::array<uint8_t, 3> at(int x, int y) const {
    const size_t i = (static_cast<size_t>(y) * width + x) * 4;
    return {rgba[i], rgba[i + 1], rgba[i + 2]};
  }
};

class WindowUi final : public UiAdapter {
 public:
  struct Options {
    std::string title = "Nembra";
    int width = 1280;
    int height = 720;
    std::string fontPath = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
    std::string titleFontPath = "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf";
  };

  // Null with |error| when no window can be opened (no display) or the font is missing.
  static std::unique_ptr<WindowUi> open(MainQueue& mainQueue, const Options& options,
                                        OptionalError& error);
  ~WindowUi() override;

  UiKind kind() const override { return UiKind::Window; }
  std::unique_ptr<ScreenView> makeView(const std::string& screenName) override;
  void setQuitHandler(std::function<void()> handler) override { quit_ = std::move(handler); }

  // Paints now and reads the result back from the renderer.
  bool screenshot(WindowScreenshot& shot);
  // Polls events and paints if needed: what the repeating task does, for tests that step it.
  void pump();
  void resize(int width, int height);

 private:
  WindowUi() = default;
  void paint(WindowScreenshot* shot);
  void dispatch(const SDL_Event& event);

  SDL_Window* window_ = nullptr;
  WindowCanvas canvas_;
  std::vector<WindowScreenView*> views_;
  std::unique_ptr<Timer> pumpTimer_;
  std::function<void()> quit_;
  bool dirty_ = true;
  bool mouseHeld_ = false;
};

}  // namespace nembra
