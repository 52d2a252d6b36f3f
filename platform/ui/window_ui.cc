#include "platform/ui/window_ui.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "nembra/main_queue.h"
#include "platform/dispatch/timer.h"

namespace nembra {
namespace {

constexpr auto kPumpInterval = std::chrono::milliseconds(10);

std::string keyName(const SDL_Keysym& key) {
  switch (key.sym) {
    case SDLK_SPACE:
      return "space";
    case SDLK_RETURN:
    case SDLK_KP_ENTER:
      return "enter";
    case SDLK_ESCAPE:
      return "escape";
    case SDLK_LEFT:
      return "left";
    case SDLK_RIGHT:
      return "right";
    case SDLK_UP:
      return "up";
    case SDLK_DOWN:
      return "down";
    case SDLK_TAB:
      return "tab";
    case SDLK_BACKSPACE:
      return "backspace";
    case SDLK_KP_PLUS:
      return "+";
    case SDLK_KP_MINUS:
      return "-";
    // "+" shares its key with "=" on most layouts.
    case SDLK_EQUALS:
      return (key.mod & KMOD_SHIFT) ? "+" : "=";
    default:
      break;
  }
  if (key.sym >= 32 && key.sym < 127) return std::string(1, static_cast<char>(key.sym));
  return "";
}

}  // namespace

std::unique_ptr<WindowUi> WindowUi::open(MainQueue& mainQueue, const Options& options,
                                         OptionalError& error) {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!x11 || !*x11) && (!wayland || !*wayland)) {
    error = Error::invalidArgument(
        "no display: neither DISPLAY nor WAYLAND_DISPLAY is set (use --ui terminal or --ui none)");
    return nullptr;
  }
  if (::access(options.fontPath.c_str(), R_OK) != 0) {
    error = Error::file("the font " + options.fontPath +
                        " is missing: install Debian's fonts-dejavu-core package");
    return nullptr;
  }
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    error =
        Error::invalidArgument(std::string("no display: cannot open a window: ") + SDL_GetError());
    return nullptr;
  }
  std::unique_ptr<WindowUi> ui(new WindowUi());
  ui->window_ =
      SDL_CreateWindow(options.title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                       options.width, options.height, SDL_WINDOW_RESIZABLE | SDL_WINDOW_SHOWN);
  if (!ui->window_) {
    error =
        Error::invalidArgument(std::string("no display: cannot open a window: ") + SDL_GetError());
    return nullptr;
  }
  ui->canvas_.renderer = SDL_CreateRenderer(ui->window_, -1, SDL_RENDERER_ACCELERATED);
  if (!ui->canvas_.renderer) {
    ui->canvas_.renderer = SDL_CreateRenderer(ui->window_, -1, SDL_RENDERER_SOFTWARE);
  }
  if (!ui->canvas_.renderer) {
    error = Error::internal(std::string("cannot draw in the window: ") + SDL_GetError());
    return nullptr;
  }
  if (TTF_WasInit() == 0 && TTF_Init() != 0) {
    error = Error::internal(std::string("cannot start the font renderer: ") + TTF_GetError());
    return nullptr;
  }
  ui->canvas_.textFont = TTF_OpenFont(options.fontPath.c_str(), 17);
  const std::string& titlePath =
      ::access(options.titleFontPath.c_str(), R_OK) == 0 ? options.titleFontPath : options.fontPath;
  ui->canvas_.titleFont = TTF_OpenFont(titlePath.c_str(), 21);
  if (!ui->canvas_.textFont || !ui->canvas_.titleFont) {
    error = Error::file("the font " + options.fontPath + " cannot be read: " + TTF_GetError());
    return nullptr;
  }
  WindowUi* raw = ui.get();
  ui->pumpTimer_ = Timer::repeating(mainQueue, kPumpInterval, [raw] { raw->pump(); });
  return ui;
}

