// The light meter: a sun glyph that is white in good light and red or yellow, blinking, when the
// scene is too dark to record well. The recorder feeds it one brightness value per video frame.
//
// Camera frames on Linux carry no exposure metadata, so the brightness is estimated from the
// picture itself (brightnessOfFrame): the APEX brightness value Bv = log2(B / (N K)) of a scene
// whose mean luma is what the camera's auto exposure left in the frame, taking the camera's
// exposure as fixed at Ev 0 (mid-grey 118 then reads Bv 2, a room with good light).
//
// Drawn as the display-only button "lux-meter" of the screen it is given.
//
// Threading: main queue only (the frame analysis functions are pure and may run anywhere).
#pragma once

#include <string>

#include "platform/ui/video_frame.h"

namespace nembra {

class ScreenView;

class LuxMeterView {
 public:
  static constexpr const char* kButton = "lux-meter";

  // The view it draws into, held weakly in spirit: the owner clears it (nullptr) before the view
  // goes, and a meter without one only keeps the value.
  void setImageView(ScreenView* view) { imageView_ = view; }

  double currentLuminousity() const { return currentLuminousity_; }
  // Stores |value| and updates the image.
  void setCurrentLuminousity(double value);
  // Picks the image for the current value; red and yellow blink (their visibility flips at
  // every update), white is always shown.
  void updateImage();

  // The glyph for brightness |value|: "sun-red" below -0.5, "sun-yellow" below 1.0, else
  // "sun-white".
  static std::string imageFor(double value);
  // Mean of the luma plane, every 4th pixel of every 4th row (the meter needs no more).
  static double meanLuma(const VideoFrame& frame);
  // The APEX brightness value for a mean luma (0..255).
  static double brightnessOfLuma(double meanLuma);
  static double brightnessOfFrame(const VideoFrame& frame) {
    return brightnessOfLuma(meanLuma(frame));
  }

  bool shown() const { return shown_; }
  const std::string& image() const { return image_; }

 private:
  ScreenView* imageView_ = nullptr;
  double currentLuminousity_ = 0;
  std::string image_;
  bool shown_ = true;
};

}  // namespace nembra
