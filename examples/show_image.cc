// A host that shows the SDK's screens: the image viewer over a window (or the terminal, or
// nothing when neither is there), closed by the user or after a few seconds.
//
//   example_show_image photo.jpg [SECONDS] [window|terminal|none]
#include <nembra/nembra.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: %s IMAGE [SECONDS] [window|terminal|none]\n", argv[0]);
    return 2;
  }
  const double seconds = argc >= 3 ? std::atof(argv[2]) : 0;
  nembra::UiKind kind = nembra::defaultUiKind();
  if (argc == 4 && !nembra::parseUiKind(argv[3], kind)) {
    std::fprintf(stderr, "unknown UI \"%s\"\n", argv[3]);
    return 2;
  }

  nembra::MainQueue& main = nembra::MainQueue::shared();
  nembra::Nembra app("example", main);
  nembra::OptionalError error;
  std::unique_ptr<nembra::NembraScreenHost> host =
      nembra::NembraScreenHost::start(kind, main, error);
  if (!host) {
    std::fprintf(stderr, "no screens: %s\n", error->message.c_str());
    return 1;
  }
  nembra::installViewerScreens();
  app.setScreenPresenter(host->presenter());
  app.showImageFromUris({argv[1]});
  std::printf("showing %s (%s)\n", argv[1], nembra::uiKindName(kind));
  const auto limit = seconds > 0 ? std::chrono::milliseconds(static_cast<long>(seconds * 1000))
                                 : std::chrono::milliseconds(std::chrono::hours(24));
  if (!host->runUntilClosed(limit)) host->closeAll();
  // Let the viewer finish leaving the screen before the application object goes.
  main.runUntilIdle();
  std::printf("closed\n");
  return 0;
}
