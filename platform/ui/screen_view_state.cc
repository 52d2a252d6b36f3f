#include "platform/ui/screen_view_state.h"

#include <algorithm>

namespace nembra {
namespace {

template <typename T>
auto findNamed(std::vector<std::pair<std::string, T>>& entries, const std::string& name) {
  return std::find_if(entries.begin(), entries.end(), [&](auto& e) { return e.first == name; });
}

template <typename T>
const T* findIn(const std::map<std::string, T>& entries, const std::string& name) {
  auto it = entries.find(name);
  return it == entries.end() ? nullptr : &it->second;
}

}  // namespace

bool ScreenViewState::setTitle(const std::string& title) {
  if (title == title_) return false;
  title_ = title;
  return true;
}

bool ScreenViewState::setLabel(const std::string& name, const std::string& text) {
  auto it = findNamed(labels_, name);
  if (it == labels_.end()) {
    labels_.emplace_back(name, text);
    return true;
  }
  if (it->second == text) return false;
  it->second = text;
  return true;
}

bool ScreenViewState::setButton(const std::string& name, const ButtonState& state) {
  auto it = findNamed(buttons_, name);
  if (it == buttons_.end()) {
    buttons_.emplace_back(name, state);
  } else {
    it->second = state;
  }
  return true;
}

bool ScreenViewState::bindKey(const std::string& key, const std::string& button) {
  auto [it, added] = keys_.try_emplace(key, button);
  if (!added && it->second == button) return false;
  it->second = button;
  return true;
}

bool ScreenViewState::setSlider(const std::string& name, const SliderState& state) {
  sliders_[name] = state;
  return true;
}

bool ScreenViewState::setList(const std::string& name, const ListState& state) {
  lists_[name] = state;
  return true;
}

bool ScreenViewState::setPicture(SharedPicture picture, size_t frame,
                                 const PictureViewport& viewport) {
  picture_ = std::move(picture);
  pictureFrame_ = frame;
  viewport_ = viewport;
  return true;
}

bool ScreenViewState::showAlert(const AlertState& alert, ScreenView::AlertAnswer answer) {
  alert_ = alert;
  answer_ = std::move(answer);
  return true;
}

bool ScreenViewState::dismissAlert() {
  const bool shown = alert_.has_value();
  alert_.reset();
  answer_ = nullptr;
  return shown;
}

const std::string& ScreenViewState::label(const std::string& name) const {
  static const std::string none;
  for (const auto& [labelName, text] : labels_) {
    if (labelName == name) return text;
  }
  return none;
}

const ButtonState* ScreenViewState::button(const std::string& name) const {
  for (const auto& [buttonName, state] : buttons_) {
    if (buttonName == name) return &state;
  }
  return nullptr;
}

std::string ScreenViewState::keysOf(const std::string& button) const {
  std::string out;
  for (const auto& [key, target] : keys_) {
    if (target != button) continue;
    if (!out.empty()) out += "/";
    out += key;
  }
  return out;
}

const SliderState* ScreenViewState::slider(const std::string& name) const {
  return findIn(sliders_, name);
}

const ListState* ScreenViewState::list(const std::string& name) const {
  return findIn(lists_, name);
}

bool ScreenViewState::pressButton(const std::string& name) {
  const ButtonState* state = button(name);
  // A modal alert covers the buttons.
  if (!state || state->hidden || !state->enabled || alert_) return false;
  if (listener_) listener_->buttonPressed(name);
  return true;
}

bool ScreenViewState::moveSlider(const std::string& name, double value) {
  auto it = sliders_.find(name);
  if (it == sliders_.end() || it->second.hidden || !it->second.enabled || alert_) return false;
  value = std::clamp(value, it->second.minimum, it->second.maximum);
  it->second.value = value;
  if (listener_) listener_->sliderMoved(name, value);
  return true;
}

bool ScreenViewState::pickRow(const std::string& name, int row) {
  const ListState* state = list(name);
  if (!state || row < 0 || row >= static_cast<int>(state->rows.size()) || alert_) return false;
  if (listener_) listener_->rowPicked(name, row);
  return true;
}

bool ScreenViewState::pressBoundKey(const std::string& key) {
  auto it = keys_.find(key);
  if (it == keys_.end() || alert_) return false;
  // A copy: the press may rebind the keys, or end the screen, while the name is still in use.
  const std::string button = it->second;
  pressButton(button);
  return true;
}

ScreenView::AlertAnswer ScreenViewState::takeAlertAnswer(int button) {
  if (!alert_ || button < 0 || button >= static_cast<int>(alert_->buttons.size())) return nullptr;
  ScreenView::AlertAnswer answer = std::move(answer_);
  alert_.reset();
  answer_ = nullptr;
  // An alert shown without an answer still closes.
  if (!answer) answer = [](int) {};
  return answer;
}

}  // namespace nembra
