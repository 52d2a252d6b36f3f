// How the camera recorder presents itself.
//
// Threading: a plain value; read and replace it from the main queue (the recorder reads it
// there when its screen loads).
#pragma once

#include <string>

namespace nembra {

class CameraRecorderStyle {
 public:
  bool getHideControls() const { return hideControls_; }
  bool hideControls() const { return hideControls_; }
  // When true the recorder's control bar is hidden.
  void setHideControls(bool value) { hideControls_ = value; }

  std::string stringValueConfig() const;

 private:
  bool hideControls_ = false;
};

}  // namespace nembra
