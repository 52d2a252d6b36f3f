#include "cli/camera_options.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace nembra {

void addCameraOptions(CLI::App& command, CameraArguments& arguments) {
  command.add_option("--camera", arguments.camera,
                     "A V4L2 node (/dev/video0), \"lavfi\" for the virtual camera, or "
                     "\"lavfi:GRAPH\"; default: the first camera found");
  command.add_option("--facing", arguments.facing, "back (the first camera) or front (the second)")
      ->check(CLI::IsMember({"back", "front"}));
  command.add_option("--size", arguments.size, "Picture size asked of the camera, WxH");
}

bool cameraFeedOptions(const CameraArguments& arguments, CameraFeedOptions& options,
                       std::string& error) {
  int width = 0;
  int height = 0;
  char end = 0;
  if (std::sscanf(arguments.size.c_str(), "%dx%d%c", &width, &height, &end) != 2 || width <= 0 ||
      height <= 0) {
    error = "--size takes WxH, not \"" + arguments.size + "\"";
    return false;
  }
  options.camera = arguments.camera;
  options.position = arguments.facing == "front" ? CameraPosition::Front : CameraPosition::Back;
  options.width = width;
  options.height = height;
  return true;
}

}  // namespace nembra
