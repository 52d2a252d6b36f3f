// Where a player engine shows pictures: the video area of a screen. The window draws the most
// recent frame on its next paint, scaled to fit with the picture's aspect ratio kept; the
// headless view keeps the frame for tests to read; the terminal shows none.
//
// Threading: any thread may call; implementations hand the frame over under a lock and draw it
// on the thread that owns the display.
#pragma once

#include "platform/ui/video_frame.h"

namespace nembra {

class VideoSurface {
 public:
  virtual ~VideoSurface() = default;

  // Shows |frame| from now on, replacing the one shown.
  virtual void present(SharedVideoFrame frame) = 0;
  // Blanks the surface (the item ended, or another one is about to start).
  virtual void clear() = 0;
};

}  // namespace nembra
