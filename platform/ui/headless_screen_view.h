// The headless adapter's view: records everything a screen shows and lets a test act as the
// user (press a named button, move a slider, pick a row, answer an alert, type a key).
//
// Threading: main queue only, like every view; the video surface takes frames from any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ui/latest_frame_surface.h"
#include "platform/ui/screen_view.h"
#include "platform/ui/screen_view_state.h"

namespace nembra {

class HeadlessScreenView final : public ScreenView {
 public:
  explicit HeadlessScreenView(std::string screenName) : screenName_(std::move(screenName)) {}

  void setListener(ScreenViewListener* listener) override { state_.setListener(listener); }
  void setTitle(const std::string& title) override { state_.setTitle(title); }
  void setLabel(const std::string& name, const std::string& text) override;
  void setButton(const std::string& name, const ButtonState& state) override {
    state_.setButton(name, state);
  }
  void bindKey(const std::string& key, const std::string& button) override {
    state_.bindKey(key, button);
  }
  void setSlider(const std::string& name, const SliderState& state) override {
    state_.setSlider(name, state);
  }
  void setList(const std::string& name, const ListState& state) override {
    state_.setList(name, state);
  }
  void setPicture(SharedPicture picture, size_t frame, const PictureViewport& viewport) override {
    state_.setPicture(std::move(picture), frame, viewport);
  }
  VideoSurface* videoSurface() override { return &surface_; }
  void showAlert(const AlertState& alert, AlertAnswer answer) override {
    state_.showAlert(alert, std::move(answer));
  }
  void dismissAlert() override { state_.dismissAlert(); }
  void pictureAreaSize(int& width, int& height) const override;

  // What is shown.
  const std::string& screenName() const { return screenName_; }
  const std::string& title() const { return state_.title(); }
  // "" for a label never set.
  std::string label(const std::string& name) const;
  std::optional<ButtonState> button(const std::string& name) const;
  std::optional<SliderState> slider(const std::string& name) const;
  std::optional<ListState> list(const std::string& name) const;
  const SharedPicture& picture() const { return state_.picture(); }
  size_t pictureFrame() const { return state_.pictureFrame(); }
  const PictureViewport& viewport() const { return state_.viewport(); }
  const std::optional<AlertState>& alert() const { return state_.alert(); }
  const LatestFrameSurface& surface() const { return surface_; }
  // Every text a label had, in order, for tests of transient states.
  const std::vector<std::string>& labelHistory(const std::string& name) const;

  // Acting as the user. Each returns false, doing nothing, when a person could not do it
  // (a hidden or disabled button, no such slider or row, no alert or no such button in it).
  bool press(const std::string& button);
  bool moveSlider(const std::string& name, double value);
  bool pickRow(const std::string& list, int row);
  bool answerAlert(const std::string& buttonTitle);
  // A bound key presses its button; any other reaches the listener as a key.
  void pressKey(const std::string& key);
  void zoom(double factor);
  void drag(double dx, double dy);
  // Resizes the picture area and tells the listener.
  void resize(int width, int height);

 private:
  const std::string screenName_;
  ScreenViewState state_;
  std::map<std::string, std::vector<std::string>> labelHistory_;
  LatestFrameSurface surface_;
  int areaWidth_ = 1280;
  int areaHeight_ = 720;
};

}  // namespace nembra
