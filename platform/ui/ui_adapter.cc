#include "platform/ui/ui_adapter.h"

#include <unistd.h>

#include <cstdlib>

#include "platform/ui/headless_ui.h"
#include "platform/ui/terminal_ui.h"
#include "platform/ui/window_ui.h"

namespace nembra {

UiKind defaultUiKind() {
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* value = std::getenv(name);
    if (value && *value) return UiKind::Window;
  }
  if (::isatty(STDIN_FILENO)) return UiKind::Terminal;
  return UiKind::None;
}

bool parseUiKind(const std::string& text, UiKind& kind) {
  if (text == "window") {
    kind = UiKind::Window;
  } else if (text == "terminal") {
    kind = UiKind::Terminal;
  } else if (text == "none") {
    kind = UiKind::None;
  } else {
    return false;
  }
  return true;
}

const char* uiKindName(UiKind kind) {
  switch (kind) {
    case UiKind::Window:
      return "window";
    case UiKind::Terminal:
      return "terminal";
    case UiKind::None:
      return "none";
  }
  return "none";
}

std::unique_ptr<UiAdapter> makeUiAdapter(UiKind kind, MainQueue& mainQueue, OptionalError& error) {
  switch (kind) {
    case UiKind::Window:
      return WindowUi::open(mainQueue, WindowUi::Options{}, error);
    case UiKind::Terminal:
      return std::make_unique<TerminalUi>(mainQueue);
    case UiKind::None:
      return std::make_unique<HeadlessUi>();
  }
  return nullptr;
}

}  // namespace nembra
