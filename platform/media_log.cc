#include "platform/media_log.h"

extern "C" {
#include <libavutil/log.h>
}

namespace nembra {

void setMediaLogLevel(MediaLogLevel level) {
  switch (level) {
    case MediaLogLevel::Quiet:
      av_log_set_level(AV_LOG_QUIET);
      break;
    case MediaLogLevel::Errors:
      av_log_set_level(AV_LOG_ERROR);
      break;
    case MediaLogLevel::Warnings:
      av_log_set_level(AV_LOG_WARNING);
      break;
    case MediaLogLevel::Info:
      av_log_set_level(AV_LOG_INFO);
      break;
  }
}

}  // namespace nembra
