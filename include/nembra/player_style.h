// How the video player's host view presents itself.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

namespace nembra {

class PlayerStyle {
 public:
  bool getHideControls() const { return hideControls_; }
  bool hideControls() const { return hideControls_; }
  // Read by the host view; the player itself ignores it.
  void setHideControls(bool value) { hideControls_ = value; }

 private:
  bool hideControls_ = false;
};

}  // namespace nembra
