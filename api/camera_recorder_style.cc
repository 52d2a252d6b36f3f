#include "nembra/camera_recorder_style.h"

#include "api/config_line.h"

namespace nembra {

std::string CameraRecorderStyle::stringValueConfig() const {
  return configJsonLine({{"hideControls", flagText(hideControls_)}});
}

}  // namespace nembra
