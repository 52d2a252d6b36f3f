#include "playback/playback_module.h"

#include "nembra/application.h"
#include "platform/ui/screen_presenter.h"
#include "playback/nembra_audio_player.h"
#include "playback/nembra_player.h"
#include "playback/player_screen.h"

namespace nembra {

namespace {

void present(Nembra& application, ScreenPresenter& presenter, std::shared_ptr<NembraPlayer> player,
             const PlaybackModuleOptions& options) {
  if (!player) {
    application.logError("cannot create the video player");
    if (options.onFinished)
      options.onFinished("", Error::invalidArgument("cannot create the video player"));
    return;
  }
  player->setDidFinishPlaying(options.onFinished);
  presenter.present(std::make_shared<PlayerScreen>(std::move(player), application.mainQueue(),
                                                   options.withSound,
                                                   application.playerConfig().getAdsUri()));
}

}  // namespace

void PlaybackModule::playVideos(Nembra& application, ScreenPresenter& presenter,
                                const std::vector<std::string>& tokens) {
  if (tokens.empty()) return;
  const PlayerConfig& config = application.playerConfig();
  const PlaybackModuleOptions options = options_;
  // The presenter lives as long as the host keeps it; players made later check it again.
  std::weak_ptr<ScreenPresenter> weakPresenter = application.screenPresenter();
  Nembra* app = &application;
  auto show = [app, weakPresenter, options](std::shared_ptr<NembraPlayer> player) {
    if (auto presenter = weakPresenter.lock())
      present(*app, *presenter, std::move(player), options);
  };
  if (tokens.size() > 1) {
    NembraPlayer::createPlayersWithAdditionalParams(application, NembraPlayer::VideoTokens{tokens},
                                                    config.extraArgs(), show);
  } else if (config.extraArgs().empty() && !config.shouldShowSubtitles()) {
    // Nothing to add to the URL: the cached copy plays if there is one.
    present(application, presenter, NembraPlayer::initWithNembraApplication(application, tokens[0]),
            options);
  } else {
    NembraPlayer::createPlayerWithAdditionalParams(application, tokens[0], config.extraArgs(),
                                                   show);
  }
}

void PlaybackModule::playFromUris(Nembra& application, ScreenPresenter& presenter,
                                  const std::vector<std::string>& uris) {
  if (uris.empty()) return;
  if (uris.size() == 1) {
    present(application, presenter, NembraPlayer::initWithVideoURL(application, uris[0]), options_);
    return;
  }
  std::weak_ptr<ScreenPresenter> weakPresenter = application.screenPresenter();
  Nembra* app = &application;
  const PlaybackModuleOptions options = options_;
  NembraPlayer::createPlayersWithAdditionalParams(
      application, NembraPlayer::VideoUrls{uris}, application.playerConfig().extraArgs(),
      [app, weakPresenter, options](std::shared_ptr<NembraPlayer> player) {
        if (auto presenter = weakPresenter.lock()) {
          present(*app, *presenter, std::move(player), options);
        }
      });
}

void PlaybackModule::startAudioPlayer(Nembra& application, ScreenPresenter& presenter,
                                      const std::vector<std::string>& paths) {
  if (paths.empty()) return;
  AudioPlaybackEngine& engine = options_.audioEngine
                                    ? *options_.audioEngine
                                    : AudioPlaybackEngine::sharedInstance(application.mainQueue());
  presenter.present(std::make_shared<NembraAudioPlayer>(application, paths, engine));
}

void installPlaybackScreens(PlaybackModuleOptions options) {
  PlaybackScreens::install(std::make_shared<PlaybackModule>(std::move(options)));
}

}  // namespace nembra
