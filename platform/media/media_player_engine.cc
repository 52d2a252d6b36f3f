#include "platform/media/media_player_engine.h"

namespace nembra {

const char* mediaPlayerStatusName(MediaPlayerStatus status) {
  switch (status) {
    case MediaPlayerStatus::Unknown:
      return "unknown";
    case MediaPlayerStatus::ReadyToPlay:
      return "ready";
    case MediaPlayerStatus::Failed:
      return "failed";
  }
  return "unknown";
}

const char* mediaPlayerTimeControlStatusName(MediaPlayerTimeControlStatus status) {
  switch (status) {
    case MediaPlayerTimeControlStatus::Paused:
      return "paused";
    case MediaPlayerTimeControlStatus::WaitingToPlay:
      return "waiting";
    case MediaPlayerTimeControlStatus::Playing:
      return "playing";
  }
  return "paused";
}

}  // namespace nembra
