// How a host shows the SDK's screens (the image viewer, and the recorders, players and pickers
// of the modules it installs): start a NembraScreenHost on the main queue, hand its presenter
// to the application object, install the screen modules, and keep pumping the main queue.
//
//   nembra::OptionalError error;
//   auto host = nembra::NembraScreenHost::start(nembra::defaultUiKind(), app.mainQueue(), error);
//   if (!host) { /* error->message says why: no display, a font missing */ }
//   nembra::installViewerScreens();
//   app.setScreenPresenter(host->presenter());
//   app.showImageFromUris({"photo.jpg"});
//   host->runUntilClosed(std::chrono::hours(1));
//
// Threading: create, use and destroy on the main queue's thread. The window's events reach the
// screens because the window polls its input from a repeating task on that queue.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

class MainQueue;
class ScreenPresenter;

// Window: SDL2 (X11 or Wayland). Terminal: a status area per screen and keys for its buttons.
// None: nothing is shown (screens still run, as in tests and services).
enum class UiKind { Window, Terminal, None };

// The kind to use when the host does not say: the window when DISPLAY or WAYLAND_DISPLAY is
// set, the terminal when standard input is one, otherwise none.
UiKind defaultUiKind();
// "window", "terminal", "none"; false for another text.
bool parseUiKind(const std::string& text, UiKind& kind);
const char* uiKindName(UiKind kind);

class NembraScreenHost {
 public:
  // The UI of |kind| driven from |mainQueue|, which must outlive the host. Null, with |error|
  // set to a message a person can act on, when it cannot start.
  static std::unique_ptr<NembraScreenHost> start(UiKind kind, MainQueue& mainQueue,
                                                 OptionalError& error);
  ~NembraScreenHost();

  NembraScreenHost(const NembraScreenHost&) = delete;
  NembraScreenHost& operator=(const NembraScreenHost&) = delete;

  UiKind kind() const { return kind_; }
  // For Nembra::setScreenPresenter; the host keeps it alive.
  std::shared_ptr<ScreenPresenter> presenter() const { return presenter_; }
  // How many screens are presented, one over the other.
  size_t screensShown() const;
  // Dismisses every screen, topmost first (what closing the window or Ctrl-C does).
  void closeAll();
  // Pumps the main queue until no screen is presented or |limit| has passed; true when every
  // screen was closed.
  bool runUntilClosed(std::chrono::milliseconds limit);

 private:
  class Adapter;
  NembraScreenHost(UiKind kind, MainQueue& mainQueue);

  UiKind kind_;
  MainQueue& mainQueue_;
  std::unique_ptr<Adapter> adapter_;
  std::shared_ptr<ScreenPresenter> presenter_;
};

// The screen modules, each making the application object's operations present its screens.
// Install the ones the host wants, once, before the first such call.
void installViewerScreens();
// The still-image recorder and the QR scanner (startImageRecorder, startQrScanner) on |camera|:
// "" the first camera found, "lavfi" the virtual camera, or a V4L2 node such as /dev/video0.
void installCaptureAidScreens(const std::string& camera = "");

}  // namespace nembra
