// The terminal adapter's view of one screen: a status area of plain lines (title, labels, each
// button's state with its key, the slider as a bar, list rows, what picture is shown) and
// alerts as numbered prompts. No video.
//
// Threading: main queue only.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/ui/screen_view.h"
#include "platform/ui/screen_view_state.h"

namespace nembra {

class TerminalScreenView final : public ScreenView {
 public:
  // |onChange| runs when the status area must be drawn again; |onDestroy| when the view goes.
  TerminalScreenView(std::string screenName, std::function<void()> onChange,
                     std::function<void(TerminalScreenView*)> onDestroy);
  ~TerminalScreenView() override;

  void setListener(ScreenViewListener* listener) override { state_.setListener(listener); }
  void setTitle(const std::string& title) override;
  void setLabel(const std::string& name, const std::string& text) override;
  void setButton(const std::string& name, const ButtonState& state) override;
  void bindKey(const std::string& key, const std::string& button) override;
  void setSlider(const std::string& name, const SliderState& state) override;
  void setList(const std::string& name, const ListState& state) override;
  void setPicture(SharedPicture picture, size_t frame, const PictureViewport& viewport) override;
  VideoSurface* videoSurface() override { return nullptr; }
  void showAlert(const AlertState& alert, AlertAnswer answer) override;
  void dismissAlert() override;
  void pictureAreaSize(int& width, int& height) const override;

  // The status area, one line each.
  std::vector<std::string> render() const;
  // A key typed: a bound button, an alert's answer (its number, or enter for the last button),
  // list navigation (up, down, enter) or a key for the listener.
  void keyDown(const std::string& key);

 private:
  void changed();

  const std::string screenName_;
  std::function<void()> onChange_;
  std::function<void(TerminalScreenView*)> onDestroy_;
  ScreenViewState state_;
  int highlighted_ = 0;  // the list row up and down move to
};

}  // namespace nembra
