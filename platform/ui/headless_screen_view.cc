#include "platform/ui/headless_screen_view.h"

#include <algorithm>

namespace nembra {

void HeadlessScreenView::setLabel(const std::string& name, const std::string& text) {
  labels_[name].push_back(text);
}

void HeadlessScreenView::setButton(const std::string& name, const ButtonState& state) {
  buttons_[name] = state;
}

void HeadlessScreenView::setSlider(const std::string& name, const SliderState& state) {
  sliders_[name] = state;
}

void HeadlessScreenView::setList(const std::string& name, const ListState& state) {
  lists_[name] = state;
}

void HeadlessScreenView::setPicture(SharedPicture picture, size_t frame,
                                    const PictureViewport& viewport) {
  picture_ = std::move(picture);
  pictureFrame_ = frame;
  viewport_ = viewport;
}

void HeadlessScreenView::showAlert(const AlertState& alert, AlertAnswer answer) {
  alert_ = alert;
  answer_ = std::move(answer);
}

void HeadlessScreenView::dismissAlert() {
  alert_.reset();
  answer_ = nullptr;
}

void HeadlessScreenView::pictureAreaSize(int& width, int& height) const {
  width = areaWidth_;
  height = areaHeight_;
}

std::string HeadlessScreenView::label(const std::string& name) const {
  auto it = labels_.find(name);
  return it == labels_.end() || it->second.empty() ? "" : it->second.back();
}

const std::vector<std::string>& HeadlessScreenView::labelHistory(const std::string& name) const {
  static const std::vector<std::string> none;
  auto it = labels_.find(name);
  return it == labels_.end() ? none : it->second;
}

std::optional<ButtonState> HeadlessScreenView::button(const std::string& name) const {
  auto it = buttons_.find(name);
  if (it == buttons_.end()) return std::nullopt;
  return it->second;
}

std::optional<SliderState> HeadlessScreenView::slider(const std::string& name) const {
  auto it = sliders_.find(name);
  if (it == sliders_.end()) return std::nullopt;
  return it->second;
}

std::optional<ListState> HeadlessScreenView::list(const std::string& name) const {
  auto it = lists_.find(name);
  if (it == lists_.end()) return std::nullopt;
  return it->second;
}

bool HeadlessScreenView::press(const std::string& name) {
  auto it = buttons_.find(name);
  // A modal alert covers the buttons.
  if (it == buttons_.end() || it->second.hidden || !it->second.enabled || alert_) return false;
  if (listener_) listener_->buttonPressed(name);
  return true;
}

bool HeadlessScreenView::moveSlider(const std::string& name, double value) {
  auto it = sliders_.find(name);
  if (it == sliders_.end() || it->second.hidden || !it->second.enabled || alert_) return false;
  value = std::clamp(value, it->second.minimum, it->second.maximum);
  it->second.value = value;
  if (listener_) listener_->sliderMoved(name, value);
  return true;
}

bool HeadlessScreenView::pickRow(const std::string& name, int row) {
  auto it = lists_.find(name);
  if (it == lists_.end() || row < 0 || row >= static_cast<int>(it->second.rows.size()) || alert_) {
    return false;
  }
  if (listener_) listener_->rowPicked(name, row);
  return true;
}

bool HeadlessScreenView::answerAlert(const std::string& buttonTitle) {
  if (!alert_) return false;
  auto& buttons = alert_->buttons;
  auto it = std::find(buttons.begin(), buttons.end(), buttonTitle);
  if (it == buttons.end()) return false;
  const int index = static_cast<int>(it - buttons.begin());
  AlertAnswer answer = std::move(answer_);
  alert_.reset();
  if (answer) answer(index);
  return true;
}

void HeadlessScreenView::pressKey(const std::string& key) {
  if (auto it = keys_.find(key); it != keys_.end() && !alert_) {
    press(it->second);
    return;
  }
  if (listener_) listener_->keyPressed(key);
}

void HeadlessScreenView::zoom(double factor) {
  if (listener_ && !alert_) listener_->zoomed(factor);
}

void HeadlessScreenView::drag(double dx, double dy) {
  if (listener_ && !alert_) listener_->dragged(dx, dy);
}

void HeadlessScreenView::resize(int width, int height) {
  areaWidth_ = width;
  areaHeight_ = height;
  if (listener_) listener_->resized(width, height);
}

}  // namespace nembra
