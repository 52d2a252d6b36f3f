#include "platform/ui/headless_screen_view.h"

#include <algorithm>

namespace nembra {

void HeadlessScreenView::setLabel(const std::string& name, const std::string& text) {
  state_.setLabel(name, text);
  labelHistory_[name].push_back(text);
}

void HeadlessScreenView::pictureAreaSize(int& width, int& height) const {
  width = areaWidth_;
  height = areaHeight_;
}

std::string HeadlessScreenView::label(const std::string& name) const { return state_.label(name); }

const std::vector<std::string>& HeadlessScreenView::labelHistory(const std::string& name) const {
  static const std::vector<std::string> none;
  auto it = labelHistory_.find(name);
  return it == labelHistory_.end() ? none : it->second;
}

std::optional<ButtonState> HeadlessScreenView::button(const std::string& name) const {
  const ButtonState* state = state_.button(name);
  return state ? std::optional<ButtonState>(*state) : std::nullopt;
}

std::optional<SliderState> HeadlessScreenView::slider(const std::string& name) const {
  const SliderState* state = state_.slider(name);
  return state ? std::optional<SliderState>(*state) : std::nullopt;
}

std::optional<ListState> HeadlessScreenView::list(const std::string& name) const {
  const ListState* state = state_.list(name);
  return state ? std::optional<ListState>(*state) : std::nullopt;
}

bool HeadlessScreenView::press(const std::string& name) { return state_.pressButton(name); }

bool HeadlessScreenView::moveSlider(const std::string& name, double value) {
  return state_.moveSlider(name, value);
}

bool HeadlessScreenView::pickRow(const std::string& name, int row) {
  return state_.pickRow(name, row);
}

bool HeadlessScreenView::answerAlert(const std::string& buttonTitle) {
  if (!state_.alert()) return false;
  const auto& buttons = state_.alert()->buttons;
  auto it = std::find(buttons.begin(), buttons.end(), buttonTitle);
  if (it == buttons.end()) return false;
  const int index = static_cast<int>(it - buttons.begin());
  if (auto answer = state_.takeAlertAnswer(index)) answer(index);
  return true;
}

void HeadlessScreenView::pressKey(const std::string& key) {
  if (state_.pressBoundKey(key)) return;
  if (auto* listener = state_.listener()) listener->keyPressed(key);
}

void HeadlessScreenView::zoom(double factor) {
  if (state_.listener() && !state_.alert()) state_.listener()->zoomed(factor);
}

void HeadlessScreenView::drag(double dx, double dy) {
  if (state_.listener() && !state_.alert()) state_.listener()->dragged(dx, dy);
}

void HeadlessScreenView::resize(int width, int height) {
  areaWidth_ = width;
  areaHeight_ = height;
  if (auto* listener = state_.listener()) listener->resized(width, height);
}

}  // namespace nembra
