#include "nembra/recorder_interface_config.h"

#include "api/config_line.h"

namespace nembra {

std::string RecorderInterfaceConfig::stringValueConfig() const {
  return configJsonLine({{"recordButton", recordButton_.stringValueConfig()},
                         {"closeButton", closeButton_.stringValueConfig()},
                         {"pauseButton", pauseButton_.stringValueConfig()},
                         {"cameraFlipButton", cameraFlipButton_.stringValueConfig()}});
}

}  // namespace nembra
