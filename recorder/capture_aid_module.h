// Installs the still-image recorder and the QR scanner into the Nembra object
// (api/capture_aid_screens.h), with the camera they open.
//
// Threading: once at start-up, before the screens are asked for.
#pragma once

#include <chrono>

#include "nembra/screen_host.h"
#include "recorder/camera_feed.h"

namespace nembra {

struct CaptureAidScreenOptions {
  CameraFeedOptions camera;  // the first real camera unless told otherwise
  // The still-image recorder takes its picture by itself after this long (0: on the button).
  std::chrono::milliseconds captureAfter{0};
};

// The public installCaptureAidScreens(camera) is this with only the camera given.
void installCaptureAidScreens(CaptureAidScreenOptions options);

}  // namespace nembra
