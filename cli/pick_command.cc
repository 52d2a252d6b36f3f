// `nembra pick FILE [--rerecord TOKEN]`: the video library with FILE as the picked movie: a
// low-quality MPEG-4 export, then a new video with its first picture as cover, or a re-recording
// of TOKEN. Prints the video's token.
#include <CLI/CLI.hpp>
#include <iostream>

#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/media/media_log.h"
#include "playback/nembra_video_library.h"

namespace nembra {
namespace {

struct PickArguments {
  std::string file;
  std::string rerecord;
};

int runPick(CliContext& context, const PickArguments& args) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  auto library = args.rerecord.empty()
                     ? NembraVideoLibrary::initWithNembraApplication(nembra)
                     : NembraVideoLibrary::initWithNembraApplication(nembra, args.rerecord);
  bool done = false;
  std::optional<Json> answer;
  OptionalError failure;
  library->setFinished([&](const std::optional<Json>& json, const OptionalError& error) {
    answer = json;
    failure = error;
    done = true;
  });
  library->imagePickerControllerDidFinishPickingMediaWithInfo(args.file);
  nembra.mainQueue().runUntil([&] { return done; }, std::chrono::minutes(30));
  if (!done || failure) {
    std::cerr << "nembra pick: " << (failure ? failure->message : "no answer") << "\n";
    return 1;
  }
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
  command->add_option("file", args.file, "The picked movie")->required();
  command->add_option("--rerecord", args.rerecord, "Re-record this video instead of a new one");
  command->callback([&context, &exitCode] { exitCode = runPick(context, args); });
}

}  // namespace nembra
