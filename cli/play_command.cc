// `nembra play TOKEN|URL|FILE...` and `nembra audios play TOKEN...`: the video player in the UI the
// global --ui picks (none plays without showing anything). --json prints the player delegate's
// events, one JSON line each.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_delegates.h"
#include "nembra/nembra_videos.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/media_log.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/ui_adapter.h"
#include "playback/playback_module.h"
#include "playback/vast_ads_loader.h"

namespace nembra {
namespace {

struct PlayArguments {
  std::vector<std::string> items;
  bool muted = false;
  bool noCache = false;
  bool subtitles = false;
  bool noSound = false;
  std::string ads;
  std::vector<std::string> extra;
};

int fail(const std::string& message) {
  std::cerr << "nembra play: " << message << "\n";
  return 1;
}

bool isToken(const std::string& item) {
  return item.find("://") == std::string::npos && !std::filesystem::exists(item);
}

// Prints each delegate event as one JSON line, in order.
std::shared_ptr<NembraPlayerDelegate> jsonEvents() {
  auto delegate = std::make_shared<NembraPlayerDelegate>();
  auto print = [](Json line) { std::cout << line.dump() << std::endl; };
  delegate->playerReadyToPlay = [print] { print({{"event", "playerReadyToPlay"}}); };
  delegate->playerPlaying = [print] { print({{"event", "playerPlaying"}}); };
  delegate->playerPaused = [print] { print({{"event", "playerPaused"}}); };
  delegate->playerSeek = [print](double seconds) {
    print({{"event", "playerSeek"}, {"seconds", seconds}});
  };
  delegate->playerEnded = [print] { print({{"event", "playerEnded"}}); };
  delegate->playerCancelledByUser = [print] { print({{"event", "playerCancelledByUser"}}); };
  return delegate;
}

int runPlay(CliContext& context, const PlayArguments& args) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  PlayerConfig& config = nembra.playerConfig();
  config.setIsMuted(args.muted);
  config.setIsCachingEnabled(!args.noCache);
  config.setShouldShowSubtitles(args.subtitles);
  config.setAdsUri(args.ads);
  // The tag's ads are fetched, chosen and tracked by the VAST client.
  if (!args.ads.empty()) {
    VastAdsLoader::install(nembra.mainQueue(), std::make_shared<CurlHttpClient>(), {});
  }
  std::string badExtra;
  Json extra = parseNameValues(args.extra, badExtra);
  if (extra.is_null()) return fail("--extra " + badExtra);
  config.addExtraArgs(extra);
  // A token never holds a slash: such an item is a file that is not there.
  for (const std::string& item : args.items) {
    if (isToken(item) && item.find('/') != std::string::npos) {
      return fail("no such file: " + item);
    }
  }

  auto delegate = context.options.json ? jsonEvents() : nullptr;
  if (delegate) nembra.setPlayerDelegate(delegate);

  OptionalError error;
  std::unique_ptr<UiAdapter> adapter = makeUiAdapter(kind, nembra.mainQueue(), error);
  if (!adapter) return fail(error ? error->message : "cannot start the UI");
  OptionalError failure;
  PlaybackModuleOptions options;
  // Without a screen there is no one to listen: no sound device is opened.
  options.withSound = kind != UiKind::None && !args.noSound;
  options.onFinished = [&failure](const std::string&, const OptionalError& error) {
    if (error && !failure) failure = error;
  };
  installPlaybackScreens(options);
  auto presenter = std::make_shared<ScreenPresenter>(*adapter, nembra.mainQueue());
  nembra.setScreenPresenter(presenter);
  adapter->setQuitHandler([presenter] { presenter->dismissAll(); });

  bool allTokens = true;
  for (const std::string& item : args.items) allTokens = allTokens && isToken(item);
  if (allTokens) {
    nembra.playVideos(args.items);
  } else {
    std::vector<std::string> uris;
    for (const std::string& item : args.items) {
      if (!isToken(item)) {
        uris.push_back(item.find("://") == std::string::npos
                           ? std::filesystem::absolute(item).string()
                           : item);
        continue;
      }
      std::string cached = nembra.playerCacheManager().getCacheFilePathWithType(VIDEO, item);
      uris.push_back(std::filesystem::exists(cached) ? cached : nembra.videos().getVideoUrl(item));
    }
    nembra.playFromUris(uris);
  }
  // The screen comes at once, or after the session and description requests of a player with
  // extra parameters.
  nembra.mainQueue().runUntil([&] { return presenter->depth() > 0 || failure.has_value(); },
                              std::chrono::seconds(60));
  nembra.mainQueue().runUntil([&] { return presenter->depth() == 0; }, std::chrono::hours(24));
  presenter.reset();
  adapter.reset();
  PlaybackScreens::install(nullptr);
  if (failure) return fail(failure->message);
  return 0;
}

}  // namespace

int runAudios(CliContext& context, const std::vector<std::string>& tokens) {
  Nembra& nembra = context.nembra();
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Quiet);
  UiKind kind{};
  std::string badUi;
  if (!chosenUiKind(context, kind, badUi)) return fail(badUi);
  auto delegate = context.options.json ? jsonEvents() : nullptr;
  if (delegate) nembra.setPlayerDelegate(delegate);
  OptionalError error;
  std::unique_ptr<UiAdapter> adapter = makeUiAdapter(kind, nembra.mainQueue(), error);
  if (!adapter) return fail(error ? error->message : "cannot start the UI");
  installPlaybackScreens();
  auto presenter = std::make_shared<ScreenPresenter>(*adapter, nembra.mainQueue());
  nembra.setScreenPresenter(presenter);
  adapter->setQuitHandler([presenter] { presenter->dismissAll(); });
  nembra.playAudios(tokens);
  nembra.mainQueue().runUntil([&] { return presenter->depth() == 0; }, std::chrono::hours(24));
  presenter.reset();
  adapter.reset();
  PlaybackScreens::install(nullptr);
  return 0;
}

void registerPlayCommand(CLI::App& app, CliContext& context, int& exitCode) {
  static PlayArguments args;
  CLI::App* command = app.add_subcommand(
      "play", "Play videos (tokens, URLs or files) in the video player; the UI follows --ui");
  command->add_option("items", args.items, "Video tokens, URLs or files")->required();
  command->add_flag("--muted", args.muted, "Start muted");
  command->add_flag("--no-cache", args.noCache,
                    "Do not write a completely loaded video to the cache");
  command->add_flag("--subtitles", args.subtitles, "Show the service's transcription as subtitles");
  command->add_flag("--no-sound", args.noSound, "Open no sound device");
  command->add_option("--ads", args.ads, "Play the ads of this VAST tag URL before the content");
  command->add_option("--extra", args.extra, "NAME=VALUE added to the video URL's query");
  command->callback([&context, &exitCode] { exitCode = runPlay(context, args); });

  static std::vector<std::string> audioTokens;
  CLI::App* audios = app.get_subcommand("audios");
  CLI::App* playAudios = audios->add_subcommand(
      "play", "Play the application's audios by token in the audio player (a list repeats)");
  playAudios->add_option("tokens", audioTokens, "Audio tokens")->required();
  playAudios->callback([&context, &exitCode] { exitCode = runAudios(context, audioTokens); });
}

}  // namespace nembra
