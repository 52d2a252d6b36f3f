// What a screen shows, as a "humble view": the screen's controller sets labels, buttons,
// a slider, list rows, a still picture, a video surface and alerts, and hears back what the user
// did through ScreenViewListener. The window, the terminal and the headless recorder implement
// it; a controller never knows which one it has.
//
// Threading: every member is called on the main queue, and the listener is called there too.
// videoSurface() hands out an object that any thread may feed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/media/picture.h"
#include "platform/ui/video_surface.h"

namespace nembra {

struct ButtonState {
  std::string image;  // a named glyph ("play-white", "record-white", ...)
  std::string title;  // shown beside the glyph where there is room, and by the terminal
  bool enabled = true;
  bool hidden = false;
  // Shown pressed in (a toggle that is on).
  bool selected = false;
};

struct SliderState {
  double value = 0;
  double minimum = 0;
  double maximum = 1;
  bool enabled = true;
  bool hidden = false;
};

struct ListState {
  int rowHeight = 44;  // pixels in the window
  std::vector<std::string> rows;
  int selected = -1;
};

// How the still picture sits in its area: scale 0 fits it whole; otherwise |scale| screen pixels
// per picture pixel, with the picture point (centerX, centerY), in 0..1 of its size, at the
// middle of the area.
struct PictureViewport {
  double scale = 0;
  double centerX = 0.5;
  double centerY = 0.5;
};

struct AlertState {
  std::string title;
  std::string message;
  std::vector<std::string> buttons;
};

// What the user did. Key names: "space", "enter", "escape", "left", "right", "up", "down",
// "tab", "backspace", or the character typed ("q", "+", "0").
class ScreenViewListener {
 public:
  virtual ~ScreenViewListener() = default;
  virtual void buttonPressed(const std::string& name) { (void)name; }
  virtual void sliderMoved(const std::string& name, double value) {
    (void)name;
    (void)value;
  }
  virtual void rowPicked(const std::string& list, int row) {
    (void)list;
    (void)row;
  }
  // A key no binding claimed.
  virtual void keyPressed(const std::string& key) { (void)key; }
  // Wheel or pinch over the picture: |factor| > 1 zooms in.
  virtual void zoomed(double factor) { (void)factor; }
  // A drag over the picture, in screen pixels.
  virtual void dragged(double dx, double dy) {
    (void)dx;
    (void)dy;
  }
  // The area the picture is shown in changed size (pixels), so a screen can decode to it.
  virtual void resized(int width, int height) {
    (void)width;
    (void)height;
  }
};

class ScreenView {
 public:
  using AlertAnswer = std::function<void(int button)>;

  virtual ~ScreenView() = default;

  // |listener| must outlive the view or be replaced by nullptr first.
  virtual void setListener(ScreenViewListener* listener) = 0;

  virtual void setTitle(const std::string& title) = 0;
  // Labels and buttons appear in the order they are first set.
  virtual void setLabel(const std::string& name, const std::string& text) = 0;
  virtual void setButton(const std::string& name, const ButtonState& state) = 0;
  // Pressing |key| presses the button |button|.
  virtual void bindKey(const std::string& key, const std::string& button) = 0;
  virtual void setSlider(const std::string& name, const SliderState& state) = 0;
  virtual void setList(const std::string& name, const ListState& state) = 0;
  // The still picture and which of its frames to show; null clears it.
  virtual void setPicture(SharedPicture picture, size_t frame, const PictureViewport& viewport) = 0;
  // Null where the adapter shows no video (the terminal).
  virtual VideoSurface* videoSurface() = 0;
  // A modal alert; |answer| gets the index of the button chosen. Showing another replaces it.
  virtual void showAlert(const AlertState& alert, AlertAnswer answer) = 0;
  virtual void dismissAlert() = 0;
  // The size of the picture area in pixels, or 0 × 0 where there is none.
  virtual void pictureAreaSize(int& width, int& height) const = 0;
};

}  // namespace nembra
