// The camera options the camera commands share: --camera DEV|lavfi, --facing back|front and
// --size WxH, turned into CameraFeedOptions.
#pragma once

#include <string>

#include "recorder/camera_feed.h"

namespace CLI {
class App;
}

namespace nembra {

struct CameraArguments {
  std::string camera;
  std::string facing = "back";
  std::string size = "1280x720";
};

void addCameraOptions(CLI::App& command, CameraArguments& arguments);
// False, with |error| set, when --size is not WxH.
bool cameraFeedOptions(const CameraArguments& arguments, CameraFeedOptions& options,
                       std::string& error);

}  // namespace nembra
