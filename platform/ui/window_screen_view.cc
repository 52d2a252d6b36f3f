#include "platform/ui/window_screen_view.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/ui/button_glyphs.h"

namespace nembra {
namespace {

constexpr int kButtonSize = 56;
constexpr int kButtonGap = 20;
constexpr int kBottomMargin = 16;
constexpr int kTopBand = 44;
constexpr int kAlertWidth = 440;
constexpr SDL_Color kWhite{255, 255, 255, 255};
constexpr SDL_Color kInk{20, 20, 20, 255};
constexpr SDL_Color kShade{0, 0, 0, 150};
constexpr SDL_Color kAlertPaper{238, 238, 238, 255};
constexpr SDL_Color kAlertAction{20, 100, 220, 255};
constexpr size_t kTextCacheLimit = 128;

}  // namespace

WindowScreenView::WindowScreenView(WindowCanvas& canvas, std::function<void()> onChange,
                                   std::function<void(WindowScreenView*)> onDestroy)
    : canvas_(canvas), onChange_(std::move(onChange)), onDestroy_(std::move(onDestroy)) {}

WindowScreenView::~WindowScreenView() {
  if (onDestroy_) onDestroy_(this);
  if (videoTexture_) SDL_DestroyTexture(videoTexture_);
  if (pictureTexture_) SDL_DestroyTexture(pictureTexture_);
  for (auto& [key, entry] : texts_) SDL_DestroyTexture(entry.texture);
}

void WindowScreenView::changed() {
  if (onChange_) onChange_();
}

void WindowScreenView::setTitle(const std::string& title) {
  if (state_.setTitle(title)) changed();
}

void WindowScreenView::setLabel(const std::string& name, const std::string& text) {
  if (state_.setLabel(name, text)) changed();
}

void WindowScreenView::setButton(const std::string& name, const ButtonState& state) {
  if (state_.setButton(name, state)) changed();
}

void WindowScreenView::bindKey(const std::string& key, const std::string& button) {
  // Keys are not drawn: nothing to repaint.
  state_.bindKey(key, button);
}

void WindowScreenView::setSlider(const std::string& name, const SliderState& state) {
  if (state_.setSlider(name, state)) changed();
}

void WindowScreenView::setList(const std::string& name, const ListState& state) {
  if (state_.setList(name, state)) changed();
}

void WindowScreenView::setPicture(SharedPicture picture, size_t frame,
                                  const PictureViewport& viewport) {
  if (state_.setPicture(std::move(picture), frame, viewport)) changed();
}

void WindowScreenView::showAlert(const AlertState& alert, AlertAnswer answer) {
  if (state_.showAlert(alert, std::move(answer))) changed();
}

void WindowScreenView::dismissAlert() {
  if (state_.dismissAlert()) changed();
}

void WindowScreenView::pictureAreaSize(int& width, int& height) const {
  width = width_;
  height = height_;
}

bool WindowScreenView::videoChanged() const {
  uint64_t generation = 0;
  surface_.latest(&generation);
  return generation != videoGeneration_;
}

const WindowScreenView::TextTexture* WindowScreenView::text(const std::string& value, bool title) {
  if (value.empty()) return nullptr;
  const std::string key = (title ? "T" : "t") + value;
  if (auto it = texts_.find(key); it != texts_.end()) return &it->second;
  if (texts_.size() >= kTextCacheLimit) {
    for (auto& [k, entry] : texts_) SDL_DestroyTexture(entry.texture);
    texts_.clear();
  }
  TTF_Font* font = title ? canvas_.titleFont : canvas_.textFont;
  SDL_Surface* surface = TTF_RenderUTF8_Blended(font, value.c_str(), kWhite);
  if (!surface) return nullptr;
  TextTexture entry{SDL_CreateTextureFromSurface(canvas_.renderer, surface), surface->w,
                    surface->h};
  SDL_FreeSurface(surface);
  if (!entry.texture) return nullptr;
  return &texts_.emplace(key, entry).first->second;
}

void WindowScreenView::drawText(const std::string& value, bool title, int x, int y, SDL_Color color,
                                bool centered) {
  const TextTexture* t = text(value, title);
  if (!t) return;
  SDL_SetTextureColorMod(t->texture, color.r, color.g, color.b);
  SDL_SetTextureAlphaMod(t->texture, color.a);
  SDL_Rect destination{centered ? x - t->width / 2 : x, y, t->width, t->height};
  SDL_RenderCopy(canvas_.renderer, t->texture, nullptr, &destination);
}

void WindowScreenView::fill(const Rect& rect, SDL_Color color) {
  SDL_SetRenderDrawBlendMode(canvas_.renderer, SDL_BLENDMODE_BLEND);
  SDL_SetRenderDrawColor(canvas_.renderer, color.r, color.g, color.b, color.a);
  SDL_Rect r{rect.x, rect.y, rect.w, rect.h};
  SDL_RenderFillRect(canvas_.renderer, &r);
}

void WindowScreenView::drawGlyph(const std::string& image, const Rect& rect, uint8_t alpha) {
  std::vector<SDL_Vertex> vertices;
  for (const GlyphShape& shape : ButtonGlyphs::shapes(image)) {
    const SDL_Color color{shape.color.r, shape.color.g, shape.color.b,
                          static_cast<uint8_t>(shape.color.a * alpha / 255)};
    auto at = [&](const GlyphPoint& p) {
      return SDL_Vertex{{rect.x + p.x * rect.w, rect.y + p.y * rect.h}, color, {0, 0}};
    };
    for (size_t i = 1; i + 1 < shape.points.size(); ++i) {
      vertices.push_back(at(shape.points[0]));
      vertices.push_back(at(shape.points[i]));
      vertices.push_back(at(shape.points[i + 1]));
    }
  }
  if (!vertices.empty()) {
    SDL_RenderGeometry(canvas_.renderer, nullptr, vertices.data(),
                       static_cast<int>(vertices.size()), nullptr, 0);
  }
}

void WindowScreenView::paintVideo(int width, int height) {
  uint64_t generation = 0;
  SharedVideoFrame frame = surface_.latest(&generation);
  if (generation != videoGeneration_) {
    videoGeneration_ = generation;
    shownFrame_ = frame;
    if (frame) {
      if (!videoTexture_ || videoWidth_ != frame->width || videoHeight_ != frame->height) {
        if (videoTexture_) SDL_DestroyTexture(videoTexture_);
        // 4:2:0 planes go to the GPU as they are: the renderer converts while drawing.
        videoTexture_ = SDL_CreateTexture(canvas_.renderer, SDL_PIXELFORMAT_IYUV,
                                          SDL_TEXTUREACCESS_STREAMING, frame->width, frame->height);
        videoWidth_ = frame->width;
        videoHeight_ = frame->height;
      }
      if (videoTexture_) {
        SDL_UpdateYUVTexture(videoTexture_, nullptr, frame->planes[0].data(), frame->strides[0],
                             frame->planes[1].data(), frame->strides[1], frame->planes[2].data(),
                             frame->strides[2]);
      }
    }
  }
  if (!shownFrame_ || !videoTexture_) return;
  const double aspect = double(shownFrame_->width) * shownFrame_->sampleAspectNum /
                        (double(shownFrame_->height) * std::max(1, shownFrame_->sampleAspectDen));
  int w = width, h = static_cast<int>(std::lround(width / aspect));
  if (h > height) {
    h = height;
    w = static_cast<int>(std::lround(height * aspect));
  }
  SDL_Rect destination{(width - w) / 2, (height - h) / 2, w, h};
  SDL_RenderCopy(canvas_.renderer, videoTexture_, nullptr, &destination);
}

void WindowScreenView::paintPicture(int width, int height) {
  const SharedPicture& picture = state_.picture();
  const PictureViewport& viewport = state_.viewport();
  if (!picture || picture->frames.empty()) return;
  const size_t frame = std::min(state_.pictureFrame(), picture->frames.size() - 1);
  if (texturePicture_ != picture.get() || textureFrame_ != frame || !pictureTexture_) {
    if (pictureTexture_ &&
        (texturePicture_ == nullptr || texturePicture_->width != picture->width ||
         texturePicture_->height != picture->height)) {
      SDL_DestroyTexture(pictureTexture_);
      pictureTexture_ = nullptr;
    }
    if (!pictureTexture_) {
      pictureTexture_ =
          SDL_CreateTexture(canvas_.renderer, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STATIC,
                            picture->width, picture->height);
      if (pictureTexture_) SDL_SetTextureBlendMode(pictureTexture_, SDL_BLENDMODE_BLEND);
    }
    if (!pictureTexture_) return;
    SDL_UpdateTexture(pictureTexture_, nullptr, picture->frames[frame].rgba.data(),
                      picture->width * 4);
    texturePicture_ = picture.get();
    textureFrame_ = frame;
  }
  // The viewport's scale counts screen pixels per stored pixel of the source.
  double scale = std::min(double(width) / picture->width, double(height) / picture->height);
  if (viewport.scale > 0) {
    scale = viewport.scale * double(std::max(1, picture->sourceWidth)) / picture->width;
  }
  const double w = picture->width * scale, h = picture->height * scale;
  SDL_FRect destination{static_cast<float>(width / 2.0 - viewport.centerX * w),
                        static_cast<float>(height / 2.0 - viewport.centerY * h),
                        static_cast<float>(w), static_cast<float>(h)};
  SDL_RenderCopyF(canvas_.renderer, pictureTexture_, nullptr, &destination);
}

void WindowScreenView::paintControls(int width, int height) {
  const std::string& title = state_.title();
  if (!title.empty()) {
    fill({0, 0, width, kTopBand}, kShade);
    drawText(title, true, width / 2, 8, kWhite, true);
  }
  int y = title.empty() ? 8 : kTopBand + 8;
  for (const auto& [name, value] : state_.labels()) {
    const TextTexture* t = text(value, false);
    if (!t) continue;
    fill({8, y - 2, t->width + 12, t->height + 4}, kShade);
    drawText(value, false, 14, y, kWhite);
    y += t->height + 8;
  }

  buttonRects_.clear();
  std::vector<const std::pair<std::string, ButtonState>*> visible;
  for (const auto& button : state_.buttons()) {
    if (!button.second.hidden) visible.push_back(&button);
  }
  const int count = static_cast<int>(visible.size());
  int x = (width - (count * kButtonSize + std::max(0, count - 1) * kButtonGap)) / 2;
  const int buttonY = height - kBottomMargin - kButtonSize;
  for (const auto* button : visible) {
    Rect rect{x, buttonY, kButtonSize, kButtonSize};
    fill({rect.x - 4, rect.y - 4, rect.w + 8, rect.h + 8}, SDL_Color{0, 0, 0, 90});
    drawGlyph(button->second.image, rect, button->second.enabled ? 255 : 90);
    buttonRects_.emplace_back(button->first, rect);
    x += kButtonSize + kButtonGap;
  }

  sliderRect_.reset();
  rangeNames_.clear();
  std::vector<std::pair<const std::string*, const SliderState*>> shown;
  for (const auto& [name, slider] : state_.sliders()) {
    if (!slider.hidden) shown.emplace_back(&name, &slider);
  }
  if (shown.empty()) return;
  Rect track{24, buttonY - 28, width - 48, 24};
  fill({track.x, track.y + 10, track.w, 4}, SDL_Color{255, 255, 255, 110});
  auto position = [&track](const SliderState& slider) {
    const double span = slider.maximum - slider.minimum;
    const double f = span > 0 ? std::clamp((slider.value - slider.minimum) / span, 0.0, 1.0) : 0;
    return static_cast<int>(track.w * f);
  };
  sliderRect_ = track;
  const SliderState& first = *shown[0].second;
  if (shown.size() == 2 && shown[1].second->minimum == first.minimum &&
      shown[1].second->maximum == first.maximum) {
    const int a = position(first);
    const int b = position(*shown[1].second);
    fill({track.x + std::min(a, b), track.y + 10, std::abs(b - a), 4}, kWhite);
    for (const auto& [name, slider] : shown) {
      fill({track.x + position(*slider) - 6, track.y + 2, 12, 20},
           slider->enabled ? kWhite : kShade);
      rangeNames_.push_back(*name);
    }
    if (std::find(rangeNames_.begin(), rangeNames_.end(), sliderName_) == rangeNames_.end()) {
      sliderName_ = rangeNames_[0];
    }
    return;
  }
  // Otherwise one slider per screen in this layout.
  const int filled = position(first);
  fill({track.x, track.y + 10, filled, 4}, kWhite);
  fill({track.x + filled - 6, track.y + 4, 12, 16}, first.enabled ? kWhite : kShade);
  sliderName_ = *shown[0].first;
}

void WindowScreenView::paintList(int width, int height) {
  rowRects_.clear();
  if (state_.lists().empty()) return;
  const auto& [name, list] = *state_.lists().begin();
  listName_ = name;
  const int top = state_.title().empty() ? 0 : kTopBand;
  const int bottom = height - kBottomMargin - kButtonSize - 40;
  const int rowHeight = std::max(16, list.rowHeight);
  const int visibleRows = std::max(1, (bottom - top) / rowHeight);
  listScroll_ =
      std::clamp(listScroll_, 0, std::max(0, static_cast<int>(list.rows.size()) - visibleRows));
  for (int i = 0; i < visibleRows; ++i) {
    const int row = listScroll_ + i;
    if (row >= static_cast<int>(list.rows.size())) break;
    Rect rect{0, top + i * rowHeight, width, rowHeight};
    fill(rect, row == list.selected ? SDL_Color{40, 90, 170, 255} : SDL_Color{30, 30, 30, 255});
    fill({0, rect.y + rect.h - 1, width, 1}, SDL_Color{70, 70, 70, 255});
    const TextTexture* t = text(list.rows[static_cast<size_t>(row)], false);
    if (t)
      drawText(list.rows[static_cast<size_t>(row)], false, 16, rect.y + (rowHeight - t->height) / 2,
               kWhite);
    rowRects_.emplace_back(row, rect);
  }
}

void WindowScreenView::paintAlert(int width, int height) {
  alertButtonRects_.clear();
  const auto& alert = state_.alert();
  if (!alert) return;
  fill({0, 0, width, height}, SDL_Color{0, 0, 0, 160});
  const int boxWidth = std::min(kAlertWidth, width - 40);
  const TextTexture* title = text(alert->title, true);
  const TextTexture* message = text(alert->message, false);
  const int titleHeight = title ? title->height : 0;
  const int messageHeight = message ? message->height : 0;
  const int boxHeight = 24 + titleHeight + 12 + messageHeight + 24 + 44;
  Rect box{(width - boxWidth) / 2, (height - boxHeight) / 2, boxWidth, boxHeight};
  fill(box, kAlertPaper);
  drawText(alert->title, true, width / 2, box.y + 24, kInk, true);
  drawText(alert->message, false, width / 2, box.y + 24 + titleHeight + 12, kInk, true);
  const int count = std::max<int>(1, static_cast<int>(alert->buttons.size()));
  const int buttonWidth = box.w / count;
  const int buttonsY = box.y + box.h - 44;
  fill({box.x, buttonsY, box.w, 1}, SDL_Color{190, 190, 190, 255});
  for (int i = 0; i < static_cast<int>(alert->buttons.size()); ++i) {
    Rect rect{box.x + i * buttonWidth, buttonsY, buttonWidth, 44};
    drawText(alert->buttons[static_cast<size_t>(i)], false, rect.x + rect.w / 2, rect.y + 12,
             kAlertAction, true);
    alertButtonRects_.push_back(rect);
  }
}

void WindowScreenView::paint(int width, int height) {
  width_ = width;
  height_ = height;
  paintVideo(width, height);
  paintPicture(width, height);
  paintList(width, height);
  paintControls(width, height);
  paintAlert(width, height);
}

void WindowScreenView::answer(int button) {
  AlertAnswer answer = state_.takeAlertAnswer(button);
  if (!answer) return;
  changed();
  answer(button);
}

void WindowScreenView::keyDown(const std::string& key) {
  if (const auto& alert = state_.alert()) {
    // Enter takes the last button (the default action), escape the first.
    if (key == "enter") {
      answer(static_cast<int>(alert->buttons.size()) - 1);
    } else if (key == "escape") {
      answer(0);
    }
    return;
  }
  if (state_.pressBoundKey(key)) return;
  if (auto* listener = state_.listener()) listener->keyPressed(key);
}

void WindowScreenView::sliderTo(int x) {
  const SliderState* slider = state_.slider(sliderName_);
  if (!slider || !sliderRect_) return;
  const double f = std::clamp(double(x - sliderRect_->x) / std::max(1, sliderRect_->w), 0.0, 1.0);
  if (state_.moveSlider(sliderName_, slider->minimum + f * (slider->maximum - slider->minimum))) {
    changed();
  }
}

void WindowScreenView::mouseDown(int x, int y) {
  lastX_ = x;
  lastY_ = y;
  if (state_.alert()) {
    for (size_t i = 0; i < alertButtonRects_.size(); ++i) {
      if (alertButtonRects_[i].contains(x, y)) {
        answer(static_cast<int>(i));
        return;
      }
    }
    return;
  }
  for (const auto& [name, rect] : buttonRects_) {
    if (rect.contains(x, y)) {
      state_.pressButton(name);
      return;
    }
  }
  if (sliderRect_ && sliderRect_->contains(x, y)) {
    draggingSlider_ = true;
    int nearest = std::numeric_limits<int>::max();
    for (const std::string& name : rangeNames_) {
      const SliderState* slider = state_.slider(name);
      const double span = slider->maximum - slider->minimum;
      const int at = sliderRect_->x +
                     static_cast<int>(sliderRect_->w *
                                      (span > 0 ? (slider->value - slider->minimum) / span : 0));
      if (std::abs(at - x) < nearest) {
        nearest = std::abs(at - x);
        sliderName_ = name;
      }
    }
    sliderTo(x);
    return;
  }
  for (const auto& [row, rect] : rowRects_) {
    if (rect.contains(x, y)) {
      state_.pickRow(listName_, row);
      return;
    }
  }
  draggingPicture_ = true;
}

void WindowScreenView::mouseUp(int, int) {
  draggingSlider_ = false;
  draggingPicture_ = false;
}

void WindowScreenView::mouseMove(int x, int y, bool buttonHeld) {
  if (!buttonHeld) {
    draggingSlider_ = draggingPicture_ = false;
  } else if (draggingSlider_) {
    sliderTo(x);
  } else if (draggingPicture_ && state_.listener()) {
    state_.listener()->dragged(x - lastX_, y - lastY_);
  }
  lastX_ = x;
  lastY_ = y;
}

void WindowScreenView::wheel(int x, int y, double amount) {
  if (state_.alert()) return;
  for (const auto& [row, rect] : rowRects_) {
    if (rect.contains(x, y)) {
      listScroll_ -= static_cast<int>(amount);
      changed();
      return;
    }
  }
  if (auto* listener = state_.listener()) listener->zoomed(std::pow(1.15, amount));
}

void WindowScreenView::resized(int width, int height) {
  width_ = width;
  height_ = height;
  changed();
  if (auto* listener = state_.listener()) listener->resized(width, height);
}

}  // namespace nembra
