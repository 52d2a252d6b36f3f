// The window adapter's view of one screen: keeps what the screen set and draws it with an SDL
// renderer when the window adapter asks, full window: the video or picture fills the window
// with its aspect kept; the title and labels sit at the top, the slider and the buttons at the
// bottom, a list in the middle, a modal alert over everything.
//
// Threading: main queue only, like every view; the video surface takes frames from any thread
// and is uploaded as a YUV texture on the next paint.
// REQUIRES: the WindowUi that made it outlives it.
#pragma once

#include <SDL.h>
#include <SDL_ttf.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ui/latest_frame_surface.h"
#include "platform/ui/screen_view.h"
#include "platform/ui/screen_view_state.h"

namespace nembra {

// What the window shares with its views.
struct WindowCanvas {
  SDL_Renderer* renderer = nullptr;
  TTF_Font* textFont = nullptr;
  TTF_Font* titleFont = nullptr;
};

class WindowScreenView final : public ScreenView {
 public:
  // |onChange| runs whenever something to draw changed; |onDestroy| when the view goes away.
  WindowScreenView(WindowCanvas& canvas, std::function<void()> onChange,
                   std::function<void(WindowScreenView*)> onDestroy);
  ~WindowScreenView() override;

  void setListener(ScreenViewListener* listener) override { state_.setListener(listener); }
  void setTitle(const std::string& title) override;
  void setLabel(const std::string& name, const std::string& text) override;
  void setButton(const std::string& name, const ButtonState& state) override;
  void bindKey(const std::string& key, const std::string& button) override;
  void setSlider(const std::string& name, const SliderState& state) override;
  void setList(const std::string& name, const ListState& state) override;
  void setPicture(SharedPicture picture, size_t frame, const PictureViewport& viewport) override;
  VideoSurface* videoSurface() override { return &surface_; }
  void showAlert(const AlertState& alert, AlertAnswer answer) override;
  void dismissAlert() override;
  void pictureAreaSize(int& width, int& height) const override;

  // Draws the whole view into a |width| × |height| target.
  void paint(int width, int height);
  // True when a new video frame arrived since the last paint.
  bool videoChanged() const;

  // Input from the window, already in this view's coordinates.
  void keyDown(const std::string& key);
  void mouseDown(int x, int y);
  void mouseUp(int x, int y);
  void mouseMove(int x, int y, bool buttonHeld);
  void wheel(int x, int y, double amount);
  void resized(int width, int height);

 private:
  struct Rect {
    int x = 0, y = 0, w = 0, h = 0;
    bool contains(int px, int py) const { return px >= x && py >= y && px < x + w && py < y + h; }
  };
  struct TextTexture {
    SDL_Texture* texture = nullptr;
    int width = 0, height = 0;
  };

  const TextTexture* text(const std::string& text, bool title);
  void drawText(const std::string& text, bool title, int x, int y, SDL_Color color,
                bool centered = false);
  void fill(const Rect& rect, SDL_Color color);
  void drawGlyph(const std::string& image, const Rect& rect, uint8_t alpha);
  void paintVideo(int width, int height);
  void paintPicture(int width, int height);
  void paintControls(int width, int height);
  void paintList(int width, int height);
  void paintAlert(int width, int height);
  void answer(int button);
  void sliderTo(int x);
  void changed();

  WindowCanvas& canvas_;
  std::function<void()> onChange_;
  std::function<void(WindowScreenView*)> onDestroy_;
  ScreenViewState state_;

  LatestFrameSurface surface_;
  uint64_t videoGeneration_ = ~uint64_t{0};
  SDL_Texture* videoTexture_ = nullptr;
  int videoWidth_ = 0, videoHeight_ = 0;
  SharedVideoFrame shownFrame_;

  SDL_Texture* pictureTexture_ = nullptr;
  const Picture* texturePicture_ = nullptr;
  size_t textureFrame_ = 0;

  std::map<std::string, TextTexture> texts_;

  // Where things were drawn on the last paint, for hit tests.
  int width_ = 0, height_ = 0;
  std::vector<std::pair<std::string, Rect>> buttonRects_;
  std::vector<Rect> alertButtonRects_;
  std::optional<Rect> sliderRect_;
  std::string sliderName_;
  // Two sliders over the same range share one track as its two handles; a press takes the
  // nearer one.
  std::vector<std::string> rangeNames_;
  std::vector<std::pair<int, Rect>> rowRects_;
  std::string listName_;
  int listScroll_ = 0;
  bool draggingSlider_ = false;
  bool draggingPicture_ = false;
  int lastX_ = 0, lastY_ = 0;
};

}  // namespace nembra
