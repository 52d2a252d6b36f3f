// NowPlayingPublisher over MPRIS: the player appears on the session D-Bus as
// "org.mpris.MediaPlayer2.nembra.instance<pid>" at /org/mpris/MediaPlayer2, with the
// org.mpris.MediaPlayer2 and org.mpris.MediaPlayer2.Player interfaces, so the desktop's media
// widgets show what plays and its media keys reach the command handler. Properties are read
// through org.freedesktop.DBus.Properties; changes of the status and the item are signalled
// with PropertiesChanged.
//
// Without a session bus (none running, or no address known) make() gives a publisher that
// does nothing: playing never depends on the desktop.
//
// Threading: the NowPlayingPublisher calls from one thread at a time (the main queue). Bus
// messages are handled on the thread "com.nembra.mpris"; commands are posted to the queue given
// at creation.
#pragma once

#include <memory>
#include <string>

#include "nembra/task_queue.h"
#include "platform/media/now_playing_publisher.h"

namespace nembra {

class MprisNowPlayingPublisher {
 public:
  static constexpr const char* kObjectPath = "/org/mpris/MediaPlayer2";

  // On the session bus; |commandQueue| must outlive the publisher.
  static std::unique_ptr<NowPlayingPublisher> make(TaskQueue& commandQueue);
  // On the bus at |address| (a "unix:path=…" text); the no-op publisher when it cannot be
  // reached. |busName| receives the name taken, empty for the no-op one.
  static std::unique_ptr<NowPlayingPublisher> makeOnBus(TaskQueue& commandQueue,
                                                        const std::string& address,
                                                        std::string* busName = nullptr);
};

}  // namespace nembra
