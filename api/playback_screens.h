// The players' entry into the Nembra object: the playback module installs itself here
// (installPlaybackScreens()) and the façade's play*, startAudioPlayer, startFileSelector and
// trimVideo operations present its screens, without the api module depending on it.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace nembra {

class Nembra;
class ScreenPresenter;

class PlaybackScreens {
 public:
  virtual ~PlaybackScreens() = default;

  // Video tokens: players from the player configuration and its extra arguments.
  virtual void playVideos(Nembra& application, ScreenPresenter& presenter,
                          const std::vector<std::string>& tokens) = 0;
  // Direct media URLs or local paths.
  virtual void playFromUris(Nembra& application, ScreenPresenter& presenter,
                            const std::vector<std::string>& uris) = 0;
  // Ready audio URLs, played one after another.
  virtual void startAudioPlayer(Nembra& application, ScreenPresenter& presenter,
                                const std::vector<std::string>& paths) = 0;
  // The video library (pick a movie, upload it).
  virtual void startFileSelector(Nembra& application, ScreenPresenter& presenter) = 0;
  // The trimming editor over a local video (already copied to the documents directory).
  virtual void trimVideo(Nembra& application, ScreenPresenter& presenter,
                         const std::string& path) = 0;

  static void install(std::shared_ptr<PlaybackScreens> screens);
  // Null until the module installs itself.
  static std::shared_ptr<PlaybackScreens> installed();
};

}  // namespace nembra
