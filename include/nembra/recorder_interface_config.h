// The look of the camera recorder's four buttons.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <string>

#include "nembra/button_config.h"

namespace nembra {

class RecorderInterfaceConfig {
 public:
  ButtonConfig& getRecordButton() { return recordButton_; }
  const ButtonConfig& getRecordButton() const { return recordButton_; }
  void setRecordButton(ButtonConfig button) { recordButton_ = std::move(button); }

  ButtonConfig& getCloseButton() { return closeButton_; }
  const ButtonConfig& getCloseButton() const { return closeButton_; }
  void setCloseButton(ButtonConfig button) { closeButton_ = std::move(button); }

  ButtonConfig& getPauseButton() { return pauseButton_; }
  const ButtonConfig& getPauseButton() const { return pauseButton_; }
  void setPauseButton(ButtonConfig button) { pauseButton_ = std::move(button); }

  ButtonConfig& getCameraFlipButton() { return cameraFlipButton_; }
  const ButtonConfig& getCameraFlipButton() const { return cameraFlipButton_; }
  void setCameraFlipButton(ButtonConfig button) { cameraFlipButton_ = std::move(button); }

  // Each button's own line as the value of its entry.
  std::string stringValueConfig() const;

 private:
  ButtonConfig recordButton_;
  ButtonConfig closeButton_;
  ButtonConfig pauseButton_;
  ButtonConfig cameraFlipButton_;
};

}  // namespace nembra
