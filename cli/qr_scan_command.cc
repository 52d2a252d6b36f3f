// `nembra qr-scan [--camera DEV|lavfi] [--facing back|front] [--size WxH] [--keep-open]
// [--timeout S]`: reads QR codes from the camera and prints each text on its own line. It stops
// after the first code unless --keep-open. With a UI the QR scanner screen shows the preview;
// with --ui none the camera is read without one.
#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>

#include "cli/camera_options.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/screen_host.h"
#include "platform/media/media_log.h"
#include "recorder/capture_aid_module.h"
#include "recorder/qr_frame_scanner.h"

namespace nembra {
namespace {

struct QrScanArguments {
  CameraArguments camera;
  bool keepOpen = false;
  double timeout = 0;
};

int fail(const std::string& message) {
  std::cerr << "nembra qr-scan: " << message << "\n";
  return 1;
}

// Without a screen: the feed straight into a scanner, each new text printed.
class HeadlessScan final : public CaptureFrameObserver {
 public:
  explicit HeadlessScan(MainQueue& main) : main_(main) {}
  void onVideoFrame(const SharedVideoFrame&) override {}
  void onCaptureError(const Error& error) override {
    main_.async([this, error] { failure = error.message; });
  }
  MainQueue& main_;
  std::string failure;
};

int runQrScan(CliContext& context, const QrScanArguments& arguments) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  CaptureAidScreenOptions options;
  std::string problem;
  if (!cameraFeedOptions(arguments.camera, options.camera, problem)) return fail(problem);
  nembra.qrScannerConfig().setShouldCloseAfterSuccessfulScan(!arguments.keepOpen);

  int codes = 0;
  std::string lastCode;
  auto delegate = std::make_shared<NembraQRScannerDelegate>();
  delegate->qrCodeScanned = [&](const std::string& text) {
    ++codes;
    lastCode = text;
    std::cout << text << "\n" << std::flush;
  };
  nembra.setQRScannerDelegate(delegate);

  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  std::unique_ptr<NembraScreenHost> host;
  std::shared_ptr<CameraFeed> feed;
  std::shared_ptr<HeadlessScan> headless;
  std::shared_ptr<QrFrameScanner> scanner;
  if (kind == UiKind::None) {
    OptionalError error;
    feed = CameraFeed::open(options.camera, error);
    if (!feed) return fail(error->message);
    headless = std::make_shared<HeadlessScan>(nembra.mainQueue());
    MainQueue& main = nembra.mainQueue();
    scanner = std::make_shared<QrFrameScanner>(
        makeQrDecoder(), [&main, &delegate, &lastCode](const std::string& text) {
          main.async([&delegate, &lastCode, text] {
            if (text != lastCode) delegate->qrCodeScanned(text);  // a held code is told once
          });
        });
    feed->addObserver(headless);
    feed->addObserver(scanner);
    feed->start();
  } else {
    OptionalError error;
    host = NembraScreenHost::start(kind, nembra.mainQueue(), error);
    if (!host) return fail(error ? error->message : "cannot start the UI");
    installCaptureAidScreens(options);
    nembra.setScreenPresenter(host->presenter());
    nembra.startQrScanner();
  }
  const auto limit = arguments.timeout > 0
                         ? std::chrono::milliseconds(static_cast<int>(arguments.timeout * 1000))
                         : std::chrono::milliseconds(std::chrono::hours(24));
  nembra.mainQueue().runUntil(
      [&] {
        if (host) return host->screensShown() == 0;
        return (!arguments.keepOpen && codes > 0) || !headless->failure.empty();
      },
      limit);
  if (feed) feed->stop();
  host.reset();
  if (headless && !headless->failure.empty() && codes == 0) return fail(headless->failure);
  if (codes == 0) {
    std::ostringstream message;
    message << "no QR code read";
    if (arguments.timeout > 0) message << " within " << arguments.timeout << " s";
    return fail(message.str());
  }
  return 0;
}

}  // namespace

void registerQrScanCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static QrScanArguments arguments;
  CLI::App* command =
      app.add_subcommand("qr-scan", "Read QR codes from the camera and print their text");
  addCameraOptions(*command, arguments.camera);
  command->add_option("--timeout", arguments.timeout, "Give up after SECONDS");
  command->add_flag("--keep-open", arguments.keepOpen,
                    "Keep scanning after the first code (until closed or --timeout)");
  command->callback([&context, &exitCode] { exitCode = runQrScan(context, arguments); });
}

}  // namespace nembra
