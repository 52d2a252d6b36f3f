// `nembra show FILE_OR_URL...` and `nembra images show TOKEN...`: the image viewer in the UI the
// global --ui picks. With --ui none there is no screen: each picture is loaded and described.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>

#include "api/remote_image_loader.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/nembra_images.h"
#include "nembra/screen_host.h"
#include "platform/dispatch/timer.h"
#include "platform/media/media_log.h"

namespace nembra {
namespace {

struct ShowArguments {
  std::vector<std::string> items;
  double closeAfter = 0;
};

int fail(const std::string& message) {
  std::cerr << "nembra show: " << message << "\n";
  return 1;
}

// No UI: load each picture as the viewer would and say what it is.
int describeAll(Nembra& nembra, const std::vector<std::string>& uris) {
  int failures = 0;
  PictureLimits limits;
  limits.maxWidth = 1920;
  limits.maxHeight = 1080;
  for (const std::string& uri : uris) {
    std::atomic<bool> done{false};
    nembra.imageLoader()->load(uri, limits,
                               [&](const ImageLoadResult& result, const OptionalError& error) {
                                 if (result.preview) return;
                                 done = true;
                                 if (error) {
                                   ++failures;
                                   std::cout << std::flush;
                                   std::cerr << "nembra show: " << error->message << "\n";
                                   return;
                                 }
                                 const Picture& p = *result.picture;
                                 std::printf("%s: %d x %d %s", uri.c_str(), p.sourceWidth,
                                             p.sourceHeight, p.format.c_str());
                                 if (p.animated()) std::printf(", %zu frames", p.frames.size());
                                 std::printf(", from %s", result.source.c_str());
                                 if (result.bytesPerSecond > 0) {
                                   std::printf(", %.1f MB/s", result.bytesPerSecond / 1e6);
                                 }
                                 std::printf("\n");
                               });
    nembra.mainQueue().runUntil([&] { return done.load(); }, std::chrono::minutes(10));
  }
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

int runShow(CliContext& context, const std::vector<std::string>& uris, double closeAfter) {
  Nembra& nembra = context.nembra();
  // Every picture that fails is reported here in plain words; FFmpeg's own lines only add noise.
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  if (kind == UiKind::None) return describeAll(nembra, uris);
  OptionalError error;
  std::unique_ptr<NembraScreenHost> host = NembraScreenHost::start(kind, nembra.mainQueue(), error);
  if (!host) return fail(error ? error->message : "cannot start the UI");
  installViewerScreens();
  nembra.setScreenPresenter(host->presenter());
  nembra.showImageFromUris(uris);
  std::unique_ptr<Timer> closer;
  if (closeAfter > 0) {
    closer = Timer::oneShot(nembra.mainQueue(),
                            std::chrono::milliseconds(static_cast<int>(closeAfter * 1000)),
                            [&host] { host->closeAll(); });
  }
  host->runUntilClosed(std::chrono::hours(24));
  closer.reset();
  return 0;
}

}  // namespace

void registerShowCommands(CLI::App& app, CliContext& context, int& exitCode) {
  static ShowArguments show;
  CLI::App* command = app.add_subcommand(
      "show", "Show pictures (files or URLs) in the image viewer; the UI follows --ui");
  command->add_option("items", show.items, "Picture files or URLs")->required();
  command->add_option("--close-after", show.closeAfter, "Close the viewer after SECONDS");
  command->callback(
      [&context, &exitCode] { exitCode = runShow(context, show.items, show.closeAfter); });

  static ShowArguments images;
  CLI::App* imagesCommand = app.get_subcommand("images");
  CLI::App* showImages =
      imagesCommand->add_subcommand("show", "Show the application's images by token");
  showImages->add_option("tokens", images.items, "Image tokens")->required();
  showImages->add_option("--close-after", images.closeAfter, "Close the viewer after SECONDS");
  showImages->callback([&context, &exitCode] {
    std::vector<std::string> uris;
    for (const std::string& token : images.items) {
      uris.push_back(context.nembra().images().getImageUrl(token));
    }
    exitCode = runShow(context, uris, images.closeAfter);
  });
}

}  // namespace nembra
