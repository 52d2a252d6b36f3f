#include "bench/testing/picture_window.h"

#include <SDL.h>

#include <chrono>
#include <cstdlib>

namespace nembra::testing {

PictureWindow::~PictureWindow() {
  if (texture_) SDL_DestroyTexture(texture_);
  if (renderer_) SDL_DestroyRenderer(renderer_);
  if (window_) SDL_DestroyWindow(window_);
  if (initialised_) SDL_QuitSubSystem(SDL_INIT_VIDEO);
}

bool PictureWindow::open(const std::string& display, int width, int height) {
  ::setenv("DISPLAY", display.c_str(), 1);
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return false;
  initialised_ = true;
  window_ = SDL_CreateWindow("player bench", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED,
                             width, height, 0);
  if (!window_) return false;
  // The flags ffplay asks for, and its fallback.
  renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC);
  if (!renderer_) renderer_ = SDL_CreateRenderer(window_, -1, 0);
  if (!renderer_) return false;
  texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, width,
                               height);
  return texture_ != nullptr;
}

void PictureWindow::pumpEvents() {
  SDL_Event event;
  while (SDL_PollEvent(&event)) {
  }
}

double PictureWindow::draw(const VideoFrame& frame) {
  const auto start = std::chrono::steady_clock::now();
  SDL_UpdateYUVTexture(texture_, nullptr, frame.planes[0].data(), frame.strides[0],
                       frame.planes[1].data(), frame.strides[1], frame.planes[2].data(),
                       frame.strides[2]);
  SDL_RenderClear(renderer_);
  SDL_RenderCopy(renderer_, texture_, nullptr, nullptr);
  SDL_RenderPresent(renderer_);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace nembra::testing
