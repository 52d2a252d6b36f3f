// `nembra cameras` (--json for JSON): the cameras a recorder may use, with their pixel formats and
// sizes: each V4L2 capture node (the first is the back camera, the second the front one) and the
// virtual camera "lavfi".
#include <CLI/CLI.hpp>
#include <iostream>

#include "cli/cli_context.h"
#include "nembra/json.h"
#include "platform/system/camera_catalog.h"

namespace nembra {
namespace {

int runCameras(bool json) {
  const std::vector<CameraDescription> cameras = CameraCatalog().cameras();
  if (json) {
    Json list = Json::array();
    for (const CameraDescription& camera : cameras) {
      Json formats = Json::array();
      for (const CameraFormat& format : camera.formats) {
        formats.push_back({{"pixel_format", format.pixelFormat},
                           {"description", format.description},
                           {"sizes", format.sizes}});
      }
      list.push_back({{"device", camera.device},
                      {"name", camera.name},
                      {"virtual", camera.isVirtual},
                      {"formats", formats}});
    }
    std::cout << list.dump(2) << "\n";
    return 0;
  }
  size_t real = 0;
  for (const CameraDescription& camera : cameras) {
    std::string role;
    if (!camera.isVirtual) role = real == 0 ? " (back)" : real == 1 ? " (front)" : "";
    if (!camera.isVirtual) ++real;
    std::cout << camera.device << role << ": " << camera.name << "\n";
    for (const CameraFormat& format : camera.formats) {
      std::cout << "    " << format.pixelFormat << " (" << format.description << "):";
      for (const std::string& size : format.sizes) std::cout << " " << size;
      std::cout << "\n";
    }
  }
  if (real == 0) std::cout << "no V4L2 camera found; --camera lavfi uses the virtual one\n";
  return 0;
}

}  // namespace

void registerCamerasCommand(CLI::App& app, CliContext& context, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "cameras", "List the cameras (V4L2 devices and the virtual camera) with formats and sizes");
  command->callback([&context, &exitCode] { exitCode = runCameras(context.options.json); });
}

}  // namespace nembra
