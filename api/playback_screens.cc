// The Nembra object's playback operations: they reach the players only through the installed
// PlaybackScreens and the host's presenter.
#include "api/playback_screens.h"

#include <mutex>

#include "nembra/application.h"
#include "nembra/nembra_audios.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<PlaybackScreens> installedScreens;  // guarded by installMutex

}  // namespace

void PlaybackScreens::install(std::shared_ptr<PlaybackScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<PlaybackScreens> PlaybackScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

void Nembra::withPlaybackScreens(
    const std::string& what, const std::function<void(PlaybackScreens&, ScreenPresenter&)>& run) {
  auto screens = PlaybackScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError("cannot " + what +
             (!screens ? ": no playback module is installed" : ": no UI adapter is set"));
    return;
  }
  run(*screens, *presenter);
}

void Nembra::playVideo(const std::string& token) { playVideos({token}); }

void Nembra::playVideos(const std::vector<std::string>& tokens) {
  withPlaybackScreens("play videos", [&](PlaybackScreens& screens, ScreenPresenter& presenter) {
    screens.playVideos(*this, presenter, tokens);
  });
}

void Nembra::playFromUri(const std::string& uri) { playFromUris({uri}); }

void Nembra::playFromUris(const std::vector<std::string>& uris) {
  withPlaybackScreens("play videos", [&](PlaybackScreens& screens, ScreenPresenter& presenter) {
    screens.playFromUris(*this, presenter, uris);
  });
}

void Nembra::playAudio(const std::string& token) { playAudios({token}); }

void Nembra::playAudios(const std::vector<std::string>& tokens) {
  std::vector<std::string> uris;
  for (const std::string& token : tokens) uris.push_back(audios().getAudioUrl(token));
  playAudioFromUris(uris);
}

void Nembra::playAudioFromUri(const std::string& uri) { playAudioFromUris({uri}); }

void Nembra::playAudioFromUris(const std::vector<std::string>& uris) { startAudioPlayer(uris); }

void Nembra::startAudioPlayer(const std::vector<std::string>& paths) {
  withPlaybackScreens("play audios", [&](PlaybackScreens& screens, ScreenPresenter& presenter) {
    screens.startAudioPlayer(*this, presenter, paths);
  });
}

void Nembra::startFileSelector() {
  withPlaybackScreens("start the file selector",
                      [&](PlaybackScreens& screens, ScreenPresenter& presenter) {
                        screens.startFileSelector(*this, presenter);
                      });
}

void Nembra::trimVideo(const std::string& path) {
  withPlaybackScreens("trim a video", [&](PlaybackScreens& screens, ScreenPresenter& presenter) {
    screens.trimVideo(*this, presenter, path);
  });
}

}  // namespace nembra
