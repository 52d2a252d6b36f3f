#include "nembra/qr_scanner_config.h"

#include "api/config_line.h"

namespace nembra {

std::string QrScannerConfig::stringValueConfig() const {
  return configJsonLine(
      {{"shouldCloseAfterSuccessfulScan", flagText(shouldCloseAfterSuccessfulScan_)}});
}

}  // namespace nembra
