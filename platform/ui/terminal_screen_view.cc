#include "platform/ui/terminal_screen_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace nembra {
namespace {

constexpr int kBarWidth = 30;

std::string keysOf(const std::map<std::string, std::string>& keys, const std::string& button) {
  std::string out;
  for (const auto& [key, target] : keys) {
    if (target != button) continue;
    if (!out.empty()) out += "/";
    out += key;
  }
  return out;
}

}  // namespace

TerminalScreenView::TerminalScreenView(std::string screenName, std::function<void()> onChange,
                                       std::function<void(TerminalScreenView*)> onDestroy)
    : screenName_(std::move(screenName)),
      onChange_(std::move(onChange)),
      onDestroy_(std::move(onDestroy)) {}

TerminalScreenView::~TerminalScreenView() {
  if (onDestroy_) onDestroy_(this);
}

void TerminalScreenView::changed() {
  if (onChange_) onChange_();
}

void TerminalScreenView::setTitle(const std::string& title) {
  title_ = title;
  changed();
}

void TerminalScreenView::setLabel(const std::string& name, const std::string& text) {
  auto it = std::find_if(labels_.begin(), labels_.end(), [&](auto& l) { return l.first == name; });
  if (it == labels_.end()) {
    labels_.emplace_back(name, text);
  } else if (it->second == text) {
    return;
  } else {
    it->second = text;
  }
  changed();
}

void TerminalScreenView::setButton(const std::string& name, const ButtonState& state) {
  auto it =
      std::find_if(buttons_.begin(), buttons_.end(), [&](auto& b) { return b.first == name; });
  if (it == buttons_.end()) {
    buttons_.emplace_back(name, state);
  } else {
    it->second = state;
  }
  changed();
}

void TerminalScreenView::bindKey(const std::string& key, const std::string& button) {
  keys_[key] = button;
  changed();
}

void TerminalScreenView::setSlider(const std::string& name, const SliderState& state) {
  sliders_[name] = state;
  changed();
}

void TerminalScreenView::setList(const std::string& name, const ListState& state) {
  lists_[name] = state;
  if (state.selected >= 0) highlighted_ = state.selected;
  changed();
}

void TerminalScreenView::setPicture(SharedPicture picture, size_t frame,
                                    const PictureViewport& viewport) {
  // An animation's frames would redraw the status area many times a second for nothing.
  const bool same = picture == picture_ && viewport.scale == viewport_.scale;
  picture_ = std::move(picture);
  frame_ = frame;
  viewport_ = viewport;
  if (!same) changed();
}

void TerminalScreenView::showAlert(const AlertState& alert, AlertAnswer answer) {
  alert_ = alert;
  answer_ = std::move(answer);
  changed();
}

void TerminalScreenView::dismissAlert() {
  alert_.reset();
  answer_ = nullptr;
  changed();
}

void TerminalScreenView::pictureAreaSize(int& width, int& height) const {
  // Pictures are described, not drawn: decode small.
  width = 640;
  height = 480;
}

std::vector<std::string> TerminalScreenView::render() const {
  std::vector<std::string> lines;
  lines.push_back("== " + (title_.empty() ? screenName_ : title_) + " ==");
  for (const auto& [name, text] : labels_) lines.push_back(name + ": " + text);
  if (picture_) {
    std::string line = "picture: " + std::to_string(picture_->sourceWidth) + " x " +
                       std::to_string(picture_->sourceHeight) + " " + picture_->format;
    if (picture_->animated()) line += ", " + std::to_string(picture_->frames.size()) + " frames";
    line +=
        viewport_.scale > 0
            ? ", zoom " + std::to_string(static_cast<int>(std::lround(viewport_.scale * 100))) + "%"
            : ", fit";
    lines.push_back(line);
  }
  for (const auto& [name, slider] : sliders_) {
    if (slider.hidden) continue;
    const double span = slider.maximum - slider.minimum;
    const double f = span > 0 ? std::clamp((slider.value - slider.minimum) / span, 0.0, 1.0) : 0;
    const int filled = static_cast<int>(std::lround(f * kBarWidth));
    char value[32];
    std::snprintf(value, sizeof value, "%.1f", slider.value);
    lines.push_back(name + " [" + std::string(static_cast<size_t>(filled), '#') +
                    std::string(static_cast<size_t>(kBarWidth - filled), '-') + "] " + value);
  }
  for (const auto& [name, list] : lists_) {
    for (size_t i = 0; i < list.rows.size(); ++i) {
      const bool here = static_cast<int>(i) == highlighted_;
      lines.push_back(std::string(here ? "> " : "  ") + list.rows[i] +
                      (static_cast<int>(i) == list.selected ? "  (selected)" : ""));
    }
  }
  std::string controls;
  for (const auto& [name, state] : buttons_) {
    if (state.hidden) continue;
    const std::string keys = keysOf(keys_, name);
    controls += "[" + (keys.empty() ? std::string("-") : keys) + "] " +
                (state.title.empty() ? name : state.title) + (state.enabled ? "" : " (off)") + "  ";
  }
  if (!controls.empty()) lines.push_back(controls);
  if (alert_) {
    lines.push_back("");
    lines.push_back("!! " + alert_->title);
    if (!alert_->message.empty()) lines.push_back("   " + alert_->message);
    std::string choices = "   ";
    for (size_t i = 0; i < alert_->buttons.size(); ++i) {
      choices += std::to_string(i + 1) + ") " + alert_->buttons[i] + "  ";
    }
    lines.push_back(choices + "- press a number");
  }
  return lines;
}

void TerminalScreenView::keyDown(const std::string& key) {
  if (alert_) {
    int chosen = -1;
    if (key.size() == 1 && key[0] >= '1' && key[0] <= '9') chosen = key[0] - '1';
    if (key == "enter") chosen = static_cast<int>(alert_->buttons.size()) - 1;
    if (chosen < 0 || chosen >= static_cast<int>(alert_->buttons.size())) return;
    AlertAnswer answer = std::move(answer_);
    alert_.reset();
    changed();
    if (answer) answer(chosen);
    return;
  }
  if (auto it = keys_.find(key); it != keys_.end()) {
    for (const auto& [name, state] : buttons_) {
      if (name == it->second && state.enabled && !state.hidden && listener_) {
        listener_->buttonPressed(name);
        return;
      }
    }
    return;
  }
  if (!lists_.empty() && (key == "up" || key == "down" || key == "enter")) {
    const auto& [name, list] = *lists_.begin();
    const int rows = static_cast<int>(list.rows.size());
    if (rows == 0) return;
    if (key == "enter") {
      if (listener_) listener_->rowPicked(name, highlighted_);
      return;
    }
    highlighted_ = std::clamp(highlighted_ + (key == "down" ? 1 : -1), 0, rows - 1);
    changed();
    return;
  }
  if (listener_) listener_->keyPressed(key);
}

}  // namespace nembra
