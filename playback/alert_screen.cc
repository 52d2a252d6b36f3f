#include "playback/alert_screen.h"

namespace nembra {

void AlertScreen::viewDidLoad() {
  view().setTitle(title_);
  view().showAlert({title_, "", {button_}}, [this](int) {
    // The answer may come from the presenter tearing this screen down; dismiss runs it after.
    dismiss(answered_);
  });
}

}  // namespace nembra
