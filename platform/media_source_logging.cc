#include "platform/media_source_logging.h"

extern "C" {
#include <libavutil/log.h>
}

namespace nembra {

void setMediaLogVerbose(bool verbose) { av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_ERROR); }

}  // namespace nembra