WindowUi::~WindowUi() {
  pumpTimer_.reset();
  for (WindowScreenView* view : views_) view->setListener(nullptr);
  if (canvas_.textFont) TTF_CloseFont(canvas_.textFont);
  if (canvas_.titleFont) TTF_CloseFont(canvas_.titleFont);
  if (canvas_.renderer) SDL_DestroyRenderer(canvas_.renderer);
  if (window_) SDL_DestroyWindow(window_);
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
}

std::unique_ptr<ScreenView> WindowUi::makeView(const std::string&) {
  auto view = std::make_unique<WindowScreenView>(
      canvas_, [this] { dirty_ = true; },
      [this](WindowScreenView* gone) {
        views_.erase(std::remove(views_.begin(), views_.end(), gone), views_.end());
        dirty_ = true;
      });
  views_.push_back(view.get());
  int width = 0, height = 0;
  SDL_GetRendererOutputSize(canvas_.renderer, &width, &height);
  view->resized(width, height);
  dirty_ = true;
  return view;
}

void WindowUi::resize(int width, int height) {
  SDL_SetWindowSize(window_, width, height);
  pump();
}

void WindowUi::dispatch(const SDL_Event& event) {
  WindowScreenView* top = views_.empty() ? nullptr : views_.back();
  switch (event.type) {
    case SDL_QUIT:
      if (quit_) quit_();
      return;
    case SDL_WINDOWEVENT:
      if (event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED && top) {
        int width = 0, height = 0;
        SDL_GetRendererOutputSize(canvas_.renderer, &width, &height);
        for (WindowScreenView* view : views_) view->resized(width, height);
      }
      dirty_ = true;
      return;
    default:
      break;
  }
  if (!top) return;
  switch (event.type) {
    case SDL_KEYDOWN: {
      if ((event.key.keysym.mod & KMOD_CTRL) && event.key.keysym.sym == SDLK_c) {
        if (quit_) quit_();
        return;
      }
      const std::string key = keyName(event.key.keysym);
      if (!key.empty()) top->keyDown(key);
      break;
    }
    case SDL_MOUSEBUTTONDOWN:
      if (event.button.button == SDL_BUTTON_LEFT) {
        mouseHeld_ = true;
        top->mouseDown(event.button.x, event.button.y);
      }
      break;
    case SDL_MOUSEBUTTONUP:
      if (event.button.button == SDL_BUTTON_LEFT) {
        mouseHeld_ = false;
        top->mouseUp(event.button.x, event.button.y);
      }
      break;
    case SDL_MOUSEMOTION:
      top->mouseMove(event.motion.x, event.motion.y, mouseHeld_);
      break;
    case SDL_MOUSEWHEEL: {
      int x = 0, y = 0;
      SDL_GetMouseState(&x, &y);
      top->wheel(x, y, event.wheel.preciseY);
      break;
    }
    default:
      break;
  }
}

void WindowUi::pump() {
  SDL_Event event;
  while (SDL_PollEvent(&event)) dispatch(event);
  const bool video = !views_.empty() && views_.back()->videoChanged();
  if (dirty_ || video) paint(nullptr);
}

void WindowUi::paint(WindowScreenshot* shot) {
  dirty_ = false;
  int width = 0, height = 0;
  SDL_GetRendererOutputSize(canvas_.renderer, &width, &height);
  SDL_SetRenderDrawColor(canvas_.renderer, 0, 0, 0, 255);
  SDL_RenderClear(canvas_.renderer);
  if (!views_.empty()) views_.back()->paint(width, height);
  if (shot) {
    // Read before presenting: after a swap the back buffer's content is undefined.
    shot->width = width;
    shot->height = height;
    shot->rgba.resize(static_cast<size_t>(width) * height * 4);
    SDL_RenderReadPixels(canvas_.renderer, nullptr, SDL_PIXELFORMAT_RGBA32, shot->rgba.data(),
                         width * 4);
  }
  SDL_RenderPresent(canvas_.renderer);
}

bool WindowUi::screenshot(WindowScreenshot& shot) {
  SDL_Event event;
  while (SDL_PollEvent(&event)) dispatch(event);
  paint(&shot);
  return !shot.rgba.empty();
}

}  // namespace nembra
