// `nembra trim FILE [--start S] [--end S] [--extra NAME=VALUE...]`: the trimming editor on FILE
// (the façade's trimVideo); its cut is uploaded as a video and the video's token printed once
// the service has confirmed it. With `--ui none` the cut between --start and --end is made at
// once, with nobody at the editor.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_delegates.h"
#include "platform/media/media_log.h"
#include "platform/media/media_trimmer.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/ui_adapter.h"
#include "playback/picker_module.h"

namespace nembra {
namespace {

struct TrimArguments {
  std::string file;
  std::optional<double> start;
  std::optional<double> end;
  std::vector<std::string> extra;
  bool noSound = false;
};

int fail(const std::string& message) {
  std::cerr << "nembra trim: " << message << "\n";
  return 1;
}

std::string seconds(double value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

// Why the command cannot trim FILE between the arguments' times, or "".
std::string checkInput(const TrimArguments& args) {
  if (args.file.find("http://") != std::string::npos ||
      args.file.find("https://") != std::string::npos) {
    return "Nembra can trim only local video.";
  }
  std::error_code ec;
  if (!std::filesystem::is_regular_file(args.file, ec)) return "no such file: " + args.file;
  TrimSource source;
  if (auto error = makeMediaTrimmer()->describe(args.file, source)) {
    return args.file + " is not a video (" + error->message + ")";
  }
  if (args.start && *args.start < 0) return "--start cannot be negative";
  if (args.start && *args.start >= source.duration) {
    return "--start " + seconds(*args.start) + " is past the end of the video (" +
           seconds(source.duration) + " s)";
  }
  if (args.end && *args.end <= args.start.value_or(0)) {
    return "--end must come after --start";
  }
  return "";
}

int runTrim(CliContext& context, const TrimArguments& args) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  if (std::string problem = checkInput(args); !problem.empty()) return fail(problem);
  if (kind == UiKind::None && !args.start && !args.end) {
    return fail("with --ui none, say what to keep with --start and --end");
  }
  std::string badExtra;
  Json extra = parseNameValues(args.extra, badExtra);
  if (extra.is_null()) return fail("--extra " + badExtra);
  nembra.uploadingConfig().addExtraArgs(extra);

  // The token comes with the upload's start; a transfer that fails is told only here.
  std::string token;
  OptionalError failure;
  bool ended = false;
  auto delegate = std::make_shared<NembraUploadingDelegate>();
  delegate->uploadStartedWithPath = [&](const std::string&, const std::string& mediaToken,
                                        const std::string&,
                                        std::shared_ptr<HttpTask>) { token = mediaToken; };
  delegate->errorWithInfo = [&](const std::optional<Json>&, const Error& error, int32_t) {
    if (!failure) failure = error;
    ended = true;
  };
  nembra.setUploadingDelegate(delegate);

  std::optional<Json> answer;
  PickerModuleOptions options;
  options.withSound = kind != UiKind::None && !args.noSound;
  options.dismissEditorOnFailure = kind == UiKind::None;
  options.editorStart = args.start;
  options.editorEnd = args.end;
  options.onTrimmed = [&](const std::optional<Json>& json, const OptionalError& error) {
    answer = json;
    if (error && !failure) failure = error;
    ended = true;
  };
  installPickerScreens(std::move(options));

  OptionalError error;
  std::unique_ptr<UiAdapter> adapter = makeUiAdapter(kind, nembra.mainQueue(), error);
  if (!adapter) return fail(error ? error->message : "cannot start the UI");
  auto presenter = std::make_shared<ScreenPresenter>(*adapter, nembra.mainQueue());
  nembra.setScreenPresenter(presenter);
  adapter->setQuitHandler([presenter] { presenter->dismissAll(); });

  nembra.trimVideo(std::filesystem::absolute(args.file).string());
  if (kind == UiKind::None) {
    // Nobody at the editor: press its "trim" as soon as it is up.
    auto* headless = dynamic_cast<HeadlessUi*>(adapter.get());
    HeadlessScreenView* view = headless ? headless->topView() : nullptr;
    if (!view || !view->press("trim")) {
      nembra.mainQueue().runUntil([&] { return ended; }, std::chrono::seconds(5));
      return fail(failure ? failure->message : "the editor did not open");
    }
  }
  nembra.mainQueue().runUntil([&] { return ended; }, std::chrono::hours(24));
  presenter->dismissAll();
  nembra.mainQueue().runUntil([&] { return presenter->depth() == 0; }, std::chrono::seconds(5));
  presenter.reset();
  adapter.reset();
  PickerScreens::install(nullptr);
  if (failure) return fail(failure->message);
  if (context.options.json) {
    std::cout << Json{{"token", token}, {"confirm", answer ? *answer : Json()}}.dump() << "\n";
  } else {
    std::cout << token << "\n";
  }
  return 0;
}

}  // namespace

void registerTrimCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static TrimArguments args;
  CLI::App* command = app.add_subcommand(
      "trim", "Trim a local video in the editor, upload the cut as a video and print its token");
  command->add_option("file", args.file, "The video to trim")->required();
  command->add_option("--start", args.start, "Seconds into the video where the cut begins");
  command->add_option("--end", args.end, "Seconds into the video where the cut ends");
  command->add_option("--extra", args.extra, "NAME=VALUE sent with the upload");
  command->add_flag("--no-sound", args.noSound, "Open no sound device");
  command->callback([&context, &exitCode] { exitCode = runTrim(context, args); });
}

}  // namespace nembra
