#include "platform/ui/terminal_screen_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace nembra {
namespace {

constexpr int kBarWidth = 30;

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
  if (state_.setTitle(title)) changed();
}

void TerminalScreenView::setLabel(const std::string& name, const std::string& text) {
  if (state_.setLabel(name, text)) changed();
}

void TerminalScreenView::setButton(const std::string& name, const ButtonState& state) {
  if (state_.setButton(name, state)) changed();
}

void TerminalScreenView::bindKey(const std::string& key, const std::string& button) {
  // The keys are shown beside their buttons.
  if (state_.bindKey(key, button)) changed();
}

void TerminalScreenView::setSlider(const std::string& name, const SliderState& state) {
  if (state_.setSlider(name, state)) changed();
}

void TerminalScreenView::setList(const std::string& name, const ListState& state) {
  if (state.selected >= 0) highlighted_ = state.selected;
  if (state_.setList(name, state)) changed();
}

void TerminalScreenView::setPicture(SharedPicture picture, size_t frame,
                                    const PictureViewport& viewport) {
  // An animation's frames would redraw the status area many times a second for nothing.
  const bool same = picture == state_.picture() && viewport.scale == state_.viewport().scale;
  state_.setPicture(std::move(picture), frame, viewport);
  if (!same) changed();
}

void TerminalScreenView::showAlert(const AlertState& alert, AlertAnswer answer) {
  if (state_.showAlert(alert, std::move(answer))) changed();
}

void TerminalScreenView::dismissAlert() {
  if (state_.dismissAlert()) changed();
}

void TerminalScreenView::pictureAreaSize(int& width, int& height) const {
  // Pictures are described, not drawn: decode small.
  width = 640;
  height = 480;
}

std::vector<std::string> TerminalScreenView::render() const {
  std::vector<std::string> lines;
  const std::string& title = state_.title();
  lines.push_back("== " + (title.empty() ? screenName_ : title) + " ==");
  for (const auto& [name, text] : state_.labels()) lines.push_back(name + ": " + text);
  if (const SharedPicture& picture = state_.picture()) {
    std::string line = "picture: " + std::to_string(picture->sourceWidth) + " x " +
                       std::to_string(picture->sourceHeight) + " " + picture->format;
    if (picture->animated()) line += ", " + std::to_string(picture->frames.size()) + " frames";
    const double scale = state_.viewport().scale;
    line += scale > 0 ? ", zoom " + std::to_string(static_cast<int>(std::lround(scale * 100))) + "%"
                      : ", fit";
    lines.push_back(line);
  }
  for (const auto& [name, slider] : state_.sliders()) {
    if (slider.hidden) continue;
    const double span = slider.maximum - slider.minimum;
    const double f = span > 0 ? std::clamp((slider.value - slider.minimum) / span, 0.0, 1.0) : 0;
    const int filled = static_cast<int>(std::lround(f * kBarWidth));
    char value[32];
    std::snprintf(value, sizeof value, "%.1f", slider.value);
    lines.push_back(name + " [" + std::string(static_cast<size_t>(filled), '#') +
                    std::string(static_cast<size_t>(kBarWidth - filled), '-') + "] " + value);
  }
  for (const auto& [name, list] : state_.lists()) {
    for (size_t i = 0; i < list.rows.size(); ++i) {
      const bool here = static_cast<int>(i) == highlighted_;
      lines.push_back(std::string(here ? "> " : "  ") + list.rows[i] +
                      (static_cast<int>(i) == list.selected ? "  (selected)" : ""));
    }
  }
  std::string controls;
  for (const auto& [name, state] : state_.buttons()) {
    if (state.hidden) continue;
    const std::string keys = state_.keysOf(name);
    controls += "[" + (keys.empty() ? std::string("-") : keys) + "] " +
                (state.title.empty() ? name : state.title) + (state.enabled ? "" : " (off)") + "  ";
  }
  if (!controls.empty()) lines.push_back(controls);
  if (const auto& alert = state_.alert()) {
    lines.push_back("");
    lines.push_back("!! " + alert->title);
    if (!alert->message.empty()) lines.push_back("   " + alert->message);
    std::string choices = "   ";
    for (size_t i = 0; i < alert->buttons.size(); ++i) {
      choices += std::to_string(i + 1) + ") " + alert->buttons[i] + "  ";
    }
    lines.push_back(choices + "- press a number");
  }
  return lines;
}

void TerminalScreenView::keyDown(const std::string& key) {
  if (const auto& alert = state_.alert()) {
    int chosen = -1;
    if (key.size() == 1 && key[0] >= '1' && key[0] <= '9') chosen = key[0] - '1';
    if (key == "enter") chosen = static_cast<int>(alert->buttons.size()) - 1;
    AlertAnswer answer = state_.takeAlertAnswer(chosen);
    if (!answer) return;
    changed();
    answer(chosen);
    return;
  }
  if (state_.pressBoundKey(key)) return;
  const auto& lists = state_.lists();
  if (!lists.empty() && (key == "up" || key == "down" || key == "enter")) {
    const auto& [name, list] = *lists.begin();
    const int rows = static_cast<int>(list.rows.size());
    if (rows == 0) return;
    if (key == "enter") {
      state_.pickRow(name, highlighted_);
      return;
    }
    highlighted_ = std::clamp(highlighted_ + (key == "down" ? 1 : -1), 0, rows - 1);
    changed();
    return;
  }
  if (auto* listener = state_.listener()) listener->keyPressed(key);
}

}  // namespace nembra
