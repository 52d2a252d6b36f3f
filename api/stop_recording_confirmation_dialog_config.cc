#include "nembra/stop_recording_confirmation_dialog_config.h"

#include "api/config_line.h"

namespace nembra {

std::string StopRecordingConfirmationDialogConfig::stringValueConfig() const {
  return configJsonLine({{"titleText", titleText_},
                         {"mesText", mesText_},
                         {"posBtnText", posBtnText_},
                         {"negBtnText", negBtnText_}});
}

}  // namespace nembra
