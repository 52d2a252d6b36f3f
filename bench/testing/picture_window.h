// An SDL window on a given X display that draws I420 pictures the way ffplay does: one
// streaming YUV texture updated with SDL_UpdateYUVTexture, the renderer ffplay asks for
// (accelerated, vsync) or SDL's fallback.
//
// Threading: one thread (the one that opened it).
#pragma once

#include <string>

#include "platform/ui/video_frame.h"

struct SDL_Window;
struct SDL_Renderer;
struct SDL_Texture;

namespace nembra::testing {

class PictureWindow {
 public:
  PictureWindow() = default;
  ~PictureWindow();
  PictureWindow(const PictureWindow&) = delete;
  PictureWindow& operator=(const PictureWindow&) = delete;

  // Sets DISPLAY to |display| for SDL; false when no window could be made.
  bool open(const std::string& display, int width, int height);
  // Handles the window's pending events (nothing is done with them).
  void pumpEvents();
  // Draws |frame| over the whole window; the seconds it took.
  double draw(const VideoFrame& frame);

 private:
  SDL_Window* window_ = nullptr;
  SDL_Renderer* renderer_ = nullptr;
  SDL_Texture* texture_ = nullptr;
  bool initialised_ = false;
};

}  // namespace nembra::testing
