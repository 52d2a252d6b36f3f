// The host's UI: makes the view of each presented screen. Three adapters exist: the window
// (SDL2), the terminal and the headless recorder; the host picks one (the CLI's --ui).
//
// Threading: main queue only.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nembra/error.h"
#include "nembra/screen_host.h"
#include "platform/ui/screen_view.h"

namespace nembra {

class MainQueue;

class UiAdapter {
 public:
  virtual ~UiAdapter() = default;

  virtual UiKind kind() const = 0;
  // The view of a screen named |screenName|, shown over the views made before it until it is
  // destroyed.
  virtual std::unique_ptr<ScreenView> makeView(const std::string& screenName) = 0;
  // Runs on the main queue when the user asks to leave altogether (closes the window, Ctrl-C in
  // the terminal).
  virtual void setQuitHandler(std::function<void()> handler) = 0;
};

// Makes the adapter of |kind| driven from |mainQueue|. Null, with |error| set to a message a
// person can act on, when it cannot start (no display, a font missing).
std::unique_ptr<UiAdapter> makeUiAdapter(UiKind kind, MainQueue& mainQueue, OptionalError& error);

}  // namespace nembra
