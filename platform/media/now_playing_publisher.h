// Where the audio engine publishes what it is playing, for the desktop's media widgets and
// media keys (the session bus's media-player interface, when there is one). The engine calls
// it; an implementation forwards to the desktop and may ignore any call.
//
// Threading: called from the main queue only. |commands| handed to setCommandHandler are to be
// posted to the main queue by the implementation.
#pragma once

#include <functional>
#include <string>

namespace nembra {

struct NowPlayingInfo {
  std::string title;      // "Nembra"
  std::string artist;     // empty
  std::string listTitle;  // "Nembra Title": the list (album) the item belongs to
  std::string iconPath;   // a PNG file; empty for none
  double durationSeconds = 0;
  std::string url;  // the item playing
};

enum class NowPlayingCommand { Play, Pause, PlayPause, Next, Previous, Stop };

class NowPlayingPublisher {
 public:
  virtual ~NowPlayingPublisher() = default;

  // A new item: replaces the whole information.
  virtual void publish(const NowPlayingInfo& info) = 0;
  virtual void setPlaying(bool playing) = 0;
  // The position moved (a seek, or the periodic update while playing).
  virtual void setPosition(double seconds) = 0;
  // Nothing plays any more: the desktop forgets the item.
  virtual void clear() = 0;
  // What the desktop's media keys ask for; empty to stop listening.
  virtual void setCommandHandler(std::function<void(NowPlayingCommand)> handler) = 0;
};

}  // namespace nembra
