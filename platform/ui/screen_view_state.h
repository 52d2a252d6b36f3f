// What a screen has set on its view, and the rules of acting on it, shared by every adapter so
// that each adapter's view only draws and turns its input into these calls: labels and buttons
// keep the order they were first set in; a bound key, a button press, a slider move or a row
// pick does nothing while an alert is up, or when the control is hidden or disabled.
//
// Threading: main queue only, like the views that own it. The listener is called on the
// calling thread, from inside the member that acts on the user's behalf.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ui/screen_view.h"

namespace nembra {

class ScreenViewState {
 public:
  // The setters return true when what a view shows changed.
  void setListener(ScreenViewListener* listener) { listener_ = listener; }
  bool setTitle(const std::string& title);
  bool setLabel(const std::string& name, const std::string& text);
  bool setButton(const std::string& name, const ButtonState& state);
  bool bindKey(const std::string& key, const std::string& button);
  bool setSlider(const std::string& name, const SliderState& state);
  bool setList(const std::string& name, const ListState& state);
  bool setPicture(SharedPicture picture, size_t frame, const PictureViewport& viewport);
  bool showAlert(const AlertState& alert, ScreenView::AlertAnswer answer);
  bool dismissAlert();

  ScreenViewListener* listener() const { return listener_; }
  const std::string& title() const { return title_; }
  const std::vector<std::pair<std::string, std::string>>& labels() const { return labels_; }
  // "" for a label never set.
  const std::string& label(const std::string& name) const;
  const std::vector<std::pair<std::string, ButtonState>>& buttons() const { return buttons_; }
  const ButtonState* button(const std::string& name) const;
  // The keys bound to |button|, joined by "/"; "" when none.
  std::string keysOf(const std::string& button) const;
  const std::map<std::string, SliderState>& sliders() const { return sliders_; }
  const SliderState* slider(const std::string& name) const;
  const std::map<std::string, ListState>& lists() const { return lists_; }
  const ListState* list(const std::string& name) const;
  const SharedPicture& picture() const { return picture_; }
  size_t pictureFrame() const { return pictureFrame_; }
  const PictureViewport& viewport() const { return viewport_; }
  const std::optional<AlertState>& alert() const { return alert_; }

  // Acting as the user. Each returns false, doing nothing, when a person could not do it.
  bool pressButton(const std::string& name);
  // The slider's value clamped to its range, kept and told to the listener.
  bool moveSlider(const std::string& name, double value);
  bool pickRow(const std::string& list, int row);
  // True when |key| is bound, whether or not its button could be pressed.
  bool pressBoundKey(const std::string& key);
  // Closes the alert and hands back its answer, for the caller to run once it has redrawn:
  // the answer may destroy the view. Null when there is no alert or |button| is not in it.
  ScreenView::AlertAnswer takeAlertAnswer(int button);

 private:
  ScreenViewListener* listener_ = nullptr;
  std::string title_;
  std::vector<std::pair<std::string, std::string>> labels_;
  std::vector<std::pair<std::string, ButtonState>> buttons_;
  std::map<std::string, std::string> keys_;
  std::map<std::string, SliderState> sliders_;
  std::map<std::string, ListState> lists_;
  SharedPicture picture_;
  size_t pictureFrame_ = 0;
  PictureViewport viewport_;
  std::optional<AlertState> alert_;
  ScreenView::AlertAnswer answer_;
};

}  // namespace nembra
