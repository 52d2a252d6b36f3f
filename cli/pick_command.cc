// `nembra pick [FILE] [--rerecord TOKEN] [--cover-shot] [--dir D]`: the video library with FILE
// as the picked movie: a low-quality MPEG-4 export, then a new video, or a re-recording of
// TOKEN. The cover is the file's first picture, or with --cover-shot the one picked in the cover
// selector. Without FILE the file selector lists the videos of D (the current directory) to
// pick from. Prints the video's token.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

#include "api/picker_screens.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_delegates.h"
#include "platform/media/media_log.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/ui_adapter.h"
#include "playback/nembra_video_library.h"
#include "playback/picker_module.h"
#include "recorder/recorder_cover_screens.h"

namespace nembra {
namespace {

struct PickArguments {
  std::string file;
  std::string rerecord;
  bool coverShot = false;
  std::string directory;
};

int fail(const std::string& message) {
  std::cerr << "nembra pick: " << message << "\n";
  return 1;
}

int runPick(CliContext& context, const PickArguments& args) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  const bool selecting = args.file.empty();
  if (!selecting && !std::filesystem::exists(args.file)) return fail("no such file: " + args.file);
  if (selecting && !args.rerecord.empty()) return fail("--rerecord needs the FILE to upload");
  nembra.recorderConfig().setShouldEnableCoverShot(args.coverShot);

  // Screens are needed to choose a file or a cover.
  std::unique_ptr<UiAdapter> adapter;
  std::shared_ptr<ScreenPresenter> presenter;
  if (selecting || args.coverShot) {
    UiKind kind{};
    std::string badUi;
    if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
    if (kind == UiKind::None)
      return fail("choosing a file or a cover needs --ui window or terminal");
    OptionalError error;
    adapter = makeUiAdapter(kind, nembra.mainQueue(), error);
    if (!adapter) return fail(error ? error->message : "cannot start the UI");
    presenter = std::make_shared<ScreenPresenter>(*adapter, nembra.mainQueue());
    nembra.setScreenPresenter(presenter);
    adapter->setQuitHandler([presenter] { presenter->dismissAll(); });
    installCoverScreens();
  }

  bool done = false;
  std::optional<Json> answer;
  OptionalError failure;
  auto finished = [&](const std::optional<Json>& json, const OptionalError& error) {
    answer = json;
    failure = error;
    done = true;
  };
  std::shared_ptr<NembraVideoLibrary> library;
  std::shared_ptr<NembraFileSelectorDelegate> selectorDelegate;
  if (selecting) {
    PickerModuleOptions options;
    options.pickerDirectory = args.directory;
    options.onPickedVideo = [&](const std::string&, const std::optional<Json>& json,
                                const OptionalError& error) { finished(json, error); };
    installPickerScreens(std::move(options));
    selectorDelegate = std::make_shared<NembraFileSelectorDelegate>();
    selectorDelegate->uploadCancelledByUser = [&] {
      failure = Error::cancelled("nothing was picked");
      done = true;
    };
    nembra.setFileSelectorDelegate(selectorDelegate);
    nembra.fileSelectorConfig().setMediaType(VIDEO);
    nembra.fileSelectorConfig().setShouldAllowMultipleSelection(false);
    nembra.startFileSelector();
  } else {
    library = args.rerecord.empty()
                  ? NembraVideoLibrary::initWithNembraApplication(nembra)
                  : NembraVideoLibrary::initWithNembraApplication(nembra, args.rerecord);
    library->setFinished(finished);
    library->imagePickerControllerDidFinishPickingMediaWithInfo(args.file);
  }
  nembra.mainQueue().runUntil([&] { return done; }, std::chrono::minutes(30));
  if (presenter) {
    presenter->dismissAll();
    nembra.mainQueue().runUntil([&] { return presenter->depth() == 0; }, std::chrono::seconds(5));
  }
  PickerScreens::install(nullptr);
  if (!done || failure) return fail(failure ? failure->message : "no answer");
  if (context.options.json) {
    std::cout << (answer ? answer->dump() : "null") << "\n";
  } else if (answer && answer->is_object()) {
    std::cout << answer->value("token", args.rerecord) << "\n";
  }
  return 0;
}

}  // namespace

void registerPickCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static PickArguments args;
  CLI::App* command = app.add_subcommand(
      "pick", "Upload a movie as the video library does (low-quality MPEG-4 export first)");
  command->add_option("file", args.file, "The picked movie; none: choose one in the file selector");
  command->add_option("--rerecord", args.rerecord, "Re-record this video instead of a new one");
  command->add_flag("--cover-shot", args.coverShot, "Choose the cover in the cover selector");
  command->add_option("--dir", args.directory,
                      "Where the file selector looks for videos (default: the current directory)");
  command->callback([&context, &exitCode] { exitCode = runPick(context, args); });
}

}  // namespace nembra
