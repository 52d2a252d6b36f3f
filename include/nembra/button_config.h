// The look of one recorder button: its images and size. How the image paths are resolved is
// up to the view that draws the button.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <optional>
#include <string>

namespace nembra {

class ButtonConfig {
 public:
  // Absent: the view's own image.
  const std::optional<std::string>& getImagePath() const { return imagePath_; }
  void setImagePath(std::optional<std::string> path) { imagePath_ = std::move(path); }

  // Shown while the button is selected (recording, paused); absent: the view's own.
  const std::optional<std::string>& getSelectedImagePath() const { return selectedImagePath_; }
  void setSelectedImagePath(std::optional<std::string> path) {
    selectedImagePath_ = std::move(path);
  }

  float getScale() const { return scale_; }
  void setScale(float scale) { scale_ = scale; }

  // 0: the view's own size.
  double getWidth() const { return width_; }
  void setWidth(double width) { width_ = width; }
  double getHeight() const { return height_; }
  void setHeight(double height) { height_ = height; }

  std::string stringValueConfig() const;

 private:
  std::optional<std::string> imagePath_;
  std::optional<std::string> selectedImagePath_;
  float scale_ = 1.0f;
  double width_ = 0;
  double height_ = 0;
};

}  // namespace nembra
